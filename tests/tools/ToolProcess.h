// Test support: run the built `corvid` binary as a child process and collect
// what it printed on stdout and stderr and how it exited.
//
// ToolProcess starts the tool with fork and exec (no shell, so arguments
// reach it byte for byte), reads both pipes with poll so a chatty child can
// never block on a full pipe, and kills the child if it outlives the
// deadline given to finish(), so a hung tool fails the test instead of
// hanging it. The child inherits the caller's network namespace, which is
// how the endpoint tests put it inside their private namespace.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

namespace CorvidTest {

// How a run ended. status is the exit code, or 128 + the signal number when
// the child was killed by one (as a shell reports it), or -1 when it could
// not be started.
struct ToolResult {
  int status = -1;
  std::string out;
  std::string err;
  bool timedOut = false;
};

// The build tree: CORVID_TEST_BINARY_DIR when set, else the one the test
// was built in.
inline std::string buildDir() {
  char const* dir = std::getenv("CORVID_TEST_BINARY_DIR");
  return dir ? dir : CORVID_BINARY_DIR;
}

// The tool inside the build tree.
inline std::string corvidBinary() { return buildDir() + "/tools/corvid/corvid"; }

class ToolProcess {
 public:
  explicit ToolProcess(std::vector<std::string> const& args, std::string const& binary = corvidBinary()) {
    int pipes[2][2];  // stdout, stderr
    if (binary.empty() || pipe2(pipes[0], O_CLOEXEC) != 0) return;
    if (pipe2(pipes[1], O_CLOEXEC) != 0) {
      close(pipes[0][0]);
      close(pipes[0][1]);
      return;
    }
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(pipes[0][1], STDOUT_FILENO);
      dup2(pipes[1][1], STDERR_FILENO);
      execv(binary.c_str(), argv.data());
      _exit(127);
    }
    for (int i = 0; i < 2; ++i) {
      close(pipes[i][1]);
      fds_[i] = pipes[i][0];
    }
    if (pid_ < 0) closePipes();
  }
  ~ToolProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    closePipes();
  }
  ToolProcess(ToolProcess const&) = delete;
  ToolProcess& operator=(ToolProcess const&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  // Sends a signal to the running child (Ctrl-C is SIGINT).
  void signal(int sig) const {
    if (pid_ > 0) kill(pid_, sig);
  }

  // Reads both streams to their end and reaps the child; kills it first
  // when it is still running after `seconds`.
  ToolResult finish(double seconds = 10) {
    ToolResult r;
    if (pid_ <= 0) return r;
    std::string* into[2] = {&r.out, &r.err};
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (fds_[0] >= 0 || fds_[1] >= 0) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        r.timedOut = true;
        kill(pid_, SIGKILL);
        break;
      }
      pollfd p[2] = {{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}};
      if (poll(p, 2, static_cast<int>(left.count())) < 0) break;
      for (int i = 0; i < 2; ++i) {
        if (fds_[i] < 0 || !(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        char buf[4096];
        ssize_t const n = read(fds_[i], buf, sizeof buf);
        if (n > 0) {
          into[i]->append(buf, static_cast<std::size_t>(n));
        } else {
          close(fds_[i]);
          fds_[i] = -1;
        }
      }
    }
    closePipes();
    int status = 0;
    if (waitpid(pid_, &status, 0) == pid_) {
      r.status = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    }
    pid_ = -1;
    return r;
  }

 private:
  void closePipes() {
    for (int& fd : fds_) {
      if (fd >= 0) close(fd);
      fd = -1;
    }
  }

  pid_t pid_ = -1;
  int fds_[2] = {-1, -1};  // the read ends of stdout and stderr
};

// Runs the tool to completion as user nobody (through setpriv), for the
// behaviour an operator without root sees.
inline ToolResult runCorvidAsNobody(std::vector<std::string> args, double seconds = 10) {
  args.insert(args.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", corvidBinary()});
  return ToolProcess(args, "/usr/bin/setpriv").finish(seconds);
}

// Runs the tool to completion.
inline ToolResult runCorvid(std::vector<std::string> const& args, double seconds = 10) {
  return ToolProcess(args).finish(seconds);
}

}  // namespace CorvidTest
