// BrivetPathReference: the node the legacy cache stores where the graph holds a reference.
//
// A reference knows the path it points to (`path`, and `keyPath`, the path joined by ".") and the cache root it
// is resolved against. Both the root and the resolved target (`hardReference`) are held weakly: the cache owns
// its nodes, a reference only points into it. When the target is gone the reference looks its key path up on the
// root again, lazily, on the next access.
//
// Key-value lookups (`valueForKey`, `valueForKeyPath`) and writes through a key path forward to the target, so a
// plain key-path lookup on the cache root follows references transparently. Without a target, lookups answer nil
// and writes are dropped. `setValueForKey` has no base-class fallback: without a target it tries to resolve the
// target once more and drops the write when there still is none.
//
// Cycles: a reference may point at itself or at an ancestor. Every forward and every resolution counts as one
// hop on the calling thread; beyond `kMaxReferenceHops` nested hops a lookup answers nil and a write is dropped,
// so no cycle can recurse without bound.
//
// Thread safety: the path, key path and root never change after construction. The cached target is the one field
// that changes: the model's concurrent readers of the cache (any number of threads on its queue at once) may all
// find it gone and resolve it again, so each reads and replaces it under a small lock of its own, held only to
// copy the weak pointer, never across the lookup through the root. Forwarded writes touch the target and need the
// cache's own write discipline (its queue's barrier).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "brivet/platform/mutex.h"
#include "brivet/platform/object.h"
#include "brivet/platform/thread_annotations.h"

namespace brivet {

class BrivetPathReference final : public CustomObject {
 public:
  static constexpr std::size_t kMaxReferenceHops = 256;

  // `path` is the referenced path as the data source sent it (an array of keys); `target` the node it resolves
  // to now (may be nil); `root` the dictionary it is resolved against.
  BrivetPathReference(Object path, const Object& target, const Object& root);
  static Object make(Object path, const Object& target, const Object& root);
  // The reference inside `object`, or nullptr when it holds something else.
  static BrivetPathReference* cast(const Object& object);

  const Object& path() const { return path_; }
  const std::string& keyPath() const { return keyPath_; }
  Object root() const { return root_.lock(); }
  // The target, resolved again through the root when the one held is gone; nil when it cannot be resolved.
  Object hardReference() const;

  Object valueForKey(std::string_view key) const override;
  Object valueForKeyPath(std::string_view keyPath) const override;
  Object valueForUndefinedKey(std::string_view key) const override;
  void setValueForKey(const Object& value, std::string_view key) override;
  void setValueForKeyPath(const Object& value, std::string_view keyPath) override;
  Object objectForKeyedSubscript(std::string_view key) const { return valueForKey(key); }
  void setObjectForKeyedSubscript(const Object& value, std::string_view key) { setValueForKey(value, key); }

  std::string_view className() const override { return "BrivetPathReference"; }
  void* castTo(CustomTypeId type) override { return castAs<BrivetPathReference>(this, type); }

 private:
  const Object path_;
  const std::string keyPath_;
  const WeakObject root_;
  mutable Mutex targetMutex_;
  mutable std::weak_ptr<ObjectBase> target_ BRIVET_GUARDED_BY(targetMutex_);
};

}  // namespace brivet
