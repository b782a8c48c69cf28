#include "engine/StateKeeper.h"

#include "platform/HashTable.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::StateKeeper")

namespace Macsec {

void StateKeeper::handleInitialized() {
  TRACE(8, "");
  initializedIs(true);
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->portStatusIter())) changed(intfId);
}

void StateKeeper::ZefStatus::ZefCpStatus::changed() {
  if (StateKeeper* sm = stateMachine()) sm->changed(key());
}

void StateKeeper::ZefStatus::ZefPortStatus::changed() {
  if (StateKeeper* sm = stateMachine()) sm->changed(key());
}

void StateKeeper::changed(const Lanx::IntfId& intfId) { changedSince_.insert(intfId); }

void StateKeeper::refresh() {
  if (changedSince_.empty()) return;
  bool differs = false;
  for (const Lanx::IntfId& intfId : changedSince_) {
    const auto last = saved_.find(intfId);
    const nlohmann::json previous = last != saved_.end() ? last->second : nlohmann::json();
    nlohmann::json now = savedInterface(*status(), intfId, previous);
    if (settledPart(now) == settledPart(previous)) continue;
    differs = true;
    if (now.is_null()) {
      saved_.erase(intfId);
    } else {
      saved_[intfId] = std::move(now);
    }
  }
  changedSince_.clear();
  if (differs && write()) write()(document());
}

void StateKeeper::beforeTransmit(const Lanx::IntfId& intfId) {
  const auto last = saved_.find(intfId);
  const nlohmann::json previous = last != saved_.end() ? last->second : nlohmann::json();
  if (!numbersBeyond(*status(), intfId, previous)) return;
  TRACE(3, " message or key numbers of " << intfId << " reserved further");
  saved_[intfId] = savedInterface(*status(), intfId, previous);
  if (write()) write()(document());
}

void StateKeeper::writeNow() {
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->portStatusIter())) changedSince_.insert(intfId);
  for (const Lanx::IntfId& intfId : changedSince_) {
    const auto last = saved_.find(intfId);
    nlohmann::json now = savedInterface(*status(), intfId, last != saved_.end() ? last->second : nlohmann::json());
    if (now.is_null()) {
      saved_.erase(intfId);
    } else {
      saved_[intfId] = std::move(now);
    }
  }
  changedSince_.clear();
  if (write()) write()(document());
}

std::string StateKeeper::document() const { return savedDocument(saved_); }

}  // namespace Macsec
