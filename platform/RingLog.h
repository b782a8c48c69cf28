#pragma once

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <sstream>
#include <string>

namespace RingLog {

// A flight recorder: the most recent trace lines and ring entries, kept in memory so that a
// post-mortem can show what led up to a fault even when the text trace was off for it. It is
// off (capacity 0) until switched on, by the environment variable MKA_RINGLOG=<entries> or by
// capacityIs().
class RingBuf {
 public:
  static RingBuf& defaultBuf();

  size_t capacity() const noexcept { return capacity_; }
  void capacityIs(size_t entries);
  bool isEnabled() const noexcept { return capacity_ > 0; }

  // One entry: startMsg, the values streamed into it, endMsg.
  void startMsg(const char* file, uint32_t number);
  template <class T>
  RingBuf& operator<<(const T& value) {
    if (open_) pending_ << value;
    return *this;
  }
  void endMsg();

  // Adds a finished line; the trace uses this for every line it emits.
  void append(std::string line);

  const std::deque<std::string>& entries() const noexcept { return entries_; }
  void dump(std::ostream& out) const;

 private:
  RingBuf();
  size_t capacity_ = 0;
  bool open_ = false;
  std::ostringstream pending_;
  std::deque<std::string> entries_;
};

// The number of a ring entry's call site, given on first use.
class MsgDesc {
 public:
  MsgDesc(const char* file, int line);
  uint32_t number() const noexcept { return number_; }
  const char* file() const noexcept { return file_; }

 private:
  const char* file_;
  uint32_t number_;
};

}  // namespace RingLog
