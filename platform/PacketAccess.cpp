#include "platform/PacketAccess.h"

namespace Lanx {

Zef::Ptr<Pkt> Pam::rxPkt() {
  if (queue_.empty()) return nullptr;
  Zef::Ptr<Pkt> pkt = std::move(queue_.front());
  queue_.pop_front();
  return pkt;
}

void Pam::txPkt(const Zef::Ptr<Pkt>& pkt) {
  if (!transmitter_) {
    txDropsInc(1);
    return;
  }
  transmitter_(pkt);
}

void Pam::rxPktIs(const Zef::Ptr<Pkt>& pkt) {
  queue_.push_back(pkt);
  readableCountInc(1);
}

void Pam::transmitterIs(std::function<void(const Zef::Ptr<Pkt>&)> transmitter) {
  transmitter_ = std::move(transmitter);
}

}  // namespace Lanx
