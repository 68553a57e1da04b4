// Test support: what a test makes outside its own process (named network
// namespaces, shared-memory directories) goes also when the test process
// dies on a fatal signal, which skips every destructor (an assertion's
// abort, a crash).
//
// Live entries are kept with the pid that made them. The handler removes
// this process's own entries with async-signal-safe calls only (umount2 and
// unlink for a namespace mount; fork, exec of rm and waitpid for a
// directory tree), so a forked death-test child, which has another pid,
// leaves its parent's alone. It then puts back the handler it replaced (a
// sanitizer's, or the default) and raises the signal again.
#pragma once

#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <iterator>
#include <string>

namespace CorvidTest::fatalCleanup {

enum class Kind { mount, tree };

struct Entry {
  pid_t owner;
  Kind kind;
  char path[200];
};
inline Entry entries[32];
inline constexpr int fatalSignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};
inline struct sigaction previous[std::size(fatalSignals)];

inline void onFatalSignal(int signal) {
  for (Entry& e : entries) {
    if (e.owner != getpid()) continue;
    if (e.kind == Kind::mount) {
      umount2(e.path, MNT_DETACH);
      unlink(e.path);
    } else if (pid_t const rm = fork(); rm == 0) {
      execl("/bin/rm", "rm", "-rf", "--", e.path, static_cast<char*>(nullptr));
      _exit(127);
    } else if (rm > 0) {
      waitpid(rm, nullptr, 0);
    }
    e.owner = 0;
  }
  for (std::size_t i = 0; i < std::size(fatalSignals); ++i) {
    if (fatalSignals[i] == signal) sigaction(signal, &previous[i], nullptr);
  }
  raise(signal);
}

// Starts (add) or ends the watch over path.
inline void watch(Kind kind, std::string const& path, bool add) {
  static bool const handlers = [] {
    struct sigaction a {};
    a.sa_handler = onFatalSignal;
    for (std::size_t i = 0; i < std::size(fatalSignals); ++i) sigaction(fatalSignals[i], &a, &previous[i]);
    return true;
  }();
  static_cast<void>(handlers);
  for (Entry& e : entries) {
    if (add ? e.owner == 0 : (e.owner == getpid() && path == e.path)) {
      std::snprintf(e.path, sizeof e.path, "%s", path.c_str());
      e.kind = kind;
      e.owner = add ? getpid() : 0;
      return;
    }
  }
}

}  // namespace CorvidTest::fatalCleanup
