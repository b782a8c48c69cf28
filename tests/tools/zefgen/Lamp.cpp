// The handlers the golden input names; the generator checks that they are defined here. This file
// is never built.

namespace Golden {

void Dimmer::handleInitialized() {}
void Dimmer::handleBrightness() {}
void Dimmer::handleColour(const Zef::String& key) {}
void Dimmer::handleFade() {}
void Dimmer::handleShade() {}

}  // namespace Golden
