// TcpFd: the connected or listening TCP descriptor as a shared object, and
// the subscription of a reactor to its readiness.
//
// TcpFileDescriptor owns one socket descriptor and closes it when its last
// holder goes, so the client state machine, the server's queue and the PDU
// endpoint can pass one connection between them without anybody closing it
// early. A TcpFileDescriptorEventRegistration is one reactor's interest in
// that descriptor: while `enabled` it follows readable and/or writable
// events and counts each one (readableCount, writableCount); its notifiees
// react to the count changes. The Brioc form binds a registration to the
// activity loop through a Brio::FileDescriptor that switches the socket to
// non-blocking mode (connect relies on EINPROGRESS) and hands the number
// back without closing it when the registration goes.
#pragma once

#include <Brio/Entity.h>
#include <Brio/FileDescriptor.h>
#include <Corvid/Ip.h>
#include <Corvid/NamespaceName.h>
#include <Corvid/ValueSupport.h>
#include <sys/socket.h>

#include <ostream>
#include <string_view>

namespace Corvid {

class TcpFileDescriptor : public Brio::Entity {
 public:
  int descriptor() const { return descriptor_; }
  bool edgeTriggered() const { return edgeTriggered_; }

  // A stream socket of family `af` opened inside `networkNamespace`; null
  // (errno set) when it cannot be opened.
  static Brio::Ptr<TcpFileDescriptor> socket(AddressFamily af, NamespaceName const& networkNamespace,
                                             bool edgeTriggered);
  // The next connection waiting on a listening descriptor; null (errno left
  // for the caller: EAGAIN when none waits) when accept fails.
  static Brio::Ptr<TcpFileDescriptor> socketAccept(TcpFileDescriptor const* serverFd, AddressFamily af,
                                                   NamespaceName const& networkNamespace, bool edgeTriggered);
  // As above, also filling the peer's address (as accept reports it).
  static Brio::Ptr<TcpFileDescriptor> socketAccept(TcpFileDescriptor const* serverFd, AddressFamily af,
                                                   NamespaceName const& networkNamespace, bool edgeTriggered,
                                                   sockaddr_storage* peer);

 protected:
  TcpFileDescriptor(int descriptor, bool edgeTriggered);
  ~TcpFileDescriptor() override { handleDel(); }
  // Closes the descriptor: the last holder is gone.
  void handleDel();

 private:
  friend Brio::Ptr<TcpFileDescriptor> tcpFileDescriptorFactory(int, bool);
  int descriptor_;
  bool edgeTriggered_;
};

Brio::Ptr<TcpFileDescriptor> tcpFileDescriptorFactory(int descriptor, bool edgeTriggered);

class TcpFileDescriptorEventRegistration : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<TcpFileDescriptorEventRegistration> {
   public:
    virtual void handleEnabled() {}
    virtual void handleReadableCount() {}
    virtual void handleWritableCount() {}

   protected:
    using EntityNotifiee::EntityNotifiee;
  };

  Brio::Ptr<TcpFileDescriptor const> const& fileDescriptor() const { return fileDescriptor_; }
  bool enabled() const { return enabled_; }
  void enabledIs(bool on) {
    attributeIs(enabled_, on, &Notifiee::handleEnabled, [this] { onNotificationChange(); });
  }
  bool notifyOnReadable() const { return notifyOnReadable_; }
  void notifyOnReadableIs(bool on) {
    if (on == notifyOnReadable_) return;
    notifyOnReadable_ = on;
    onNotificationChange();
  }
  bool notifyOnWritable() const { return notifyOnWritable_; }
  void notifyOnWritableIs(bool on) {
    if (on == notifyOnWritable_) return;
    notifyOnWritable_ = on;
    onNotificationChange();
  }
  U32 readableCount() const { return readableCount_; }
  void readableCountIs(U32 v) { attributeIs(readableCount_, v, &Notifiee::handleReadableCount); }
  U32 writableCount() const { return writableCount_; }
  void writableCountIs(U32 v) { attributeIs(writableCount_, v, &Notifiee::handleWritableCount); }

  // One readable / writable event of the descriptor.
  void handleReadable() { readableCountIs(readableCount_ + 1); }
  void handleWritable() { writableCountIs(writableCount_ + 1); }

 protected:
  explicit TcpFileDescriptorEventRegistration(Brio::Ptr<TcpFileDescriptor const> const& fd);
  ~TcpFileDescriptorEventRegistration() override = default;
  // The concrete registration follows enabled and the two notify flags here.
  virtual void onNotificationChange() {}

 private:
  Brio::Ptr<TcpFileDescriptor const> fileDescriptor_;
  bool enabled_ = false;
  bool notifyOnReadable_ = false;
  bool notifyOnWritable_ = false;
  U32 readableCount_ = 0;
  U32 writableCount_ = 0;
};

class TcpFileDescriptorEventRegistrationFactory : public Brio::PtrInterface {
 public:
  virtual Brio::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
      Brio::Ptr<TcpFileDescriptor const> const& fileDescriptor, bool hiPriority) = 0;

 protected:
  ~TcpFileDescriptorEventRegistrationFactory() override = default;
};

// A registration on the activity loop of the thread that makes it.
class TcpFileDescriptorEventRegistrationBrioc : public TcpFileDescriptorEventRegistration {
 public:
  explicit TcpFileDescriptorEventRegistrationBrioc(Brio::Ptr<TcpFileDescriptor const> const& fd);
  Brio::FileDescriptor* loopDescriptor() const { return loopFd_.ptr(); }

 protected:
  ~TcpFileDescriptorEventRegistrationBrioc() override;
  void onNotificationChange() override;

 private:
  class Reactor : public Brio::FileDescriptor::Notifiee {
   public:
    explicit Reactor(TcpFileDescriptorEventRegistrationBrioc* owner) : owner_(owner) {}
    void handleReadable() override { owner_->handleReadable(); }
    void handleWritable() override { owner_->handleWritable(); }

   private:
    TcpFileDescriptorEventRegistrationBrioc* owner_;
  };

  Brio::Ptr<Brio::FileDescriptor> loopFd_;
  Reactor reactor_;
};

class TcpFileDescriptorEventRegistrationFactoryBrioc : public TcpFileDescriptorEventRegistrationFactory {
 public:
  Brio::Ptr<TcpFileDescriptorEventRegistration> createEventRegistration(
      Brio::Ptr<TcpFileDescriptor const> const& fileDescriptor, bool hiPriority) override;
};

Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> tcpFileDescriptorEventRegistrationFactoryBrioc();

}  // namespace Corvid
