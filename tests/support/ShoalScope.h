// Test support for shared tables: a private SHOAL_ROOT per test, and child
// processes that talk to the test over a pair of pipes in lines.
//
// ShoalRoot makes a fresh directory under /dev/shm, points SHOAL_ROOT at it
// and removes it (with everything below) when it goes, also on a fatal
// signal (FatalCleanup.h). Child forks a
// process running a function; the test writes command lines to it and
// reads answer lines with a deadline, and the destructor kills and reaps
// the child whatever happened, so no test leaves processes or files behind.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "FatalCleanup.h"

namespace CorvidTest {

class ShoalRoot {
 public:
  ShoalRoot() {
    char tmpl[] = "/dev/shm/corvid-test-XXXXXX";
    char* d = mkdtemp(tmpl);
    path_ = d ? d : "";
    if (!path_.empty()) fatalCleanup::watch(fatalCleanup::Kind::tree, path_, true);
    setenv("SHOAL_ROOT", path_.c_str(), 1);
  }
  ~ShoalRoot() {
    std::error_code ec;
    if (!path_.empty()) {
      std::filesystem::remove_all(path_, ec);
      fatalCleanup::watch(fatalCleanup::Kind::tree, path_, false);
    }
    unsetenv("SHOAL_ROOT");
  }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

// The next line from fd (without its newline) within `seconds`, keeping
// what came after it in `rest` for the next call; "" with *ended set on
// timeout or end of file.
inline std::string readLine(int fd, double seconds, std::string& rest, bool* ended = nullptr) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    if (auto nl = rest.find('\n'); nl != std::string::npos) {
      std::string l = rest.substr(0, nl);
      rest.erase(0, nl + 1);
      return l;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() > 0 && poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;  // EINTR or the deadline
    char buf[4096];
    ssize_t n = left.count() > 0 ? read(fd, buf, sizeof buf) : 0;
    if (n <= 0) {
      if (ended) *ended = true;
      return "";
    }
    rest.append(buf, static_cast<std::size_t>(n));
  }
}

// False when the line did not go whole (a dead reader).
inline bool writeLine(int fd, std::string const& l) {
  std::string const s = l + "\n";
  return fd >= 0 && write(fd, s.data(), s.size()) == static_cast<ssize_t>(s.size());
}

// A forked child. body(in, out) runs in the child with the read end of the
// command pipe and the write end of the answer pipe; its return value is the
// exit status.
class Child {
 public:
  explicit Child(std::function<int(int in, int out)> body) {
    int cmd[2], ans[2];
    if (pipe2(cmd, O_CLOEXEC) != 0 || pipe2(ans, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(cmd[1]);
      close(ans[0]);
      int rc = 99;
      try {
        rc = body(cmd[0], ans[1]);
      } catch (...) {
      }
      _exit(rc);
    }
    close(cmd[0]);
    close(ans[1]);
    in_ = cmd[1];
    out_ = ans[0];
  }
  ~Child() {
    kill();
    if (in_ >= 0) close(in_);
    if (out_ >= 0) close(out_);
  }
  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;

  bool send(std::string const& line) { return writeLine(in_, line); }
  // The next answer line, or "" once the child is silent past the deadline
  // or gone (then ended() is true until the next call).
  std::string line(double seconds) {
    ended_ = false;
    return readLine(out_, seconds, buffer_, &ended_);
  }
  bool ended() const { return ended_; }
  // Kills with `sig` and reaps; returns the wait status.
  int kill(int sig = SIGKILL) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, sig);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  // Waits up to `seconds` for the child to exit by itself; kills it after.
  int wait(double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return status;
      }
      usleep(2000);
    }
    return kill();
  }

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string buffer_;
  bool ended_ = false;
};

}  // namespace CorvidTest
