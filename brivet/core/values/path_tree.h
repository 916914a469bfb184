// Key, PathTree and KeyIterator: the paths an application asks for.
//
// A `Key` is a text key, a numeric key (a platform number) or an inclusive
// range of 64-bit integers. A `PathTree` is one request: an object (key sets,
// each an ordered sequence of keys, mapped to subtrees), a bare key set, a
// `target` (the path ends at a reference and wants its target) or `self` (the
// path ends here). Trees are immutable values; copies share their nodes. A
// `KeyIterator` walks a key set and yields each key as text, ranges expanded
// in ascending order.
//
// Sources: dotted key-path strings ("lists.top.@range(0,9).title"), path
// arrays from a server (["lists", "top", {"from": 0, "to": 9}]), and the
// nodes of a graph. Paths longer than 512 key sets are dropped, and so is an
// entry that would nest a tree built with `object` deeper than 512 levels, so
// every algorithm over trees (equality, description, merging, walks) is
// bounded however a tree was built. A range whose
// end lies before its start stops the program when iterated, so path arrays
// (which come from outside) are checked where they are read: a path holding
// such a range, or a "length" that overflows, is dropped as a whole.
//
// Thread safety: keys and trees may be shared and read from any thread; a
// KeyIterator belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brivet/platform/object.h"

namespace brivet {

class JSONGraph;

class Key {
 public:
  enum class Kind : std::uint8_t { String, Number, Range };

  static Key string(std::string text);
  static Key number(const Object& number);  // a platform number
  static Key range(std::int64_t from, std::int64_t to);

  Kind kind() const { return kind_; }
  const std::string& stringValue() const { return text_; }  // String: the text; Number: its description
  const Object& numberValue() const { return number_; }     // Number only (nil otherwise)
  std::int64_t from() const { return from_; }
  std::int64_t to() const { return to_; }

  // "\"text\"", the number's description, or "{from: 1, to: 2}".
  std::string description() const;
  // Discriminators: string 0 then the text, number 1 then its hash, range 2 then from and to.
  std::size_t hash() const;
  friend bool operator==(const Key& a, const Key& b);

 private:
  Key() = default;
  Kind kind_ = Kind::String;
  std::string text_;
  Object number_;
  std::int64_t from_ = 0;
  std::int64_t to_ = 0;
};

using KeySet = std::vector<Key>;
using Path = std::vector<KeySet>;  // one key set per level

struct KeySetHash {
  std::size_t operator()(const KeySet& keys) const;
};

class PathTree {
 public:
  // A scoped enumerator named like a type is no shadowing declaration, whatever GCC 12's -Wshadow says.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
  enum class Kind : std::uint8_t { Object, KeySet, Target, Self };
#pragma GCC diagnostic pop
  using Entry = std::pair<KeySet, PathTree>;

  PathTree();                                          // an empty object
  static PathTree object(std::vector<Entry> entries);  // a later entry replaces an earlier equal key set
  // For builders that know their key sets are distinct: skips the duplicate check.
  static PathTree objectWithDistinctKeySets(std::vector<Entry> entries);
  static PathTree keySet(KeySet keys);
  static PathTree target();
  static PathTree self();

  // One tree from dotted key-path strings; each path is merged in, in order.
  static PathTree fromKeyPaths(const std::vector<std::string>& keyPaths);
  // One path string as key sets of one key each (empty components dropped).
  static Path parsePath(std::string_view keyPath);
  // One tree from paths given as key-set sequences.
  static PathTree fromPaths(const std::vector<Path>& paths);
  // The tree of a batch of path arrays (an array of paths, each in array form);
  // anything that is not an array gives an empty tree.
  static PathTree fromPathArrays(const Object& paths);
  // One path in array form; nullopt when it holds no step or an invalid range.
  static std::optional<Path> pathFromArray(const Object& path);
  // The tree covering every node of a graph: refs give `target`, other leaves `self`.
  static PathTree fromGraph(const JSONGraph& graph);

  // merge(new, accumulated): a deeper request absorbs a shallower one along the
  // same path; a `keySet` or `target` already accumulated is never replaced.
  static PathTree merge(const PathTree& newTree, const PathTree& accumulated);

  Kind kind() const;
  bool isObject() const { return kind() == Kind::Object; }
  // The objects nested from here down (0 for a key set, `target` or `self`); at most 512.
  std::size_t depth() const;
  const std::vector<Entry>& entries() const;       // an object's entries in order (empty otherwise)
  const KeySet& keys() const;                      // a key set's keys (empty otherwise)
  const PathTree* find(const KeySet& keys) const;  // an object's subtree for exactly these keys

  // The paths of the tree: requests ending in `self` are gathered per level into
  // one key set; paths ending on a reference are not listed.
  std::vector<Path> paths() const;
  // The JSON array form sent to a server: an array of paths, each step a key
  // (text, number, or {"from": f, "to": t}) or an array of keys.
  Object toJSONArray() const;
  // The tree as dotted key-path strings, one per key of every multi-key set
  // (ranges written "@range(f,t)"), as an application would have asked; the
  // first `limit` of them (a few multi-key sets multiply to many strings).
  std::vector<std::string> keyPathStrings(std::size_t limit = SIZE_MAX) const;

  std::string description() const;
  friend bool operator==(const PathTree& a, const PathTree& b);

  struct Node;

 private:
  explicit PathTree(std::shared_ptr<const Node> node) : node_(std::move(node)) {}
  std::shared_ptr<const Node> node_;
};

// Expands a key set into text keys. Not thread-safe; views returned by next()
// stay valid until the next call.
class KeyIterator {
 public:
  explicit KeyIterator(std::span<const Key> keys) : currentSlice_(keys) {}
  // The next key as text, or nullopt when the slice is done (and from then on).
  // A checked precondition, the one lookup that stops the program (the path
  // grammar demands it): a range is not reversed. Check ranges from outside
  // first.
  std::optional<std::string_view> next();

 private:
  struct Cursor {
    std::int64_t next;
    std::int64_t last;
    bool done;
  };
  std::span<const Key> currentSlice_;
  std::ptrdiff_t index_ = 0;
  std::optional<Cursor> iterator_;
  char buffer_[24];
};

}  // namespace brivet
