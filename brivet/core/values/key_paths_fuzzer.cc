// Fuzzes the path grammar: key-path strings (one per line) into one PathTree.
//
// Properties: every parsed path has at most 512 key sets of one key each, text keys
// are non-empty and hold no "."; the tree's key sets iterate in order; the tree is
// equal to itself merged into itself; it comes back from the key-path strings it
// gives (`keyPathStrings`) and, when it holds no reversed range, from its array form
// (`toJSONArray`), also once that form has been written as JSON text (for UTF-8
// input) and read again.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "brivet/core/values/path_tree.h"
#include "brivet/core/values/path_tree_fuzzer_support.h"
#include "brivet/platform/internal/utf8.h"
#include "brivet/platform/json.h"

namespace {
constexpr const char* kTarget = "key_paths";
using brivet::fuzzing::check;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brivet;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start <= input.size()) {
    std::size_t end = input.find('\n', start);
    if (end == std::string_view::npos) end = input.size();
    lines.emplace_back(input.substr(start, end - start));
    start = end + 1;
  }
  for (const std::string& line : lines) {
    const Path path = PathTree::parsePath(line);
    check(path.size() <= 512, kTarget, "a path longer than the limit");
    for (const KeySet& keys : path) {
      check(keys.size() == 1, kTarget, "a path string step with more than one key");
      const Key& key = keys[0];
      check(key.kind() != Key::Kind::Number, kTarget, "a number key from a path string");
      if (key.kind() == Key::Kind::String) {
        check(!key.stringValue().empty() && key.stringValue().find('.') == std::string::npos, kTarget,
              "an empty text key or one holding a dot");
      }
    }
  }
  const PathTree tree = PathTree::fromKeyPaths(lines);
  const bool reversed = brivet::fuzzing::checkTree(tree, kTarget);
  check(!tree.description().empty(), kTarget, "an empty description");
  check(PathTree::merge(tree, tree) == tree, kTarget, "a tree merged into itself changes");
  check(PathTree::fromKeyPaths(tree.keyPathStrings()) == tree, kTarget,
        "a tree does not come back from its key-path strings");
  (void)tree.paths();
  if (!reversed) {
    const Object array = tree.toJSONArray();
    check(PathTree::fromPathArrays(array) == tree, kTarget, "a tree does not come back from its array form");
    // Key paths that are not UTF-8 cannot become JSON text; the writer refuses them with an error.
    if (!internal::isValidUTF8(input)) return 0;
    const Result<std::string> text = writeJSON(array);
    check(text.ok(), kTarget, "the array form cannot be written");
    const Result<Object> back = parseJSON(text.value());
    check(back.ok() && PathTree::fromPathArrays(back.value()) == tree, kTarget,
          "the written array form reads back to another tree");
  }
  return 0;
}
