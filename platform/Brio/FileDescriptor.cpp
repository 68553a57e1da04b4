#include <Brio/FileDescriptor.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Brio {

Ptr<FileDescriptor> FileDescriptor::fileDescriptorFactory(String name, int descriptor) {
  return Ptr<FileDescriptor>(new FileDescriptor(std::move(name), descriptor));
}

FileDescriptor::FileDescriptor(String name, int descriptor)
    : Entity(std::move(name)), manager_(ActivityManager::current()), descriptor_(descriptor) {
  nonBlockingRead();
}

void FileDescriptor::nonBlockingRead() {
  int flags = descriptor_ < 0 ? -1 : fcntl(descriptor_, F_GETFL);
  nonBlocking_ = flags >= 0 && (flags & O_NONBLOCK);
}

FileDescriptor::~FileDescriptor() {
  manager_->fdDeregister(this);
  if (descriptor_ >= 0) ::close(descriptor_);
}

void FileDescriptor::registrationUpdate() {
  int error = manager_->fdUpdate(this);
  if (error) errorNumber_ = error;
}

void FileDescriptor::descriptorIs(int fd) {
  if (fd == descriptor_) return;
  manager_->fdDeregister(this);
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = fd;
  nonBlockingRead();
  registrationUpdate();
}

int FileDescriptor::descriptorRelease() {
  manager_->fdDeregister(this);
  int fd = descriptor_;
  descriptor_ = -1;
  nonBlocking_ = false;
  return fd;
}

void FileDescriptor::nonBlockingIs(bool on) {
  if (descriptor_ < 0) return;
  int flags = fcntl(descriptor_, F_GETFL);
  if (flags < 0) {
    errorNumber_ = errno;
    return;
  }
  int wanted = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (wanted != flags && fcntl(descriptor_, F_SETFL, wanted) < 0) {
    errorNumber_ = errno;
    return;
  }
  nonBlocking_ = on;
}

void FileDescriptor::notifyOnReadableIs(bool on) {
  if (on == notifyOnReadable_) return;
  notifyOnReadable_ = on;
  registrationUpdate();
}

void FileDescriptor::notifyOnWritableIs(bool on) {
  if (on == notifyOnWritable_) return;
  notifyOnWritable_ = on;
  registrationUpdate();
}

void FileDescriptor::edgeTriggeredIs(bool on) {
  if (on == edgeTriggered_) return;
  edgeTriggered_ = on;
  registrationUpdate();
}

}  // namespace Brio
