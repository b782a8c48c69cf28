#pragma once

#include <array>
#include <cstdint>
#include <new>
#include <string>

#include "platform/Ptr.h"
#include "platform/PtrInterface.h"

namespace Lanx {

// A counted packet of up to two data segments. The head segment lies in a shared buffer with room
// in front, so that headers can be put before the data without moving it; a second segment can
// carry data kept elsewhere. The packet's size is the sum of the segments in use.
class Pkt : public Zef::PtrInterface {
 public:
  // The memory of the head segment, counted so that copies of a packet can share it. Its bytes
  // follow it in the same allocation: every frame sent or received takes one.
  class SharedBuffer : public Zef::PtrInterface {
   public:
    static Zef::Ptr<SharedBuffer> SharedBufferIs(size_t size) {
      return Zef::Ptr<SharedBuffer>(new (::operator new(sizeof(SharedBuffer) + size)) SharedBuffer(size));
    }
    static void operator delete(void* memory) { ::operator delete(memory); }
    uint8_t* buffer() const noexcept { return reinterpret_cast<uint8_t*>(const_cast<SharedBuffer*>(this + 1)); }
    size_t size() const noexcept { return size_; }

   private:
    explicit SharedBuffer(size_t size) : size_(size) {}
    size_t size_;
  };

  class Manager {
   public:
    Zef::Ptr<Pkt> newPkt(size_t headRoom = 128) const;
  };

  static constexpr size_t maxIovecs_ = 2;

  // Grows the packet by n bytes at the front and returns where they start; the caller writes
  // them. A bigger buffer is taken when the room in front runs out.
  uint8_t* newHeadData(size_t n);
  // Shrinks the packet by n bytes at the end.
  void delTailData(size_t n);
  // Adds a second segment after the head segment, from bytes the packet copies and owns.
  void tailSegmentIs(const uint8_t* data, size_t length);

  // The first byte of the frame: the start of the first segment in use.
  const uint8_t* data() const noexcept { return iov_[firstIoVec_].data; }
  uint8_t* data() noexcept { return iov_[firstIoVec_].data; }
  size_t size() const noexcept;
  size_t segmentSize(size_t index) const noexcept { return iov_[index].length; }
  // Whether all the bytes lie in one piece from data() on.
  bool contiguous() const noexcept { return size() == iov_[firstIoVec_].length; }
  // All the bytes in one piece, for whoever must read across the segments.
  std::string bytes() const;
  // A hexadecimal dump, for traces.
  std::string stringValue() const;

 private:
  struct IoVec {
    uint8_t* data = nullptr;
    size_t length = 0;
  };
  explicit Pkt(size_t headRoom);
  void checkInvariants() const;

  Zef::Ptr<SharedBuffer> sharedBuffer_;
  std::array<IoVec, maxIovecs_> iov_;
  size_t firstIoVec_ = 0;
  std::string tail_;
};

const Pkt::Manager& globalPktManager();

}  // namespace Lanx
