#include "brivet/legacy/path_reference.h"

#include "brivet/legacy/constants.h"

namespace brivet {
namespace {

thread_local std::size_t tHops = 0;

// One hop through a reference on this thread; `allowed()` is false once the calling thread is already
// kMaxReferenceHops hops deep (a cycle, or a chain no real graph has).
class Hop {
 public:
  Hop() : allowed_(tHops < BrivetPathReference::kMaxReferenceHops) {
    if (allowed_) ++tHops;
  }
  ~Hop() {
    if (allowed_) --tHops;
  }
  Hop(const Hop&) = delete;
  Hop& operator=(const Hop&) = delete;
  bool allowed() const { return allowed_; }

 private:
  const bool allowed_;
};

std::string joinPath(const Object& path) {
  std::string keyPath;
  if (const Array* a = path.asArray()) {
    for (std::size_t i = 0; i < a->size(); ++i) {
      if (i > 0) keyPath += BRIVET_KEY_PATH_SEPARATOR;
      const Object& key = (*a)[i];
      keyPath += key.isString() ? std::string(key.stringValue()) : key.description();
    }
  }
  return keyPath;
}

}  // namespace

BrivetPathReference::BrivetPathReference(Object path, const Object& target, const Object& root)
    : path_(std::move(path)), keyPath_(joinPath(path_)), root_(root), target_(target.weak()) {}

Object BrivetPathReference::make(Object path, const Object& target, const Object& root) {
  return Object(std::make_shared<BrivetPathReference>(std::move(path), target, root));
}

BrivetPathReference* BrivetPathReference::cast(const Object& object) {
  CustomObject* custom = object.asCustom();
  return custom != nullptr ? static_cast<BrivetPathReference*>(custom->castTo(customTypeId<BrivetPathReference>()))
                           : nullptr;
}

Object BrivetPathReference::hardReference() const {
  std::shared_ptr<ObjectBase> held;
  {
    MutexLock lock(targetMutex_);
    held = target_.lock();
  }
  if (Object target = Object::fromImpl(std::move(held))) return target;
  Hop hop;
  if (!hop.allowed()) return Object();
  const Object root = root_.lock();
  if (root.isNil()) return Object();
  Object target = root.valueForKeyPath(keyPath_);
  MutexLock lock(targetMutex_);
  target_ = target.weak();
  return target;
}

Object BrivetPathReference::valueForKey(std::string_view key) const {
  Hop hop;
  if (!hop.allowed()) return Object();
  if (const Object target = hardReference()) return target.valueForKey(key);
  return CustomObject::valueForKey(key);
}

Object BrivetPathReference::valueForKeyPath(std::string_view keyPath) const {
  Hop hop;
  if (!hop.allowed()) return Object();
  if (const Object target = hardReference()) return target.valueForKeyPath(keyPath);
  return CustomObject::valueForKeyPath(keyPath);
}

Object BrivetPathReference::valueForUndefinedKey(std::string_view /*key*/) const { return Object(); }

void BrivetPathReference::setValueForKey(const Object& value, std::string_view key) {
  Hop hop;
  if (!hop.allowed()) return;
  Object target = hardReference();
  // No base-class fallback: without a target, try once more to resolve one, then drop the write.
  if (target.isNil()) target = hardReference();
  if (target) target.setValueForKey(value, key);
}

void BrivetPathReference::setValueForKeyPath(const Object& value, std::string_view keyPath) {
  Hop hop;
  if (!hop.allowed()) return;
  if (const Object target = hardReference()) {
    target.setValueForKeyPath(value, keyPath);
    return;
  }
  CustomObject::setValueForKeyPath(value, keyPath);
}

}  // namespace brivet
