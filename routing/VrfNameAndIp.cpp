#include <routing/VrfNameAndIp.h>

namespace L3 {

void attrLogWrite(Brio::NboAttrLog& log, VrfNameAndIp const& v) {
  attrLogWrite(log, v.vrfName());
  attrLogWrite(log, v.ipAddr());
}

VrfNameAndIp attrLogRead(Brio::NboAttrLog& log, VrfNameAndIp*) {
  VrfName name = attrLogRead(log, static_cast<VrfName*>(nullptr));
  return VrfNameAndIp(std::move(name), attrLogRead(log, static_cast<Corvid::IpAddr*>(nullptr)));
}

void attrLogWrite(Brio::NboAttrLog& log, VrfNameAndIpGen const& v) {
  attrLogWrite(log, v.vrfName());
  attrLogWrite(log, v.ipGenAddr());
}

VrfNameAndIpGen attrLogRead(Brio::NboAttrLog& log, VrfNameAndIpGen*) {
  VrfName name = attrLogRead(log, static_cast<VrfName*>(nullptr));
  return VrfNameAndIpGen(std::move(name), attrLogRead(log, static_cast<Corvid::IpGenAddr*>(nullptr)));
}

}  // namespace L3
