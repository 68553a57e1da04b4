// Small helpers for code that enters network namespaces: the errno
// exception the namespace and netlink utilities raise, and NetNsSwitch, the
// scope that moves the calling thread into a namespace and back.
//
// A network namespace belongs to a thread, not to a process: setns() moves
// only the caller. Agents keep one activity thread, so a switch lasts the
// few system calls that must run inside the other namespace (opening a
// socket, configuring an interface) and is undone before the loop runs again.
// Cost: two open() and two setns() calls per switch.
#pragma once

#include <Brio/Exception.h>

#include <string>

namespace Corvid {

// Raises Brio::ErrnoException carrying `what` and the current errno.
[[noreturn]] void throwErrnoException(char const* what);
// Traces `what` (a step's text, often ending in its own separator, as in
// "Cannot remove PATH: ") with the errno text appended, then raises the errno
// exception named by `what` without that trailing separator (the exception's
// message adds ": " and the errno text itself).
[[noreturn]] void failWithErrno(std::string what, int errorNumber);

// The /proc file of the calling thread's network namespace. "/proc/self"
// names the thread-group leader's, which differs from the caller's once a
// second thread has switched; "/proc/thread-self" is exact in both cases.
char const* ownNetNsPath();

// Moves the calling thread into the namespace of `nsFile` (an open nsfs
// file, or a path under /var/run/netns) for its lifetime. ok() is false,
// and errorNumber() holds errno, when the namespace could not be entered;
// the thread then stays where it was. Restoring can only fail if the kernel
// took our own namespace away, and nothing after that would be safe: it is
// a fatal assertion.
class NetNsSwitch {
 public:
  explicit NetNsSwitch(char const* nsPath);
  ~NetNsSwitch();
  NetNsSwitch(NetNsSwitch const&) = delete;
  NetNsSwitch& operator=(NetNsSwitch const&) = delete;

  bool ok() const { return error_ == 0; }
  int errorNumber() const { return error_; }

 private:
  int original_ = -1;
  int error_ = 0;
};

}  // namespace Corvid
