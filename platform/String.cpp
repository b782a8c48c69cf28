#include "platform/String.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>
#include <utility>

#include "platform/PtrInterface.h"

namespace Zef {

namespace detail {
struct StringRep {
  uint32_t refs;
  uint32_t size;
  char data[1];
};
}  // namespace detail

namespace {

using Rep = detail::StringRep;

void wipe(void* data, size_t length) noexcept {
  // explicit_bzero is not optimised away even though the buffer is freed right after.
  explicit_bzero(data, length);
}

Rep* allocateRep(size_t length) {
  if (length > UINT32_MAX) throw std::bad_alloc();
  auto* rep = static_cast<Rep*>(std::malloc(offsetof(Rep, data) + length + 1));
  if (rep == nullptr) throw std::bad_alloc();
  rep->refs = 1;
  rep->size = static_cast<uint32_t>(length);
  rep->data[length] = '\0';
  return rep;
}

void addRef(Rep* rep) noexcept {
  if (rep == nullptr) return;
  if (VFPtrInterface::threadSafePointers_) {
    std::atomic_ref<uint32_t>(rep->refs).fetch_add(1, std::memory_order_relaxed);
  } else {
    ++rep->refs;
  }
}

bool dropRef(Rep* rep) noexcept {
  if (VFPtrInterface::threadSafePointers_) {
    return std::atomic_ref<uint32_t>(rep->refs).fetch_sub(1, std::memory_order_acq_rel) == 1;
  }
  return --rep->refs == 0;
}

}  // namespace

String::String(const char* text) : String(text, text ? std::strlen(text) : 0) {}

String::String(const char* data, size_t length) {
  if (length == 0) return;
  rep_ = allocateRep(length);
  std::memcpy(rep_->data, data, length);
}

String::String(const String& other) noexcept : rep_(other.rep_) { addRef(rep_); }

String::String(String&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}

String::~String() { release(); }

String& String::operator=(const String& other) noexcept {
  if (rep_ != other.rep_) {
    addRef(other.rep_);
    release();
    rep_ = other.rep_;
  }
  return *this;
}

String& String::operator=(String&& other) noexcept {
  if (this != &other) {
    release();
    rep_ = std::exchange(other.rep_, nullptr);
  }
  return *this;
}

void String::release() noexcept {
  Rep* rep = std::exchange(rep_, nullptr);
  if (rep == nullptr || !dropRef(rep)) return;
  wipe(rep->data, rep->size);
  std::free(rep);
}

const char* String::charPtr() const noexcept { return rep_ ? rep_->data : ""; }

size_t String::size() const noexcept { return rep_ ? rep_->size : 0; }

uint32_t String::hash() const noexcept { return hashBytes(charPtr(), size()); }

bool String::operator==(const String& other) const noexcept { return rep_ == other.rep_ || view() == other.view(); }

std::strong_ordering String::operator<=>(const String& other) const noexcept {
  const int c = view().compare(other.view());
  return c < 0 ? std::strong_ordering::less : c > 0 ? std::strong_ordering::greater : std::strong_ordering::equal;
}

String String::operator+(const String& other) const {
  String joined;
  const size_t total = size() + other.size();
  if (total == 0) return joined;
  joined.rep_ = allocateRep(total);
  std::memcpy(joined.rep_->data, charPtr(), size());
  std::memcpy(joined.rep_->data + size(), other.charPtr(), other.size());
  return joined;
}

String& String::operator+=(const String& other) {
  *this = *this + other;
  return *this;
}

void String::zeroStringDataUnsafe() const noexcept {
  if (rep_) wipe(rep_->data, rep_->size);
}

std::ostream& operator<<(std::ostream& out, const String& s) { return out << s.view(); }

uint32_t hashBytes(const void* data, size_t length) noexcept {
  // FNV-1a over the bytes, then mixed so that the top bits depend on every byte.
  uint64_t h = 0xcbf29ce484222325ull;
  const auto* p = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < length; ++i) {
    h ^= p[i];
    h *= 0x100000001b3ull;
  }
  return hashMix(h);
}

}  // namespace Zef
