#include <Corvid/VrfIdMap.h>
#include <neighbor/RibNextHop.h>

#include <vector>

namespace Arp::RibNextHop {

U32 RequestSet::request(Entry const& entry) const {
  auto it = request_.find(entry);
  return it == request_.end() ? 0 : it->second;
}

Brio::Ptr<RequestSet> requestSetFactory(Brio::String name) {
  return Brio::Ptr<RequestSet>(new RequestSet(std::move(name)));
}

bool ResponseSet::response(Entry const& entry) const {
  auto it = response_.find(entry);
  return it != response_.end() && it->second;
}

Brio::Ptr<ResponseSet> responseSetFactory(Brio::String name) {
  return Brio::Ptr<ResponseSet>(new ResponseSet(std::move(name)));
}

void ResponseDir::doInit() {
  Brio::String const defaultVrf = Vrf::Constants::defaultVrfName();
  std::vector<Brio::String> others;
  for (auto const& [name, set] : vrf_) {
    if (name != defaultVrf) others.push_back(name);
  }
  for (auto const& name : others) vrfDel(name);
  vrfIs(defaultVrf)->responseDelAll();
}

Brio::Ptr<ResponseDir> responseDirFactory(Brio::String name) {
  Brio::Ptr<ResponseDir> dir(new ResponseDir(std::move(name)));
  dir->doInit();
  return dir;
}

}  // namespace Arp::RibNextHop
