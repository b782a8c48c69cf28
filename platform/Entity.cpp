#include "platform/Entity.h"

namespace Zef {

String Entity::fullName() const {
  if (parent_ == nullptr) return name_;
  return parent_->fullName() + String("/") + name_;
}

}  // namespace Zef
