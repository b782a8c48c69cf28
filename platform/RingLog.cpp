#include "platform/RingLog.h"

#include <cstdlib>
#include <ostream>

namespace RingLog {

RingBuf::RingBuf() {
  if (const char* env = std::getenv("MKA_RINGLOG")) capacity_ = std::strtoul(env, nullptr, 10);
}

RingBuf& RingBuf::defaultBuf() {
  static RingBuf* buf = new RingBuf;
  return *buf;
}

void RingBuf::capacityIs(size_t entries) {
  capacity_ = entries;
  while (entries_.size() > capacity_) entries_.pop_front();
}

void RingBuf::startMsg(const char* file, uint32_t number) {
  if (!isEnabled()) return;
  open_ = true;
  pending_.str({});
  pending_ << file << '#' << number << ' ';
}

void RingBuf::endMsg() {
  if (!open_) return;
  open_ = false;
  append(pending_.str());
}

void RingBuf::append(std::string line) {
  if (!isEnabled()) return;
  if (entries_.size() == capacity_) entries_.pop_front();
  entries_.push_back(std::move(line));
}

void RingBuf::dump(std::ostream& out) const {
  for (const std::string& entry : entries_) out << entry << '\n';
}

MsgDesc::MsgDesc(const char* file, int line) : file_(file) {
  static uint32_t next = 0;
  (void)line;
  number_ = ++next;
}

}  // namespace RingLog
