// Uses of the conveniences that must not compile, one per BRIVET_REJECT_CASE;
// case 0 is the same code written correctly, so that a broken harness cannot
// pass for a refusal. Compiled (never linked) by the CMake tests
// key_path_rejects.<case>, which expect the compiler to refuse each case with
// the diagnostic named beside it in CMakeLists.txt.
#include <string>
#include <string_view>

#include "brivet/platform/key_path.h"
#include "brivet/platform/typed_access.h"

namespace {

using namespace brivet;
using namespace brivet::literals;

int take(const KeyPath& keyPath) { return static_cast<int>(keyPath.text().size()); }

// Runs of "a." components, to write the longest key path and one longer.
#define A2 "a.a."
#define A4 A2 A2
#define A8 A4 A4
#define A16 A8 A8
#define A32 A16 A16
#define A64 A32 A32
#define A128 A64 A64
#define A256 A128 A128
#define A511 A256 A128 A64 A32 A16 A8 A4 A2 "a."
#define A512 A256 A256

}  // namespace

int main(int argc, char** argv) {
  const Object object = Object::dictionary({{"k", "v"}});
  const char* runTime = argc > 1 ? argv[1] : "a.b";
  const std::string text = runTime;
  (void)object;
  (void)text;
#if BRIVET_REJECT_CASE == 0
  const KeyPath accepted = A511 "@range(0,2147483647)";  // 512 components: the most there may be
  const std::string_view view = *as<std::string_view>(object["k"].isNil() ? object : object);
  return take("lists.top.@range(0,9).title") + take("a.b"_path) + take(accepted) + static_cast<int>(view.size()) +
         take(KeyPath::parse(runTime).valueOr("x")) + (get<std::string>(object, "k") ? 1 : 0);
#elif BRIVET_REJECT_CASE == 1
  return take("");
#elif BRIVET_REJECT_CASE == 2
  return take("lists..title");
#elif BRIVET_REJECT_CASE == 3
  return take(".lists.title");
#elif BRIVET_REJECT_CASE == 4
  return take("lists.title.");
#elif BRIVET_REJECT_CASE == 5
  return take("lists.@range(1, 2)");
#elif BRIVET_REJECT_CASE == 6
  return take("lists.x@range(1,2)");
#elif BRIVET_REJECT_CASE == 7
  return take("lists.@range(1,2)x");
#elif BRIVET_REJECT_CASE == 8
  return take("lists.@RANGE(1,2)");
#elif BRIVET_REJECT_CASE == 9
  return take("lists.@range(5,2)");
#elif BRIVET_REJECT_CASE == 10
  return take("lists.@range(0,2147483648)");
#elif BRIVET_REJECT_CASE == 11
  return take("lists.\xff");
#elif BRIVET_REJECT_CASE == 12
  return take(A512 "a");
#elif BRIVET_REJECT_CASE == 13
  return take("lists..title"_path);
#elif BRIVET_REJECT_CASE == 14
  return take(runTime);  // text known only at run time: KeyPath::parse
#elif BRIVET_REJECT_CASE == 15
  return take(text);
#elif BRIVET_REJECT_CASE == 16
  return static_cast<int>(as<std::string_view>(object["k"])->size());  // would view a temporary handle
#elif BRIVET_REJECT_CASE == 17
  return static_cast<int>(get<std::string_view>(object, "k")->size());
#else
#error "unknown BRIVET_REJECT_CASE"
#endif
}
