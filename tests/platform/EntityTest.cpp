#include <Brio/Entity.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

// A small entity in the shape every library entity takes.
class Port : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Port> {
   public:
    virtual void handleSpeed() {}
    virtual void handleLabel(U32 const& key) {}

   protected:
    using Brio::EntityNotifiee<Port>::EntityNotifiee;
  };
  static Brio::Ptr<Port> portFactory() { return Brio::Ptr<Port>(new Port); }

  U32 speed() const { return speed_; }
  void speedIs(U32 v) { attributeIs(speed_, v, &Notifiee::handleSpeed, [this] { ++hookCalls; }); }
  void labelIs(U32 k, std::string const& v) { collectionIs(labels_, k, v, &Notifiee::handleLabel); }
  void labelDel(U32 k) { collectionDel(labels_, k, &Notifiee::handleLabel); }
  void labelDelAll() { collectionDelAll(labels_, &Notifiee::handleLabel); }
  int hookCalls = 0;

 private:
  Port() : Entity("port") {}
  U32 speed_ = 0;
  std::map<U32, std::string> labels_;
};

// Records what it hears into a shared log and runs an optional action.
class Recorder : public Port::Notifiee {
 public:
  Recorder(Brio::Ptr<Port> const& p, std::string name, std::vector<std::string>* log)
      : Notifiee(p), name_(std::move(name)), log_(log) {}
  void handleSpeed() override {
    log_->push_back(name_ + ":speed=" + std::to_string(notifier()->speed()));
    if (action) action();
  }
  void handleLabel(U32 const& key) override { log_->push_back(name_ + ":label" + std::to_string(key)); }
  std::function<void()> action;

 private:
  std::string name_;
  std::vector<std::string>* log_;
};

using Log = std::vector<std::string>;

class Entity : public ::testing::Test {
 protected:
  Brio::Ptr<Port> port = Port::portFactory();
  Log log;
};

TEST_F(Entity, NotifiesInAttachOrderOnlyWhenValueChanges) {
  Recorder a(port, "a", &log), b(port, "b", &log);
  port->speedIs(10);
  port->speedIs(10);
  port->speedIs(0);
  EXPECT_EQ(log, (Log{"a:speed=10", "b:speed=10", "a:speed=0", "b:speed=0"}));
  EXPECT_EQ(port->hookCalls, 2);
}

TEST_F(Entity, HandlerRemovingItselfAndAnotherLosesNoOtherNotification) {
  auto a = std::make_unique<Recorder>(port, "a", &log);
  auto b = std::make_unique<Recorder>(port, "b", &log);
  auto c = std::make_unique<Recorder>(port, "c", &log);
  auto d = std::make_unique<Recorder>(port, "d", &log);
  b->action = [&] {
    b->notifierIs(nullptr);  // itself
    c.reset();               // another one, later in the list
  };
  port->speedIs(1);
  EXPECT_EQ(log, (Log{"a:speed=1", "b:speed=1", "d:speed=1"}));
  EXPECT_EQ(port->notifiees(), 2u);
  log.clear();
  port->speedIs(2);
  EXPECT_EQ(log, (Log{"a:speed=2", "d:speed=2"}));
}

TEST_F(Entity, NotifieeAddedDuringNotificationHearsOnlyTheNextOne) {
  std::unique_ptr<Recorder> late;
  Recorder a(port, "a", &log);
  a.action = [&] {
    if (!late) late = std::make_unique<Recorder>(port, "late", &log);
  };
  port->speedIs(1);
  port->speedIs(2);
  EXPECT_EQ(log, (Log{"a:speed=1", "a:speed=2", "late:speed=2"}));
}

TEST_F(Entity, ReentrantSetFromHandlerNotifiesEveryoneOfEachValue) {
  Recorder a(port, "a", &log), b(port, "b", &log);
  a.action = [&] {
    if (port->speed() == 1) port->speedIs(2);
  };
  port->speedIs(1);
  EXPECT_EQ(log, (Log{"a:speed=1", "a:speed=2", "b:speed=2", "b:speed=2"}));
}

TEST_F(Entity, HandlerDroppingLastOutsideReferenceDoesNotKillEntityMidNotification) {
  auto a = std::make_unique<Recorder>(port, "a", &log);
  auto b = std::make_unique<Recorder>(port, "b", &log);
  Port* raw = port.ptr();
  port = nullptr;  // only the notifiees hold it now
  a->action = [&] { a.reset(); };
  raw->speedIs(3);
  EXPECT_EQ(log, (Log{"a:speed=3", "b:speed=3"}));
}

TEST_F(Entity, CollectionNotifiesPerKeyOnAddChangeAndDelete) {
  Recorder a(port, "a", &log);
  port->labelIs(1, "x");
  port->labelIs(1, "x");
  port->labelIs(1, "y");
  port->labelIs(2, "z");
  port->labelDel(9);
  port->labelDel(1);
  port->labelDelAll();
  EXPECT_EQ(log, (Log{"a:label1", "a:label1", "a:label2", "a:label1", "a:label2"}));
}

}  // namespace
