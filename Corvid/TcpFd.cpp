#include <Corvid/TcpFd.h>

#include <Corvid/NetnsUtils.h>
#include <Glimmer/Glimmer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace Corvid {

namespace {
Glimmer::Facility& tr = Glimmer::facility("Corvid");

int domainOf(AddressFamily af) { return af == AddressFamily::ipv6 ? AF_INET6 : AF_INET; }
}  // namespace

TcpFileDescriptor::TcpFileDescriptor(int descriptor, bool edgeTriggered)
    : Entity("TcpFd"), descriptor_(descriptor), edgeTriggered_(edgeTriggered) {}

void TcpFileDescriptor::handleDel() {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
}

Brio::Ptr<TcpFileDescriptor> tcpFileDescriptorFactory(int descriptor, bool edgeTriggered) {
  return Brio::Ptr<TcpFileDescriptor>(new TcpFileDescriptor(descriptor, edgeTriggered));
}

Brio::Ptr<TcpFileDescriptor> TcpFileDescriptor::socket(AddressFamily af, NamespaceName const& networkNamespace,
                                                       bool edgeTriggered) {
  // SOCK_CLOEXEC: an agent that starts helpers must not hand them its sessions.
  int const type = SOCK_STREAM | SOCK_CLOEXEC;
  int const sd = socketAt(domainOf(af), type, 0, networkNamespace.value().c_str());
  GLIMMER_TRACE(tr, 6, "Socket: af=" << af << " networkNamespace=" << networkNamespace.value()
                                     << " descriptor=" << sd << " edgeTriggered=" << edgeTriggered);
  if (sd < 0) return nullptr;
  return tcpFileDescriptorFactory(sd, edgeTriggered);
}

Brio::Ptr<TcpFileDescriptor> TcpFileDescriptor::socketAccept(TcpFileDescriptor const* serverFd, AddressFamily af,
                                                             NamespaceName const& networkNamespace,
                                                             bool edgeTriggered) {
  return socketAccept(serverFd, af, networkNamespace, edgeTriggered, nullptr);
}

Brio::Ptr<TcpFileDescriptor> TcpFileDescriptor::socketAccept(TcpFileDescriptor const* serverFd, AddressFamily af,
                                                             NamespaceName const& networkNamespace,
                                                             bool edgeTriggered, sockaddr_storage* peer) {
  (void)af;
  (void)networkNamespace;  // an accepted socket lives where its listener does
  GLIMMER_TRACE(tr, 6, "Accept: serverFileDescriptor=" << serverFd->descriptor());
  socklen_t len = sizeof(sockaddr_storage);
  // Non-blocking from the start: every owner registers it on the loop.
  int const sd = ::accept4(serverFd->descriptor(), reinterpret_cast<sockaddr*>(peer), peer ? &len : nullptr,
                           SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (sd < 0) return nullptr;
  return tcpFileDescriptorFactory(sd, edgeTriggered);
}

TcpFileDescriptorEventRegistration::TcpFileDescriptorEventRegistration(Brio::Ptr<TcpFileDescriptor const> const& fd)
    : Entity("TcpFileDescriptorEventRegistration"), fileDescriptor_(fd) {}

TcpFileDescriptorEventRegistrationBrioc::TcpFileDescriptorEventRegistrationBrioc(
    Brio::Ptr<TcpFileDescriptor const> const& fd)
    : TcpFileDescriptorEventRegistration(fd), reactor_(this) {
  loopFd_ = Brio::FileDescriptor::fileDescriptorFactory("TcpFd", fd ? fd->descriptor() : -1);
  loopFd_->nonBlockingIs(true);
  loopFd_->edgeTriggeredIs(fd && fd->edgeTriggered());
  reactor_.notifierIs(loopFd_);
}

TcpFileDescriptorEventRegistrationBrioc::~TcpFileDescriptorEventRegistrationBrioc() {
  reactor_.notifierIs(nullptr);
  // The number belongs to the TcpFileDescriptor: leave it open.
  loopFd_->descriptorRelease();
}

void TcpFileDescriptorEventRegistrationBrioc::onNotificationChange() {
  loopFd_->notifyOnReadableIs(enabled() && notifyOnReadable());
  loopFd_->notifyOnWritableIs(enabled() && notifyOnWritable());
}

Brio::Ptr<TcpFileDescriptorEventRegistration> TcpFileDescriptorEventRegistrationFactoryBrioc::createEventRegistration(
    Brio::Ptr<TcpFileDescriptor const> const& fileDescriptor, bool hiPriority) {
  (void)hiPriority;  // the loop has one priority
  return Brio::Ptr<TcpFileDescriptorEventRegistration>(new TcpFileDescriptorEventRegistrationBrioc(fileDescriptor));
}

Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> tcpFileDescriptorEventRegistrationFactoryBrioc() {
  return Brio::Ptr<TcpFileDescriptorEventRegistrationFactory>(new TcpFileDescriptorEventRegistrationFactoryBrioc);
}

}  // namespace Corvid
