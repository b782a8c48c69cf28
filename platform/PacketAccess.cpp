#include "platform/PacketAccess.h"

#include <cstddef>

namespace Lanx {

Zef::Ptr<Pkt> Pam::rxPkt() {
  if (queueHead_ == queue_.size()) return nullptr;
  Zef::Ptr<Pkt> pkt = std::move(queue_[queueHead_++]);
  if (queueHead_ == queue_.size()) {
    queue_.clear();
    queueHead_ = 0;
  } else if (queueHead_ >= 64 && queueHead_ * 2 >= queue_.size()) {
    // A queue that is never read empty drops what it has read once that is half of it.
    queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(queueHead_));
    queueHead_ = 0;
  }
  return pkt;
}

void Pam::txPkt(const Zef::Ptr<Pkt>& pkt) {
  if (pkt->contiguous()) {
    txFrame(std::string_view(reinterpret_cast<const char*>(pkt->data()), pkt->size()));
    return;
  }
  txFrame(pkt->bytes());
}

void Pam::txFrame(std::string_view frame) {
  if (!transmitter_) {
    txDropsInc(1);
    return;
  }
  transmitter_(frame);
}

void Pam::rxPktIs(const Zef::Ptr<Pkt>& pkt) {
  queue_.push_back(pkt);
  readableCountInc(1);
}

void Pam::transmitterIs(std::function<void(std::string_view frame)> transmitter) {
  transmitter_ = std::move(transmitter);
}

}  // namespace Lanx

namespace Interface {

void EthDevPamManager::handleInitialized() { initializedIs(true); }

void EthDevPamManager::handleIntfDesired(const Lanx::IntfId& intfId) {
  if (!initialized()) return;
  const bool wanted = enabled() && desiredIntfDir()->intfDesired(intfId);
  if (!wanted) {
    pamCollection()->pamDel(intfId);
    return;
  }
  if (pamCollection()->pamHas(intfId)) return;
  const Zef::Ptr<Lanx::Pam> pam = pamCollection()->pamIs(intfId);
  if (transport()) {
    transport()(pam);
  } else if (deviceIntfStatusDir()) {
    deviceIntfStatusDir()->attach(pam);
  }
}

void EthDevPamManager::handleIntfDesired() {
  if (!initialized()) return;
  for (auto it = desiredIntfDir()->intfDesiredIter(); it; ++it) handleIntfDesired(Lanx::IntfId(it.key()));
  // Points of interfaces that are no longer listed go too.
  for (auto it = pamCollection()->pamIter(); it; ++it) {
    if (!desiredIntfDir()->intfDesiredHas(it.key())) pamCollection()->pamDel(Lanx::IntfId(it.key()));
  }
}

}  // namespace Interface
