// Fuzzes path arrays, the form in which servers send paths ("paths" and
// "invalidated" of call answers, "pql" of error bodies): JSON text read by
// parseJSON, then `PathTree::fromPathArrays` and `PathTree::pathFromArray`.
//
// Properties: a path read from an array has at most 512 non-empty key sets and no
// reversed range (a path holding one is dropped whole, so KeyIterator never meets
// one); the tree iterates in order; it comes back from its array form, and from
// that form written as JSON text (what a request carries) and read again.
#include <cstdint>
#include <string_view>

#include "brivet/core/values/path_tree.h"
#include "brivet/core/values/path_tree_fuzzer_support.h"
#include "brivet/platform/json.h"

namespace {
constexpr const char* kTarget = "path_arrays";
using brivet::fuzzing::check;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brivet;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const Result<Object> parsed = parseJSON(text, JSONReadingOptions::FragmentsAllowed);
  if (!parsed.ok()) return 0;
  const Object& paths = parsed.value();
  if (const Array* a = paths.asArray()) {
    for (const Object& element : *a) {
      const std::optional<Path> path = PathTree::pathFromArray(element);
      if (!path) continue;
      check(!path->empty() && path->size() <= 512, kTarget, "a path of no step or past the length limit");
      for (const KeySet& keys : *path) {
        check(!keys.empty(), kTarget, "an empty key set in a path");
        for (const Key& k : keys) {
          check(k.kind() != Key::Kind::Range || k.from() <= k.to(), kTarget, "a reversed range from a path array");
        }
      }
    }
  }
  const PathTree tree = PathTree::fromPathArrays(paths);
  check(!brivet::fuzzing::checkTree(tree, kTarget), kTarget, "a reversed range in a tree from path arrays");
  check(!tree.description().empty(), kTarget, "an empty description");
  const Object array = tree.toJSONArray();
  check(PathTree::fromPathArrays(array) == tree, kTarget, "a tree does not come back from its array form");
  const Result<std::string> written = writeJSON(array);
  check(written.ok(), kTarget, "the array form cannot be written");
  const Result<Object> back = parseJSON(written.value());
  check(back.ok() && PathTree::fromPathArrays(back.value()) == tree, kTarget,
        "the written array form reads back to another tree");
  return 0;
}
