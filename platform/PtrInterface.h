#pragma once

#include <atomic>
#include <cstdint>

namespace Zef {

// Reference counts are changed with atomic operations only while this is set. The engine runs
// on one thread and leaves it false; a process that shares objects across threads sets it
// before it creates any.
struct VFPtrInterface {
  static inline bool threadSafePointers_ = false;
};

// Base of every counted object. One 32-bit word holds the reference count and two flags: the
// top bit marks an object that is going away (a zombie), the next one says whether its
// notifications are delivered.
class PtrInterface {
 public:
  static constexpr uint32_t kZombieBit = 0x80000000u;
  static constexpr uint32_t kNotificationActiveBit = 0x40000000u;
  static constexpr uint32_t kCountMask = 0x3fffffffu;

  PtrInterface() noexcept = default;
  // A copy is a new object: it starts with no references and no flags.
  PtrInterface(const PtrInterface&) noexcept {}
  PtrInterface& operator=(const PtrInterface&) noexcept { return *this; }

  void newRef() const noexcept {
    if (VFPtrInterface::threadSafePointers_) {
      std::atomic_ref<uint32_t>(word_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++word_;
    }
  }

  void delRef() const noexcept {
    uint32_t after;
    if (VFPtrInterface::threadSafePointers_) {
      after = std::atomic_ref<uint32_t>(word_).fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      after = --word_;
    }
    if ((after & kCountMask) == 0) handleZeroRef();
  }

  uint32_t references() const noexcept { return word() & kCountMask; }
  bool isZombie() const noexcept { return (word() & kZombieBit) != 0; }
  bool hasNotificationActive() const noexcept { return (word() & kNotificationActiveBit) != 0; }

  // Switches delivery of this object's notifications on or off. State machines override it to
  // forward the switch to their reactors and children.
  virtual void hasNotificationActiveIs(bool active) { notificationActiveFlagIs(active); }

 protected:
  virtual ~PtrInterface() = default;

  // Runs when the last reference goes, in the stack of whoever dropped it.
  virtual void handleZeroRef() const noexcept { delete this; }

  void zombieFlagIs(bool zombie) const noexcept { flagIs(kZombieBit, zombie); }
  void notificationActiveFlagIs(bool active) const noexcept { flagIs(kNotificationActiveBit, active); }

  // A constructor that runs handlers holds a reference of its own so that a handler taking and
  // dropping a Ptr to the half-built object cannot free it. This gives that reference back
  // without freeing anything.
  void zefDelRefNoDelete() const noexcept {
    if (VFPtrInterface::threadSafePointers_) {
      std::atomic_ref<uint32_t>(word_).fetch_sub(1, std::memory_order_acq_rel);
    } else {
      --word_;
    }
  }

 private:
  uint32_t word() const noexcept {
    if (VFPtrInterface::threadSafePointers_) {
      return std::atomic_ref<uint32_t>(word_).load(std::memory_order_acquire);
    }
    return word_;
  }

  void flagIs(uint32_t bit, bool on) const noexcept {
    if (VFPtrInterface::threadSafePointers_) {
      std::atomic_ref<uint32_t> ref(word_);
      if (on) {
        ref.fetch_or(bit, std::memory_order_acq_rel);
      } else {
        ref.fetch_and(~bit, std::memory_order_acq_rel);
      }
    } else if (on) {
      word_ |= bit;
    } else {
      word_ &= ~bit;
    }
  }

  alignas(std::atomic_ref<uint32_t>::required_alignment) mutable uint32_t word_ = 0;
};

// The same interface without counting, for objects that live inside memory owned by somebody
// else, such as overlays on packet bytes.
class NrcPtrInterface {
 public:
  void newRef() const noexcept {}
  void delRef() const noexcept {}

 protected:
  ~NrcPtrInterface() = default;
};

}  // namespace Zef
