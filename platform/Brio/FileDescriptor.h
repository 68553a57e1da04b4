// Brio::FileDescriptor: a descriptor owned by an entity, with readiness
// notifications delivered on the activity loop.
//
// The entity owns the descriptor number: it is closed when the last holder
// goes, or when descriptorIs() replaces it (descriptorRelease() hands it back
// without closing). Notifiees hear handleReadable() / handleWritable() while
// notifyOnReadable / notifyOnWritable are set. Notification is level-triggered
// (every turn while the condition holds) unless edgeTriggered is set (once per
// change of readiness: the handler must drain the descriptor). A hang-up or
// error on the descriptor counts as readable, and as writable when writable
// notification is on, so the handler's next system call sees the failure.
//
// Registration failures (a descriptor already closed behind the entity's
// back, say) never throw: errorNumber() keeps the errno and the descriptor
// simply stays silent.
#pragma once

#include <Brio/ActivityManager.h>
#include <Brio/Entity.h>

namespace Brio {

class FileDescriptor : public Entity {
 public:
  class Notifiee : public EntityNotifiee<FileDescriptor> {
   public:
    virtual void handleReadable() {}
    virtual void handleWritable() {}

   protected:
    using EntityNotifiee<FileDescriptor>::EntityNotifiee;
  };

  static Ptr<FileDescriptor> fileDescriptorFactory(String name, int descriptor = -1);

  int descriptor() const { return descriptor_; }
  // Closes the descriptor held so far (when valid), then takes `fd`; the
  // notification settings carry over to the new descriptor.
  void descriptorIs(int fd);
  // Gives up the descriptor without closing it; the entity holds -1 after.
  int descriptorRelease();

  // O_NONBLOCK of the descriptor. Read from the kernel when a descriptor is
  // taken and kept from then on (receive paths check it per packet, and a
  // fcntl there would cost a system call each time); change it through
  // nonBlockingIs, not behind the entity's back.
  bool nonBlocking() const { return nonBlocking_; }
  void nonBlockingIs(bool on);

  bool notifyOnReadable() const { return notifyOnReadable_; }
  void notifyOnReadableIs(bool on);
  bool notifyOnWritable() const { return notifyOnWritable_; }
  void notifyOnWritableIs(bool on);
  bool edgeTriggered() const { return edgeTriggered_; }
  void edgeTriggeredIs(bool on);

  // errno of the last failed registration or fcntl; 0 when none failed.
  int errorNumber() const { return errorNumber_; }

 protected:
  FileDescriptor(String name, int descriptor);
  ~FileDescriptor() override;

 private:
  friend class ActivityManager;
  void registrationUpdate();
  void nonBlockingRead();

  ActivityManager* manager_;
  int descriptor_;
  bool notifyOnReadable_ = false;
  bool notifyOnWritable_ = false;
  bool edgeTriggered_ = false;
  bool registered_ = false;
  bool nonBlocking_ = false;
  U32 slot_ = 0;
  int errorNumber_ = 0;
};

}  // namespace Brio
