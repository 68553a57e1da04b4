#include <neighbor/ArpTable.h>

#include <sstream>

namespace Arp::Table {

Brio::String ArpEntry::shoalString() const {
  std::ostringstream os;
  os << key_.vrfId() << ' ' << key_.addr() << ' ' << key_.intfId().name() << ' ' << ethAddr_ << ' '
     << (isStatic_ ? "static" : "dynamic") << ' ' << toString(source_.id());
  return Brio::String(os.str());
}

Brio::Ptr<Status> Status::statusFactory(Brio::String name, U32 capacity) {
  return Brio::Ptr<Status>(new Status(std::move(name), capacity));
}

}  // namespace Arp::Table
