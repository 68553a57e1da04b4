#include <Brio/Entity.h>

#include <algorithm>

namespace Brio {

U32 Entity::notifiees() const {
  return static_cast<U32>(std::count_if(notifiees_.begin(), notifiees_.end(), [](auto* n) { return n; }));
}

void Entity::notifieeDel(EntityNotifieeBase* n) const {
  auto it = std::find(notifiees_.begin(), notifiees_.end(), n);
  if (it == notifiees_.end()) return;
  if (notifyDepth_) {
    *it = nullptr;  // a notification is walking the list: keep indices stable
    compactPending_ = true;
  } else {
    notifiees_.erase(it);
  }
}

void Entity::compact() const {
  std::erase(notifiees_, nullptr);
  compactPending_ = false;
}

}  // namespace Brio
