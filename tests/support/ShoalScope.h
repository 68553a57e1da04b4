// Test support for shared tables: a private SHOAL_ROOT per test, and child
// processes that talk to the test over a pair of pipes in lines.
//
// ShoalRoot makes a fresh directory under /dev/shm, points SHOAL_ROOT at it
// and removes it (with everything below) when it goes. Child forks a
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
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

namespace CorvidTest {

class ShoalRoot {
 public:
  ShoalRoot() {
    char tmpl[] = "/dev/shm/corvid-test-XXXXXX";
    char* d = mkdtemp(tmpl);
    path_ = d ? d : "";
    setenv("SHOAL_ROOT", path_.c_str(), 1);
  }
  ~ShoalRoot() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    unsetenv("SHOAL_ROOT");
  }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

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

  pid_t pid() const { return pid_; }
  bool send(std::string const& line) {
    std::string s = line + "\n";
    return in_ >= 0 && write(in_, s.data(), s.size()) == static_cast<ssize_t>(s.size());
  }
  // The next answer line (without its newline), or "" on timeout or EOF
  // (timedOut() tells which).
  std::string line(double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
      auto nl = buffer_.find('\n');
      if (nl != std::string::npos) {
        std::string l = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return l;
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        timedOut_ = true;
        return "";
      }
      pollfd p{out_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char buf[4096];
      ssize_t n = read(out_, buf, sizeof buf);
      if (n <= 0) return "";
      buffer_.append(buf, static_cast<std::size_t>(n));
    }
  }
  bool timedOut() const { return timedOut_; }
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
  bool timedOut_ = false;
};

// Reads one command line from fd, waiting up to `seconds`; "" on EOF or
// timeout.
inline std::string readLine(int fd, double seconds) {
  std::string l;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return "";
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char c;
    if (read(fd, &c, 1) != 1) return "";
    if (c == '\n') return l;
    l += c;
  }
}

inline void writeLine(int fd, std::string const& l) {
  std::string s = l + "\n";
  if (write(fd, s.data(), s.size()) < 0) {
  }
}

}  // namespace CorvidTest
