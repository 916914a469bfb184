// Legacy key paths: parsing, range expansion and the array form sent to a data source.
//
// A key path is a string of fragments joined by "." ("lists.top.@range(0,9).title"); one fragment may be an
// inclusive numeric range "@range(x,y)". There is no quoting, so a key never contains ".".
//
//   BrivetKeySet        the keys one path position stands for: plain keys and inclusive integer ranges, in order.
//                       Ranges stay compact (two integers), so a position may name more keys than fit in memory;
//                       reads visit only the keys a node actually has.
//   BrivetPathProtocol  what a cache read walks: the first position's key set, the rest of the path, the count.
//   BrivetPath          a chain built from a key-path string (or its fragments); each link owns the next and
//                       points back to the previous one weakly.
//   BrivetPathSet       a chain built from a data source's path-set array: keys, numbers, range dictionaries
//                       ({"from", "to"} or {"from", "length"}) and arrays of them.
//
// Chains are built whole by their factories and are immutable afterwards, so they may be read from any thread.
// Long chains are built and destroyed without recursion.
//
// `convertKeyPathToPQL` turns a key path into the JSON text of its array form; the two null-replacing helpers
// return copies of collections in which every null (at any depth) became "". All functions are pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "brivet/platform/object.h"

namespace brivet {

class BrivetKeySet {
 public:
  struct Range {
    std::int64_t from;  // inclusive, from <= to
    std::int64_t to;    // inclusive
    friend bool operator==(const Range&, const Range&) = default;
  };
  using Element = std::variant<std::string, Range>;

  void addKey(std::string key) { elements_.emplace_back(std::move(key)); }
  // Adds the decimal keys from..to inclusive; nothing when from > to.
  void addRange(std::int64_t from, std::int64_t to);

  bool empty() const { return elements_.empty(); }
  // The number of keys, ranges expanded (saturating at UINT64_MAX).
  std::uint64_t count() const;
  const std::vector<Element>& elements() const { return elements_; }
  // Every key as a string, ranges expanded. Meant for small sets (tests, logs).
  std::vector<std::string> keys() const;

  friend bool operator==(const BrivetKeySet&, const BrivetKeySet&) = default;

 private:
  std::vector<Element> elements_;
};

class BrivetPathProtocol {
 public:
  virtual ~BrivetPathProtocol() = default;
  // The keys the first position stands for; nullptr when it could not be resolved.
  virtual const BrivetKeySet* firstPathKeySet() const = 0;
  // The path without its first position; nullptr at the last one. Owned by this path.
  virtual const BrivetPathProtocol* nextPath() const = 0;
  // The number of positions from here to the end.
  virtual std::size_t pathCount() const = 0;
};

class BrivetPath final : public CustomObject, public BrivetPathProtocol {
 public:
  // Splits `keyPath` on "." ("" gives one empty fragment).
  static std::shared_ptr<BrivetPath> withKeyPath(std::string_view keyPath);
  // Joins the fragments with "."; no fragments give a path with no positions.
  static std::shared_ptr<BrivetPath> withPathFragments(std::vector<std::string> fragments);
  ~BrivetPath() override;

  // The key path of this link and every link after it.
  std::string_view keyPath() const;
  // The fragments from this link to the end.
  std::span<const std::string> pathFragments() const;
  std::shared_ptr<BrivetPath> previousPathFragment() const { return previous_.lock(); }
  const std::shared_ptr<BrivetPath>& nextPathFragment() const { return next_; }
  // The first fragment resolved: one key, a range's keys (empty when from > to), or nothing when a fragment
  // containing "@range" does not match the range grammar (or there is no fragment).
  const std::optional<BrivetKeySet>& firstPathFragmentKeyOrRange() const { return first_; }

  const BrivetKeySet* firstPathKeySet() const override { return first_ ? &*first_ : nullptr; }
  const BrivetPathProtocol* nextPath() const override { return next_.get(); }
  std::size_t pathCount() const override;

  std::string_view className() const override { return "BrivetPath"; }
  void* castTo(CustomTypeId type) override { return castAs<BrivetPath, BrivetPathProtocol>(this, type); }
  // "<BrivetPath: 0x...> : keyPath = a.b"
  std::string description() const override;

  struct Shared;  // the text and fragments, shared by every link of a chain
  BrivetPath(std::shared_ptr<const Shared> shared, std::size_t index);  // use the factories

 private:
  static std::shared_ptr<BrivetPath> buildChain(std::shared_ptr<const Shared> shared);
  void resolveFirstRange();

  std::shared_ptr<const Shared> shared_;
  std::size_t index_;  // this link's first fragment
  std::optional<BrivetKeySet> first_;
  std::shared_ptr<BrivetPath> next_;
  std::weak_ptr<BrivetPath> previous_;
};

class BrivetPathSet final : public CustomObject, public BrivetPathProtocol {
 public:
  // nullptr when `pathSets` is not an array.
  static std::shared_ptr<BrivetPathSet> withPathSets(const Object& pathSets);
  ~BrivetPathSet() override;

  // The positions from this link to the end.
  std::span<const Object> pathSets() const;
  const std::shared_ptr<BrivetPathSet>& nextPathSet() const { return next_; }
  // The first position resolved; nothing when it gives no key.
  const std::optional<BrivetKeySet>& firstPathKeySetOrRange() const { return first_; }

  const BrivetKeySet* firstPathKeySet() const override { return first_ ? &*first_ : nullptr; }
  const BrivetPathProtocol* nextPath() const override { return next_.get(); }
  std::size_t pathCount() const override;

  std::string_view className() const override { return "BrivetPathSet"; }
  void* castTo(CustomTypeId type) override { return castAs<BrivetPathSet, BrivetPathProtocol>(this, type); }
  // "<BrivetPathSet: 0x...> : pathSets = (a, {from = 0; to = 2;})"
  std::string description() const override;

  BrivetPathSet(Object pathSets, std::size_t index);  // use the factory

 private:
  void resolveFirstKeySet();

  Object all_;  // the whole array, shared by every link
  std::size_t index_;
  std::optional<BrivetKeySet> first_;
  std::shared_ptr<BrivetPathSet> next_;
};

// The JSON text of the key path's array form: each fragment that starts with a range becomes {"from": x, "to": y},
// every other fragment stays a string. 'items.@range(0,2).name' gives ["items",{"from":0,"to":2},"name"].
// Empty when the key path is not valid UTF-8.
std::string convertKeyPathToPQL(std::string_view keyPath);

// Immutable copies in which every null, at any depth of nested arrays and dictionaries, is replaced by "".
// Anything that is not an array (respectively a dictionary) is returned as it is.
Object arrayByReplacingNullsWithBlanks(const Object& array);
Object dictionaryByReplacingNullsWithBlanks(const Object& dictionary);

}  // namespace brivet
