#pragma once

#include <cstdint>
#include <exception>
#include <vector>

#include "platform/Exception.h"
#include "platform/Ptr.h"
#include "platform/PtrInterface.h"

namespace Zef {

class NotifieeBase;

// The reactors that watch one notifier, in registration order. A notifier creates it on the
// first registration, so a notifier nobody watches pays one pointer test per change.
//
// Delivery is synchronous and nested: a handler may register or remove reactors, even delete
// the notifier, while a walk of this list is on the stack. The list is counted so that a walk
// keeps it alive; a removal during a walk leaves a hole, filled in when the last walk ends;
// a reactor added during a walk is not told of the change that walk delivers.
class NotifieeList {
 public:
  void add(NotifieeBase* notifiee);
  void remove(NotifieeBase* notifiee);
  bool empty() const noexcept { return live_ == 0; }

  // Calls `call` on every active reactor whose interests include `topic`, the bit of the
  // attribute that changed.
  template <class Notifiee, class Call>
  void deliver(uint64_t topic, Call&& call);

  void newRef() noexcept { ++refs_; }
  void delRef() noexcept {
    if (--refs_ == 0) delete this;
  }

 private:
  // A removed reactor leaves a hole, found through the place the reactor keeps, so that taking
  // thousands of reactors off one notifier (the timers of a switch's actors, say) costs time in
  // proportion to their number. Holes are closed up, in order, once they outnumber the reactors
  // and no walk is under way.
  void compactIfSparse() {
    if (walks_ == 0 && holes_ > live_) compact();
  }
  void compact();

  uint32_t refs_ = 1;
  uint32_t walks_ = 0;
  uint32_t live_ = 0;
  uint32_t holes_ = 0;
  // Each reactor with the interests it registered with, so that a walk passes the reactors a
  // change does not concern without reading them.
  struct Item {
    NotifieeBase* notifiee;
    uint64_t interests;
  };
  std::vector<Item> items_;
};

// An object that others can watch.
class Notifier : public PtrInterface {
 public:
  NotifieeList* notifieeList() const noexcept { return notifieeList_; }

 protected:
  Notifier() = default;
  Notifier(const Notifier&) : PtrInterface() {}
  ~Notifier() override;

  // Delivers one notification to every registered reactor whose notification is active. `call`
  // gets each reactor as `Notifiee*`, the notifiee class of the concrete notifier.
  template <class Notifiee, class Call>
  void zefNotify(uint64_t topic, Call&& call) const {
    if (notifieeList_ == nullptr || (interests_ & topic) == 0 || !hasNotificationActive()) return;
    notifieeList_->deliver<Notifiee>(topic, call);
  }

 private:
  friend class NotifieeBase;
  mutable NotifieeList* notifieeList_ = nullptr;
  // The interests of every reactor ever registered here, joined: a change that no reactor reacts
  // to does not walk the list at all.
  mutable uint64_t interests_ = 0;
};

// Base of every reactor: one watcher bound to at most one notifier.
class NotifieeBase : public PtrInterface {
 public:
  const Notifier* notifierRaw() const noexcept { return notifierRaw_; }
  bool isRegisteredNotifiee() const noexcept { return registered_; }

  // Puts the reactor into, or takes it out of, its notifier's list.
  void isRegisteredNotifieeIs(bool registered);

  // Switches delivery to this reactor on or off; a no-op if it already has the value.
  void hasNotificationActiveIs(bool active) override;

  // Marks the reactor as going away. A zombie's overrides return at once. Marking switches
  // delivery off.
  virtual void zefDoZombieReactors(bool zombie);

  // The attributes whose changes reach this reactor, one bit each (see NotifieeList::deliver):
  // all of them unless it said otherwise before it registered.
  uint64_t zefInterests() const noexcept { return interests_; }

 protected:
  NotifieeBase() = default;
  NotifieeBase(const NotifieeBase&) = delete;
  ~NotifieeBase() override;

  // Binds to another notifier (or to none) without registering: the caller decides when the
  // reactor starts to listen.
  void zefNotifierBind(const Notifier* notifier);
  // Says which attributes the reactor reacts to; it takes effect at the next registration.
  void zefInterestsIs(uint64_t interests) noexcept { interests_ = interests; }

 private:
  friend class NotifieeList;
  const Notifier* notifierRaw_ = nullptr;
  bool registered_ = false;
  // Where the reactor stands in its notifier's list while it is registered.
  uint32_t listIndex_ = 0;
  uint64_t interests_ = ~uint64_t{0};
};

// The typed reactor base for a notifier class X, with read access. X::NotifieeConst derives from
// it and adds one virtual onAttr() per attribute.
template <class X>
class NotifieeConstOf : public NotifieeBase {
 public:
  using NotifierType = X;

  const Ptr<X const>& notifier() const noexcept { return notifier_; }

  // Binds to `notifier` and registers. A reactor class overrides this to replay its reaction
  // when it moves to another notifier.
  virtual void notifierIs(const Ptr<X const>& notifier) {
    if (notifier.ptr() == notifier_.ptr()) return;
    zefNotifierIs(notifier);
    isRegisteredNotifieeIs(static_cast<bool>(notifier_));
  }

 protected:
  NotifieeConstOf() = default;
  // The constructor binds through the base only: no replay.
  explicit NotifieeConstOf(const Ptr<X const>& notifier) {
    zefNotifierIs(notifier);
    isRegisteredNotifieeIs(static_cast<bool>(notifier_));
  }
  ~NotifieeConstOf() override { isRegisteredNotifieeIs(false); }

  // Binds without registering; for overrides that replay before they register.
  void zefNotifierIs(const Ptr<X const>& notifier) {
    zefNotifierBind(notifier.ptr());
    notifier_ = notifier;
  }

 private:
  Ptr<X const> notifier_;
};

// The same with write access to the notifier.
template <class X, class ConstBase>
class NotifieeOf : public ConstBase {
 public:
  Ptr<X> notifier() const noexcept { return constPtrCast<X>(ConstBase::notifier()); }
  // Goes through the virtual form, so that a reactor's override (and its replay) runs.
  void notifierIs(const Ptr<X>& notifier) {
    ConstBase& self = *this;
    self.notifierIs(Ptr<X const>(notifier));
  }
  using ConstBase::notifierIs;

 protected:
  NotifieeOf() = default;
  explicit NotifieeOf(const Ptr<X>& notifier) : ConstBase(Ptr<X const>(notifier)) {}
};

template <class Notifiee, class Call>
void NotifieeList::deliver(uint64_t topic, Call&& call) {
  newRef();
  ++walks_;
  const size_t count = items_.size();
  for (size_t i = 0; i < count; ++i) {
    if ((items_[i].interests & topic) == 0) continue;
    NotifieeBase* notifiee = items_[i].notifiee;
    if (notifiee == nullptr || !notifiee->hasNotificationActive()) continue;
    try {
      call(static_cast<Notifiee*>(notifiee));
    } catch (...) {
      onNotificationException(std::current_exception());
    }
  }
  --walks_;
  compactIfSparse();
  delRef();
}

}  // namespace Zef
