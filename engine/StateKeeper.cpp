#include "engine/StateKeeper.h"

#include <vector>

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

namespace {

// What was last written of an interface, read in place: this runs before every MKPDU.
const nlohmann::json& lastWritten(const std::map<Lanx::IntfId, nlohmann::json>& saved, const Lanx::IntfId& intfId) {
  static const nlohmann::json none;
  const auto last = saved.find(intfId);
  return last != saved.end() ? last->second : none;
}

}  // namespace

void StateKeeper::refresh() {
  if (changedSince_.empty()) return;
  bool differs = false;
  for (const Lanx::IntfId& intfId : changedSince_) {
    const nlohmann::json& previous = lastWritten(saved_, intfId);
    nlohmann::json now = savedInterface(*status(), intfId, previous);
    if (settledPart(now) == settledPart(previous)) continue;
    differs = true;
    keep(intfId, std::move(now));
  }
  changedSince_.clear();
  if (differs && write()) write()(document());
}

void StateKeeper::beforeTransmit(const Lanx::IntfId& intfId) {
  const nlohmann::json& previous = lastWritten(saved_, intfId);
  if (!numbersBeyond(*status(), intfId, previous)) return;
  TRACE(3, " message or key numbers of " << intfId << " reserved further");
  keep(intfId, savedInterface(*status(), intfId, previous));
  // Interfaces that started together reach their bounds together: those past half their reserve
  // are reserved further in the same write, rather than each writing the whole state in turn.
  std::vector<Lanx::IntfId> near;
  for (const auto& [other, saved] : saved_) {
    if (numbersBeyond(*status(), other, saved, kMessageNumbersReserved / 2)) near.push_back(other);
  }
  for (const Lanx::IntfId& other : near) keep(other, savedInterface(*status(), other, nlohmann::json()));
  if (write()) write()(document());
}

void StateKeeper::writeNow() {
  for (const Lanx::IntfId& intfId : Zef::keysOf<Lanx::IntfId>(status()->portStatusIter())) changedSince_.insert(intfId);
  for (const Lanx::IntfId& intfId : changedSince_)
    keep(intfId, savedInterface(*status(), intfId, lastWritten(saved_, intfId)));
  changedSince_.clear();
  if (write()) write()(document());
}

void StateKeeper::keep(const Lanx::IntfId& intfId, nlohmann::json saved) {
  if (saved.is_null()) {
    saved_.erase(intfId);
    texts_.erase(intfId);
    return;
  }
  texts_[intfId] = savedText(saved);
  saved_[intfId] = std::move(saved);
}

std::string StateKeeper::document() const { return savedDocument(texts_); }

}  // namespace Macsec
