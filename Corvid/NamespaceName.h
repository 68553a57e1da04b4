// The name of a Linux network namespace, as listed under /var/run/netns.
//
// A NamespaceName owns its text (at most 150 bytes, refused with a
// Brio::RangeException otherwise, because names arrive from the kernel's
// namespace directory and a caller must be able to drop a bad one). The
// default value names the default namespace, "default": an unconfigured
// socket or watcher works where the agent itself runs. Order is byte
// order; the strep is the quoted name.
#pragma once

#include <Brio/String.h>
#include <Corvid/ValueSupport.h>

namespace Corvid {

class NamespaceName : public BoundedString<NamespaceName, 150> {
 public:
  static constexpr char lengthMessage[] = "NamespaceName::value::bytes > 150 not allowed";
  static constexpr char defaultName[] = "default";

  NamespaceName() : BoundedString(defaultName) {}
  using BoundedString::BoundedString;
  explicit NamespaceName(char const* name) : BoundedString(Brio::String(name)) {}

  bool isDefault() const { return value() == defaultName; }
};

}  // namespace Corvid

CORVID_STD_HASH(Corvid::NamespaceName);
