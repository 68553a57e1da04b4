// An MPLS forwarding action: what to do to a packet's label stack, and the
// labels involved.
//
// MplsLabelOperation pairs an operation kind with a BoundedMplsLabelStack;
// UnboundedMplsLabelOperation is the same over a DynamicMplsLabelStack.
// Both are one template, BasicMplsLabelOperation<Stack, Names>; Names
// gives each its own message texts.
// The bounded operation is a trivially copyable 41-byte value; the
// unbounded one owns its stack's heap memory.
//
// Kinds, with their numbers and texts: push (0) pushes the stack onto the
// packet, pop (1) removes the top label, swap (2) replaces the top label
// by the stack, forward (3) leaves the stack as it is (the default).
#pragma once

#include <Brio/NboAttrLog.h>
#include <Brio/Record.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/BoundedMplsLabelStack.h>
#include <Corvid/DynamicMplsLabelStack.h>
#include <Corvid/MplsLabel.h>

#include <compare>
#include <iosfwd>
#include <type_traits>

namespace Corvid {

enum class MplsLabelOperationKind : U8 { push = 0, pop = 1, swap = 2, forward = 3 };

char const* toString(MplsLabelOperationKind kind);
Brio::String valueToStrep(MplsLabelOperationKind kind);
// Raises "Invalid MplsLabelOperationKind" for any other word.
MplsLabelOperationKind sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end,
                                       MplsLabelOperationKind*);
std::ostream& operator<<(std::ostream& os, MplsLabelOperationKind kind);

// Flags returned by smush (a bit set).
enum MplsSmushFlag : U8 {
  mplsSmushKindChanged = 1,   // the operation kind changed
  mplsSmushLabelsAdded = 2,   // the outer operation's labels joined the stack
  mplsSmushFailed = 4,        // not expressible as one operation; nothing changed
};

template <class Stack, class Names>
class BasicMplsLabelOperation {
 public:
  using Kind = MplsLabelOperationKind;
  using Result = BoundedMplsLabelStackResult;

  BasicMplsLabelOperation() = default;
  BasicMplsLabelOperation(Kind operation, Stack stack) : operation_(operation), stack_(std::move(stack)) {}

  Kind operation() const { return operation_; }
  void operationIs(Kind k) { operation_ = k; }
  Stack const& stack() const { return stack_; }
  void stackIs(Stack s) { stack_ = std::move(s); }

  MplsLabel labelStack(unsigned i) const { return stack_.label(i); }
  void labelStackIs(unsigned i, MplsLabel l) { stack_.labelIs(i, l); }
  MplsLabel topLabel() const {
    if (stack_.stackSize() == 0) Brio::throwRangeException(Names::topLabelMessage);
    return stack_.top();
  }
  U32 stackSize() const { return stack_.stackSize(); }
  void stackSizeIs(U32 n) { stack_.stackSizeIs(static_cast<decltype(stack_.stackSize())>(n)); }
  MplsLabel label0() const { return labelStack(0); }
  MplsLabel label1() const { return labelStack(1); }
  MplsLabel label2() const { return labelStack(2); }
  MplsLabel label3() const { return labelStack(3); }
  MplsLabel label4() const { return labelStack(4); }
  MplsLabel label5() const { return labelStack(5); }
  MplsLabel label6() const { return labelStack(6); }
  void label0Is(MplsLabel l) { labelStackIs(0, l); }
  void label1Is(MplsLabel l) { labelStackIs(1, l); }
  void label2Is(MplsLabel l) { labelStackIs(2, l); }
  void label3Is(MplsLabel l) { labelStackIs(3, l); }
  void label4Is(MplsLabel l) { labelStackIs(4, l); }
  void label5Is(MplsLabel l) { labelStackIs(5, l); }
  void label6Is(MplsLabel l) { labelStackIs(6, l); }

  Result appendLabel(MplsLabel l) { return stack_.append(l); }
  Result prependLabel(MplsLabel l) { return stack_.prepend(l); }
  U32 calculatedStackSize() const { return stack_.calculatedStackSize(); }
  MplsLabel calculatedLabel(U32 p) const { return stack_.calculatedLabel(p); }
  MplsLabel calculatedTop() const { return stack_.calculatedTop(); }
  Result entropyLabelAndIndicatorIs(U32 p) { return stack_.entropyLabelAndIndicatorIs(p); }
  bool hasEntropyLabel() const { return stack_.hasEntropyLabel(); }

  // A pushed or swapped-in implicit null means "no label" (RFC 3032): it
  // never goes on the wire, so it is dropped before programming.
  void removeImplicitNullForPushOrSwap() {
    if (operation_ == Kind::push || operation_ == Kind::swap) stack_.labelsDel(MplsLabel(MplsLabel::implicitNull));
  }

  // Folds `outer`, the operation applied right after this one (a route
  // resolved through another labelled route), into this one:
  //   outer forward            nothing to do
  //   outer push S onto push T push T then S      (labels added)
  //   outer push S onto swap T swap to T then S   (labels added)
  //   outer push S onto pop    swap to S          (kind changed, labels added)
  //   outer push S onto forward push S            (kind changed, labels added)
  //   outer pop or swap        not one operation  (failed)
  // A stack that would overflow also fails; this operation is then left
  // exactly as it was. Returns MplsSmushFlag bits.
  U8 smush(BasicMplsLabelOperation const& outer);

  U32 hash(U32 seed = 0) const {
    return Brio::Hash(seed).mix(static_cast<U8>(operation_)).mix(stack_.hash()).result();
  }
  friend bool operator==(BasicMplsLabelOperation const& a, BasicMplsLabelOperation const& b) {
    return a.operation_ == b.operation_ && a.stack_ == b.stack_;
  }
  friend std::strong_ordering operator<=>(BasicMplsLabelOperation const& a, BasicMplsLabelOperation const& b) {
    if (auto c = a.operation_ <=> b.operation_; c != 0) return c;
    return a.stack_ <=> b.stack_;
  }

 private:
  Kind operation_ = Kind::forward;
  Stack stack_;
};

template <class Stack, class Names>
U8 BasicMplsLabelOperation<Stack, Names>::smush(BasicMplsLabelOperation const& outer) {
  switch (outer.operation_) {
    case Kind::forward: return 0;
    case Kind::pop:
    case Kind::swap: return mplsSmushFailed;
    case Kind::push: break;
  }
  Stack combined = operation_ == Kind::pop || operation_ == Kind::forward ? Stack() : stack_;
  if (!combined.extend(outer.stack_).success()) return mplsSmushFailed;
  U8 flags = mplsSmushLabelsAdded;
  Kind kind = operation_;
  if (operation_ == Kind::pop) kind = Kind::swap;
  if (operation_ == Kind::forward) kind = Kind::push;
  if (kind != operation_) flags |= mplsSmushKindChanged;
  operation_ = kind;
  stack_ = std::move(combined);
  return flags;
}

struct MplsLabelOperationNames {
  static constexpr char topLabelMessage[] = "MplsLabelOperation::topLabel: label stack size 0";
};
struct UnboundedMplsLabelOperationNames {
  static constexpr char topLabelMessage[] = "UnboundedMplsLabelOperation::topLabel: label stack size 0";
};

using MplsLabelOperation = BasicMplsLabelOperation<BoundedMplsLabelStack, MplsLabelOperationNames>;
using UnboundedMplsLabelOperation =
    BasicMplsLabelOperation<DynamicMplsLabelStack, UnboundedMplsLabelOperationNames>;

static_assert(std::is_trivially_copyable_v<MplsLabelOperation>);

inline constexpr auto mplsLabelOperationRecord = Brio::record<MplsLabelOperation>(
    "Corvid::MplsLabelOperation", Brio::field("operation", &MplsLabelOperation::operation),
    Brio::field("labelStack", &MplsLabelOperation::stack));
BRIO_RECORD_TEXT_FORMS(MplsLabelOperation, mplsLabelOperationRecord)

inline constexpr auto unboundedMplsLabelOperationRecord = Brio::record<UnboundedMplsLabelOperation>(
    "Corvid::UnboundedMplsLabelOperation", Brio::field("operation", &UnboundedMplsLabelOperation::operation),
    Brio::field("labelStack", &UnboundedMplsLabelOperation::stack));
BRIO_RECORD_TEXT_FORMS(UnboundedMplsLabelOperation, unboundedMplsLabelOperationRecord)

// Attribute-log form: the kind as a U8, then the stack's own form.
void attrLogWrite(Brio::NboAttrLog& log, MplsLabelOperationKind kind);
MplsLabelOperationKind attrLogRead(Brio::NboAttrLog& log, MplsLabelOperationKind*);

template <class Stack, class Names>
void attrLogWrite(Brio::NboAttrLog& log, BasicMplsLabelOperation<Stack, Names> const& v) {
  attrLogWrite(log, v.operation());
  attrLogWrite(log, v.stack());
}

template <class Stack, class Names>
BasicMplsLabelOperation<Stack, Names> attrLogRead(Brio::NboAttrLog& log, BasicMplsLabelOperation<Stack, Names>*) {
  MplsLabelOperationKind const kind = attrLogRead(log, static_cast<MplsLabelOperationKind*>(nullptr));
  return {kind, attrLogRead(log, static_cast<Stack*>(nullptr))};
}

}  // namespace Corvid

template <class Stack, class Names>
struct std::hash<Corvid::BasicMplsLabelOperation<Stack, Names>> {
  std::size_t operator()(Corvid::BasicMplsLabelOperation<Stack, Names> const& v) const noexcept { return v.hash(); }
};
