// An interface identifier: a network interface named the way operators
// write it ("Ethernet1/2", "Port-Channel10", "Vlan100").
//
// IntfId owns its name and a collation key computed once, with PCRE2, when
// the name is set: digit runs compare as numbers, so Ethernet2 sorts before
// Ethernet10 and Ethernet1/2 before Ethernet1/10; names that differ only in
// leading zeros fall back to byte order, keeping the order total. Ordering
// is then one byte comparison; setting a name costs one regular-expression
// scan and two small allocations. The default is the empty name.
//
// shortName() abbreviates a known prefix followed by a digit, and
// fromShortName() expands one (case-insensitively):
//   Ethernet Et   Port-Channel Po   Vlan Vl   Loopback Lo   Management Ma
//   Tunnel Tu     Vxlan Vx          Recirc-Channel Rc      Null Nu
// Any other name is left as it is. The strep is the quoted name
// ('Ethernet1/2'); stringValue is the bare name.
#pragma once

#include <Brio/NboAttrLog.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

#include <compare>
#include <iosfwd>
#include <string>

namespace Corvid {

class IntfId {
 public:
  IntfId() = default;
  explicit IntfId(Brio::String name);
  explicit IntfId(char const* name) : IntfId(Brio::String(name)) {}

  Brio::String const& name() const { return name_; }
  void nameIs(Brio::String name);
  Brio::String const& stringValue() const { return name_; }
  void stringValueIs(Brio::String const& text) { nameIs(text); }
  bool empty() const { return name_.empty(); }

  // "Et1/2" for "Ethernet1/2".
  Brio::String shortName() const;
  // "Ethernet1/2" for "Et1/2", "et1/2" or "Ethernet1/2".
  static IntfId fromShortName(Brio::String const& text);

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mixBytes(name_.data(), name_.bytes()).result(); }
  friend bool operator==(IntfId const& a, IntfId const& b) { return a.name_ == b.name_; }
  friend std::strong_ordering operator<=>(IntfId const& a, IntfId const& b) {
    if (auto c = a.key_.compare(b.key_); c != 0) return c <=> 0;
    return a.name_ <=> b.name_;
  }

 private:
  Brio::String name_;
  std::string key_;  // digit runs as length-prefixed numbers, see IntfId.cpp
};

Brio::String valueToStrep(IntfId const& v);
IntfId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IntfId*);
std::ostream& operator<<(std::ostream& os, IntfId const& v);
// Attribute-log form: the name as a string.
void attrLogWrite(Brio::NboAttrLog& log, IntfId const& v);
IntfId attrLogRead(Brio::NboAttrLog& log, IntfId*);

}  // namespace Corvid

CORVID_STD_HASH(Corvid::IntfId);
