// Ethernet address and EUI-64 readers.
#include <Corvid/EthAddr.h>

#include "LabelsFuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
  Brio::String const text(reinterpret_cast<char const*>(data), size);
  LabelsFuzz::allTextForms<Corvid::EthAddr>(text, {"Invalid EthAddr"});
  LabelsFuzz::allTextForms<Corvid::Eui64>(text, {"Invalid Eui64"});
  LabelsFuzz::allTextForms<Corvid::EthAddrWithMask>(text, {"Invalid EthAddr"});
  return 0;
}
