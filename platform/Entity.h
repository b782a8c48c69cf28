#pragma once

#include "platform/Notifier.h"
#include "platform/String.h"

namespace Zef {

// A counted object with attributes, placed in a tree of owners. An owned child gets its owner
// as parent; the parent link is not counted, since the owner holds the child.
class Entity : public Notifier {
 public:
  explicit Entity(Name name = Name()) : name_(std::move(name)) {}

  const Name& name() const noexcept { return name_; }
  // The names from the root down, joined by '/'.
  String fullName() const;
  Entity* parent() const noexcept { return parent_; }
  const Name& parentAttrName() const noexcept { return parentAttrName_; }
  const Entity* entity() const noexcept { return this; }

  void parentIs(Entity* parent, const Name& attrName = Name()) {
    parent_ = parent;
    parentAttrName_ = parent ? attrName : Name();
  }

  // Whether the object's state is replicated to a standby; objects that live only in this
  // agent's memory say false.
  virtual bool hasBackupSupport() const { return true; }

 protected:
  ~Entity() override = default;

 private:
  Name name_;
  Entity* parent_ = nullptr;
  Name parentAttrName_;
};

}  // namespace Zef
