#include "config/MacsecConfigMergeSm.h"

#include "platform/Fatal.h"
#include "platform/HashTable.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::MacsecConfigMergeSm")

namespace Macsec {

void MacsecConfigMergeSm::handleInitialized() {
  TRACE(0, " MacsecConfigMergeSm");
  ZEF_ASSERT(!initialized());
  initializedIs(true);
  sourceSetIs(SourceSet::SourceSetIs());
  handleInputs();
}

void MacsecConfigMergeSm::handleInputs() {
  TRACE(8, "");
  for (const Zef::Name& name : Zef::keysOf<Zef::Name>(inputDir()->entityPtrIter())) handleInput(name);
}

void MacsecConfigMergeSm::handleInput(const Zef::Name& name) {
  TRACE(8, " " << name);
  // An entity that is no Config counts as no source. A source that leaves runs no handler: what
  // it supplied stays merged until another source removes it.
  const Zef::Ptr<Config const> config = Zef::ptrCast<Config const>(inputDir()->entry(name));
  const Zef::Ptr<InputConfigSm> current = inputConfigSm(name);
  if (current && current->inputConfig() != config) inputConfigSmDel(name);
  if (config) inputConfigSmIs(name, config, sourceSet(), mergedConfig(), inputDir());
}

}  // namespace Macsec
