#include <neighbor/ProactiveArp.h>

namespace Arp::ProactiveArp {

Brio::Ptr<ClientConfig> ClientConfig::clientConfigFactory(Brio::String name, U32 capacity) {
  return Brio::Ptr<ClientConfig>(new ClientConfig(std::move(name), capacity));
}

Brio::Ptr<OpIntfIdClientConfig> OpIntfIdClientConfig::opIntfIdClientConfigFactory(Brio::String name, U32 capacity) {
  return Brio::Ptr<OpIntfIdClientConfig>(new OpIntfIdClientConfig(std::move(name), capacity));
}

Brio::Ptr<AllClientsConfig> allClientsConfigFactory(Brio::String name) {
  return Brio::Ptr<AllClientsConfig>(new AllClientsConfig(std::move(name)));
}

Brio::Ptr<OpIntfIdClientsConfig> opIntfIdClientsConfigFactory(Brio::String name) {
  return Brio::Ptr<OpIntfIdClientsConfig>(new OpIntfIdClientsConfig(std::move(name)));
}

}  // namespace Arp::ProactiveArp
