#include "platform/Notifier.h"

namespace Zef {

void NotifieeList::add(NotifieeBase* notifiee) {
  notifiee->listIndex_ = static_cast<uint32_t>(items_.size());
  items_.push_back(Item{notifiee, notifiee->zefInterests()});
  ++live_;
}

void NotifieeList::remove(NotifieeBase* notifiee) {
  const uint32_t index = notifiee->listIndex_;
  if (index >= items_.size() || items_[index].notifiee != notifiee) return;
  // A walk may be indexing the vector: a hole moves nothing under it.
  items_[index].notifiee = nullptr;
  --live_;
  ++holes_;
  compactIfSparse();
}

void NotifieeList::compact() {
  size_t kept = 0;
  for (const Item& item : items_) {
    if (item.notifiee == nullptr) continue;
    item.notifiee->listIndex_ = static_cast<uint32_t>(kept);
    items_[kept++] = item;
  }
  items_.resize(kept);
  holes_ = 0;
}

Notifier::~Notifier() {
  if (notifieeList_ != nullptr) notifieeList_->delRef();
}

NotifieeBase::~NotifieeBase() {
  // The typed base has unregistered already; this covers a reactor destroyed half-built.
  if (registered_ && notifierRaw_ && notifierRaw_->notifieeList_) notifierRaw_->notifieeList_->remove(this);
}

void NotifieeBase::isRegisteredNotifieeIs(bool registered) {
  if (registered == registered_) return;
  if (notifierRaw_ == nullptr) {
    registered_ = false;
    return;
  }
  NotifieeList*& list = notifierRaw_->notifieeList_;
  if (registered) {
    if (list == nullptr) list = new NotifieeList;
    list->add(this);
    notifierRaw_->interests_ |= interests_;
  } else if (list != nullptr) {
    list->remove(this);
  }
  registered_ = registered;
}

void NotifieeBase::hasNotificationActiveIs(bool active) {
  if (hasNotificationActive() == active) return;
  notificationActiveFlagIs(active);
}

void NotifieeBase::zefDoZombieReactors(bool zombie) {
  if (isZombie() == zombie) return;
  if (zombie && notifierRaw_ != nullptr) hasNotificationActiveIs(false);
  zombieFlagIs(zombie);
}

void NotifieeBase::zefNotifierBind(const Notifier* notifier) {
  if (notifier == notifierRaw_) return;
  isRegisteredNotifieeIs(false);
  notifierRaw_ = notifier;
}

}  // namespace Zef
