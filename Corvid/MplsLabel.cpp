#include <Corvid/MplsLabel.h>

#include <cstdio>

namespace Corvid {

Brio::String MplsLabel::prettyString() const {
  char const* name = nullptr;
  switch (value()) {
    case ipv4ExplicitNull: name = "exp-null-v4"; break;
    case routerAlert: name = "router-alert"; break;
    case ipv6ExplicitNull: name = "exp-null-v6"; break;
    case implicitNull: name = "imp-null"; break;
    case entropyLabelIndicator: name = "entropy-indicator"; break;
    case noLabel: return "N/A";
    case anyLabel: return "(any)";
    case entropyLabel: return "(entropy)";
    case luWithdraw: return "(lu-withdraw)";
    default: return valueToStrep(*this);
  }
  char buf[32];
  int n = std::snprintf(buf, sizeof buf, "%s(%u)", name, value());
  return Brio::String(buf, static_cast<std::size_t>(n));
}

}  // namespace Corvid
