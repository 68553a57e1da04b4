#include <Corvid/NsUtils.h>
#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Corvid {

namespace {
Glimmer::Facility& tr = Glimmer::facility("Corvid");
}

void throwErrnoException(char const* what) { throw Brio::ErrnoException(what, errno); }

void failWithErrno(std::string what, int errorNumber) {
  GLIMMER_TRACE(tr, 1, what << std::strerror(errorNumber));
  while (!what.empty() && (what.back() == ' ' || what.back() == ':')) what.pop_back();
  throw Brio::ErrnoException(what, errorNumber);
}

char const* ownNetNsPath() {
  // Keep the conventional name where it is exact (single-threaded agents,
  // and the path operators see in traces).
  return syscall(SYS_gettid) == getpid() ? "/proc/self/ns/net" : "/proc/thread-self/ns/net";
}

NetNsSwitch::NetNsSwitch(char const* nsPath) {
  original_ = open(ownNetNsPath(), O_RDONLY | O_CLOEXEC);
  if (original_ < 0) {
    error_ = errno;
    return;
  }
  int target = open(nsPath, O_RDONLY | O_CLOEXEC);
  if (target < 0 || setns(target, CLONE_NEWNET) != 0) {
    error_ = errno;
    if (target >= 0) close(target);
    close(original_);
    original_ = -1;
    return;
  }
  close(target);
}

NetNsSwitch::~NetNsSwitch() {
  if (original_ < 0) return;
  int const saved = errno;  // the caller's result inside the namespace
  int const rc = setns(original_, CLONE_NEWNET);
  FENNEL_ASSERT(rc == 0);
  close(original_);
  errno = saved;
}

}  // namespace Corvid
