#include "platform/Notifier.h"

#include <algorithm>

namespace Zef {

void NotifieeList::add(NotifieeBase* notifiee) {
  items_.push_back(Item{notifiee, notifiee->zefInterests()});
  ++live_;
}

void NotifieeList::remove(NotifieeBase* notifiee) {
  auto it = std::find_if(items_.begin(), items_.end(), [&](const Item& item) { return item.notifiee == notifiee; });
  if (it == items_.end()) return;
  --live_;
  if (walks_ > 0) {
    // A walk is indexing the vector: leave a hole rather than move anything under it.
    it->notifiee = nullptr;
    holes_ = true;
  } else {
    items_.erase(it);
  }
}

void NotifieeList::compact() {
  std::erase_if(items_, [](const Item& item) { return item.notifiee == nullptr; });
  holes_ = false;
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
