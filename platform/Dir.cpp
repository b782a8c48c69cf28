#include "platform/Dir.h"

namespace Zef {

Ptr<Entity> Dir::entry(const Name& name) const { return entityPtr(name); }

}  // namespace Zef
