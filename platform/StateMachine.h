#pragma once

#include "platform/Exception.h"
#include "platform/HashMap.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"

namespace Zef {

// Base of every state machine: a counted object with reactors and child state machines, and no
// activity of its own. The declaration generator writes the overrides that forward notification
// switches and zombie marks to a state machine's reactors and children.
class StateMachine : public PtrInterface {
 public:
  void hasNotificationActiveIs(bool active) override { notificationActiveFlagIs(active); }
  virtual void zefDoZombieReactors(bool zombie) { zombieFlagIs(zombie); }

 protected:
  StateMachine() = default;
  StateMachine(const StateMachine&) = delete;
  ~StateMachine() override = default;

  // Held across the handlers that a constructor runs, so that a handler that takes and drops a
  // Ptr to the half-built object does not free it.
  class ConstructionGuard {
   public:
    explicit ConstructionGuard(StateMachine& sm) : sm_(sm) { sm_.newRef(); }
    ~ConstructionGuard() { sm_.zefDelRefNoDelete(); }
    ConstructionGuard(const ConstructionGuard&) = delete;
    ConstructionGuard& operator=(const ConstructionGuard&) = delete;

   private:
    StateMachine& sm_;
  };
};

// A reactor built by a state machine: constructed bound (no replay), then switched on.
template <class R, class N, class... Extra>
Ptr<R> makeReactor(const Ptr<N>& notifier, Extra&&... extra) {
  if (!notifier) return Ptr<R>();
  Ptr<R> reactor(new R(notifier, std::forward<Extra>(extra)...));
  reactor->hasNotificationActiveIs(true);
  return reactor;
}

// Takes a reactor out of service for good: zombie, no back pointer, no delivery, dropped.
template <class R>
void retireReactor(Ptr<R> reactor) {
  if (!reactor) return;
  reactor->zefDoZombieReactors(true);
  reactor->zefOwnerIs(nullptr);
  reactor->hasNotificationActiveIs(false);
}

// attrIs(ptr) of a reactor attribute. Bound to ptr already: nothing. A null ptr drops the
// reactor (or does nothing if there is none). Another notifier: the reactor moves there and
// replays. No reactor yet: one is built on ptr, switched on and stored, and does not replay.
template <class R, class N, class Owner>
void reactorIs(Ptr<R>& slot, const Ptr<N>& notifier, Owner* owner) {
  if (slot) {
    if (slot->notifierRaw() == notifier.ptr()) return;
    if (!notifier) {
      retireReactor(std::move(slot));
      return;
    }
    slot->notifierIs(notifier);
    return;
  }
  if (!notifier) return;
  slot = makeReactor<R>(notifier, owner);
}

template <class R>
void reactorDel(Ptr<R>& slot) {
  retireReactor(std::move(slot));
}

// A keyed collection of reactors, one per member of a watched collection or per entry that a
// state machine chooses to watch.
template <class K, class R>
class ReactorMap {
 public:
  using Iterator = typename HashMap<K, R>::Iterator;

  Ptr<R> find(const K& key) const { return map_.find(key); }
  size_t size() const noexcept { return map_.size(); }
  Iterator iterator() const { return map_.iterator(); }

  // Makes sure a reactor for `key` watches `notifier`: an existing one is rebound (and replays
  // if the notifier is another), a new one is built.
  template <class N, class Owner>
  Ptr<R> set(const K& key, const Ptr<N>& notifier, Owner* owner) {
    if (Ptr<R> existing = map_.find(key)) {
      existing->notifierIs(notifier);
      return existing;
    }
    Ptr<R> reactor = makeReactor<R>(notifier, owner, key);
    map_.insert(key, reactor);
    if constexpr (requires { reactor->zefCreated(); }) reactor->zefCreated();
    return reactor;
  }

  void del(const K& key) { retireReactor(map_.erase(key)); }

  void delAll() {
    for (auto it = map_.iterator(); it; ++it) del(K(it.key()));
  }

  template <class F>
  void forEach(F&& f) const {
    for (auto it = map_.iterator(); it; ++it) f(*it.ptr());
  }

 private:
  HashMap<K, R> map_;
};

// The refusal of a null member by a mirror's mutator. Exact text, with its closing quote and no
// opening one: operators' tooling matches it.
[[noreturn]] inline void throwNullMutatorArgument(const char* parameter, const char* className, const char* attribute) {
  throwRangeException(String("null _") + parameter + " parameter to mutator for " + className + "::" + attribute +
                      " not allowed\"");
}

}  // namespace Zef
