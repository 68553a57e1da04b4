// The network values every agent shares: each reads its text, prints one
// canonical text, has a fixed order, and refuses bad text with a fixed
// message. Run it: values
#include <Brio/Exception.h>
#include <Corvid/BoundedMplsLabelStack.h>
#include <Corvid/IntfId.h>
#include <Corvid/Ip.h>

#include <iostream>
#include <set>

using namespace Corvid;

int main() {
  // Addresses: whatever the spelling, one canonical text.
  IpAddr v4;
  v4.stringValueIs("10.001.2.3");
  Ip6Addr v6;
  v6.stringValueIs("2001:DB8:0:0:0:0:0:1");
  std::cout << "ipv4 10.001.2.3 -> " << v4 << "\nipv6 2001:DB8:0:0:0:0:0:1 -> " << v6 << "\n";

  // Prefixes: containment, and the route order (most specific first).
  IpGenPrefix const net(Brio::String("10.0.0.0/8"));
  std::cout << net << " contains " << v4 << ": " << std::boolalpha << net.contains(IpGenAddr(v4)) << "\n";
  std::set<Prefix> routes;
  for (char const* text : {"10.0.0.0/8", "0.0.0.0/0", "10.1.0.0/16", "192.168.1.0/24"}) {
    Prefix p;
    p.stringValueIs(text);
    routes.insert(p);
  }
  std::cout << "route order:";
  for (auto const& p : routes) std::cout << ' ' << p;
  std::cout << "\n";

  // An MPLS label stack, built label by label and read back from its text.
  BoundedMplsLabelStack stack;
  stack.append(MplsLabel(100));
  stack.append(MplsLabel(200));
  BoundedMplsLabelStack read;
  read.stringValueIs("TOP ( 300 ELI EL 16 ) BOTTOM");
  std::cout << "mpls built " << stack.stringValue() << ", read " << read.cliShowString() << " ("
            << read.calculatedStackSize() << " entries)\n";

  // Interface names: digit runs compare as numbers; short names expand.
  IntfId const et2("Ethernet2"), et10("Ethernet10");
  std::cout << "intf Ethernet2 < Ethernet10: " << (et2 < et10) << ", short " << IntfId("Ethernet1/2").shortName()
            << ", po10 -> " << IntfId::fromShortName("po10").name() << "\n";

  // Bad text is refused with the reader's own message; the value is kept.
  for (char const* bad : {"10.1.2.3/8", "10.0.0.256/8"}) {
    Prefix p;
    try {
      p.stringValueIs(bad);
    } catch (Brio::RangeException const& e) {
      std::cout << "refused " << bad << ": " << e.what() << "\n";
    }
  }
  try {
    read.stringValueIs("TOP ( 300 BOTTOM");
  } catch (Brio::RangeException const& e) {
    std::cout << "refused TOP ( 300 BOTTOM: " << e.what() << "\n";
  }
  return 0;
}
