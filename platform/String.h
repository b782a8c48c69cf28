#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/PtrInterface.h"

namespace Zef {

namespace detail {
// The shared buffer: a count, the length, and the bytes with a NUL after them.
struct StringRep {
  uint32_t refs;
  uint32_t size;
  uint32_t hash;  // of the bytes, taken once when they are written: strings are mostly table keys
  char data[1];
};
}  // namespace detail

// An immutable, shared, counted byte string. Copies share one buffer; the buffer is wiped when
// the last copy goes, so key text held in a String leaves nothing behind in freed memory.
class String {
 public:
  String() noexcept = default;
  String(const char* text);
  String(const char* data, size_t length);
  String(std::string_view text) : String(text.data(), text.size()) {}
  String(const std::string& text) : String(text.data(), text.size()) {}
  // Copies, compares and reads are inline: strings are copied and compared on every MKPDU.
  String(const String& other) noexcept : rep_(other.rep_) { addRef(rep_); }
  String(String&& other) noexcept : rep_(other.rep_) { other.rep_ = nullptr; }
  ~String() { release(); }

  String& operator=(const String& other) noexcept {
    if (rep_ != other.rep_) {
      addRef(other.rep_);
      release();
      rep_ = other.rep_;
    }
    return *this;
  }
  String& operator=(String&& other) noexcept {
    if (this != &other) {
      release();
      rep_ = other.rep_;
      other.rep_ = nullptr;
    }
    return *this;
  }

  // Never null; the bytes are followed by a NUL so that C interfaces can take them.
  const char* charPtr() const noexcept { return rep_ ? rep_->data : ""; }
  const char* begin() const noexcept { return charPtr(); }
  const char* end() const noexcept { return charPtr() + size(); }
  size_t size() const noexcept { return rep_ ? rep_->size : 0; }
  bool empty() const noexcept { return size() == 0; }
  std::string_view view() const noexcept { return {charPtr(), size()}; }
  std::string stdString() const { return std::string(view()); }
  uint32_t hash() const noexcept;

  bool operator==(const String& other) const noexcept { return rep_ == other.rep_ || view() == other.view(); }
  bool operator==(const char* other) const noexcept { return view() == std::string_view(other); }
  std::strong_ordering operator<=>(const String& other) const noexcept;

  String operator+(const String& other) const;
  String& operator+=(const String& other);

  // Overwrites the shared bytes with zeros in place: every copy of this String sees the wipe.
  // Used to destroy key material that must not outlive its use.
  void zeroStringDataUnsafe() const noexcept;

 private:
  static void addRef(detail::StringRep* rep) noexcept {
    if (rep == nullptr) return;
    if (VFPtrInterface::threadSafePointers_) {
      std::atomic_ref<uint32_t>(rep->refs).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++rep->refs;
    }
  }
  void release() noexcept {
    detail::StringRep* rep = rep_;
    rep_ = nullptr;
    if (rep == nullptr) return;
    if (VFPtrInterface::threadSafePointers_) {
      if (std::atomic_ref<uint32_t>(rep->refs).fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    } else if (--rep->refs != 0) {
      return;
    }
    destroy(rep);
  }
  // Wipes and frees the buffer of the last copy.
  static void destroy(detail::StringRep* rep) noexcept;
  detail::StringRep* rep_ = nullptr;
};

std::ostream& operator<<(std::ostream& out, const String& s);

// A String used as the key of entities.
class Name : public String {
 public:
  using String::String;
  Name() noexcept = default;
  Name(const String& s) : String(s) {}
};

// Hashes used by the collections. 32 bits, well mixed in the top bits, since a collection takes
// its bucket from the bit-reversed hash.
inline uint32_t hashMix(uint64_t x) noexcept {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ull;
  x ^= x >> 33;
  return static_cast<uint32_t>(x);
}

// The hash of `length` octets: eight at a time, each word multiplied in, then mixed so that the top
// bits depend on every octet. In line, so that a length known when compiling (an identifier's)
// costs a few instructions and no call.
inline uint32_t hashBytes(const void* data, size_t length) noexcept {
  uint64_t h = 0xcbf29ce484222325ull ^ length;
  const auto* p = static_cast<const unsigned char*>(data);
  for (; length >= 8; p += 8, length -= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    h = (h ^ word) * 0x9e3779b97f4a7c15ull;
    h ^= h >> 29;
  }
  // The last octets as one word, the first of them lowest, zeros above them.
  uint64_t tail = 0;
  unsigned shift = 0;
  if (length & 4) {
    uint32_t part;
    std::memcpy(&part, p, 4);
    tail = part;
    p += 4;
    shift = 32;
  }
  if (length & 2) {
    uint16_t part;
    std::memcpy(&part, p, 2);
    tail |= uint64_t{part} << shift;
    p += 2;
    shift += 16;
  }
  if (length & 1) tail |= uint64_t{*p} << shift;
  h = (h ^ tail) * 0x9e3779b97f4a7c15ull;
  return hashMix(h);
}

template <class K>
uint32_t hashOf(const K& key) noexcept {
  if constexpr (requires { key.hash(); }) {
    return static_cast<uint32_t>(key.hash());
  } else if constexpr (std::is_integral_v<K> || std::is_enum_v<K>) {
    return hashMix(static_cast<uint64_t>(key));
  } else if constexpr (std::is_pointer_v<K>) {
    return hashMix(reinterpret_cast<uintptr_t>(key));
  } else {
    static_assert(sizeof(K) == 0, "no hash for this key type: give it a hash() member");
  }
}

}  // namespace Zef
