#include <neighbor/MonitoredNexthop.h>

namespace Arp::MonitoredNexthop {

NexthopReqEntry::NexthopReqEntry(Entry const& entry) : Entity(valueToStrep(entry)), entry_(entry) {}

Brio::Ptr<NexthopReqEntry> NexthopReqEntry::nexthopReqEntryFactory(Entry const& entry) {
  return Brio::Ptr<NexthopReqEntry>(new NexthopReqEntry(entry));
}

Brio::Ptr<NexthopAggEntry> NexthopAggEntry::nexthopAggEntryFactory(Entry const& entry) {
  return Brio::Ptr<NexthopAggEntry>(new NexthopAggEntry(entry));
}

bool NexthopAggEntry::client(Brio::String const& name) const {
  auto it = client_.find(name);
  return it != client_.end() && it->second;
}

}  // namespace Arp::MonitoredNexthop
