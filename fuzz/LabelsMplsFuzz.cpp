// MPLS label, label stack and label operation readers, and the dynamic
// stack's binary form.
#include <Corvid/BoundedMplsLabelStack.h>
#include <Corvid/DynamicMplsLabelStack.h>
#include <Corvid/MplsLabelOperation.h>

#include "LabelsFuzzSupport.h"

namespace {

constexpr std::string_view labelRange = "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
constexpr std::string_view stackSize = "BoundedMplsLabelStack::stackSize > 7 not allowed";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
  using namespace Corvid;
  Brio::String const text(reinterpret_cast<char const*>(data), size);
  std::initializer_list<std::string_view> const stackMessages = {
      labelRange, stackSize, "Invalid MplsLabel", "Invalid MplsLabelStack", "Invalid entropy label bit maps",
      "Invalid MplsLabelOperationKind"};
  LabelsFuzz::allTextForms<MplsLabel>(text, {labelRange, "Invalid MplsLabel"});
  LabelsFuzz::allTextForms<BoundedMplsLabelStack>(text, stackMessages);
  LabelsFuzz::allTextForms<DynamicMplsLabelStack>(text, stackMessages);
  LabelsFuzz::allTextForms<MplsLabelOperation>(text, stackMessages);
  LabelsFuzz::allTextForms<UnboundedMplsLabelOperation>(text, stackMessages);
  // The same bytes as a serialized dynamic stack.
  try {
    auto const s = DynamicMplsLabelStack::deserialize(Brio::Bytes(text.str()));
    if (!(DynamicMplsLabelStack::deserialize(s.serialize()) == s)) LabelsFuzz::fail("serialize", s.stringValue().str());
    BoundedMplsLabelStack b;
    if (s.stackSize() <= 7 && s.calculatedStackSize() <= 32) b = BoundedMplsLabelStack(s);
  } catch (Brio::SizeException const&) {
  } catch (Brio::RangeException const& e) {
    LabelsFuzz::checkMessage(e, {labelRange, "Invalid DynamicMplsLabelStack"});
  }
  return 0;
}
