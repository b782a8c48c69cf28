#include "platform/String.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

#include "platform/PtrInterface.h"

namespace Zef {

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

}  // namespace

String::String(const char* text) : String(text, text ? std::strlen(text) : 0) {}

String::String(const char* data, size_t length) {
  if (length == 0) return;
  rep_ = allocateRep(length);
  std::memcpy(rep_->data, data, length);
  rep_->hash = hashBytes(rep_->data, length);
}

void String::destroy(Rep* rep) noexcept {
  wipe(rep->data, rep->size);
  std::free(rep);
}

uint32_t String::hash() const noexcept { return rep_ ? rep_->hash : hashBytes("", 0); }

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
  joined.rep_->hash = hashBytes(joined.rep_->data, total);
  return joined;
}

String& String::operator+=(const String& other) {
  *this = *this + other;
  return *this;
}

void String::zeroStringDataUnsafe() const noexcept {
  if (!rep_) return;
  wipe(rep_->data, rep_->size);
  rep_->hash = hashBytes(rep_->data, rep_->size);
}

std::ostream& operator<<(std::ostream& out, const String& s) { return out << s.view(); }

}  // namespace Zef
