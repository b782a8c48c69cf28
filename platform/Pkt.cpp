#include "platform/Pkt.h"

#include <cstring>

#include "platform/Fatal.h"

namespace Lanx {

namespace {

bool ptrWithinRegion(const uint8_t* p, const uint8_t* region, size_t size) { return p >= region && p <= region + size; }

}  // namespace

Zef::Ptr<Pkt> Pkt::Manager::newPkt(size_t headRoom) const { return Zef::Ptr<Pkt>(new Pkt(headRoom)); }

const Pkt::Manager& globalPktManager() {
  static const Pkt::Manager manager;
  return manager;
}

Pkt::Pkt(size_t headRoom) : sharedBuffer_(SharedBuffer::SharedBufferIs(headRoom)) {
  iov_[0].data = sharedBuffer_->buffer() + headRoom;
  iov_[0].length = 0;
}

void Pkt::checkInvariants() const {
  ZEF_ASSERT(sharedBuffer_ != nullptr);
  ZEF_ASSERT(firstIoVec_ != maxIovecs_);
  ZEF_ASSERT(ptrWithinRegion(iov_[0].data, sharedBuffer_->buffer(), sharedBuffer_->size()));
  ZEF_ASSERT(ptrWithinRegion(iov_[0].data + iov_[0].length, sharedBuffer_->buffer(), sharedBuffer_->size()));
}

uint8_t* Pkt::newHeadData(size_t n) {
  const size_t room = static_cast<size_t>(iov_[0].data - sharedBuffer_->buffer());
  if (room < n) {
    // Move the head segment into a bigger buffer with the room needed and some to spare.
    const size_t newRoom = n + 128;
    const Zef::Ptr<SharedBuffer> bigger = SharedBuffer::SharedBufferIs(newRoom + iov_[0].length);
    if (iov_[0].length > 0) std::memcpy(bigger->buffer() + newRoom, iov_[0].data, iov_[0].length);
    sharedBuffer_ = bigger;
    iov_[0].data = bigger->buffer() + newRoom;
  }
  iov_[0].data -= n;
  iov_[0].length += n;
  firstIoVec_ = 0;
  checkInvariants();
  return iov_[0].data;
}

void Pkt::delTailData(size_t n) {
  // From the last segment backwards.
  for (size_t i = maxIovecs_; i-- > 0 && n > 0;) {
    const size_t cut = std::min(n, iov_[i].length);
    iov_[i].length -= cut;
    n -= cut;
  }
  if (iov_[0].length == 0 && iov_[1].length > 0) firstIoVec_ = 1;
}

void Pkt::tailSegmentIs(const uint8_t* data, size_t length) {
  tail_.assign(reinterpret_cast<const char*>(data), length);
  iov_[1].data = reinterpret_cast<uint8_t*>(tail_.data());
  iov_[1].length = length;
  if (iov_[0].length == 0) firstIoVec_ = 1;
}

size_t Pkt::size() const noexcept {
  size_t total = 0;
  for (size_t i = firstIoVec_; i < maxIovecs_; ++i) total += iov_[i].length;
  return total;
}

std::string Pkt::bytes() const {
  std::string out;
  out.reserve(size());
  for (size_t i = firstIoVec_; i < maxIovecs_; ++i)
    out.append(reinterpret_cast<const char*>(iov_[i].data), iov_[i].length);
  return out;
}

std::string Pkt::stringValue() const {
  static const char* hex = "0123456789abcdef";
  const std::string all = bytes();
  std::string text;
  for (size_t i = 0; i < all.size(); ++i) {
    if (i) text += (i % 16 == 0) ? '\n' : ' ';
    text += hex[static_cast<uint8_t>(all[i]) >> 4];
    text += hex[static_cast<uint8_t>(all[i]) & 0xf];
  }
  return text;
}

}  // namespace Lanx
