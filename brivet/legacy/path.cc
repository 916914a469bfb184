#include "brivet/legacy/path.h"

#include <limits>
#include <optional>

#include "brivet/legacy/constants.h"
#include "brivet/legacy/internal/range_fragment.h"
#include "brivet/platform/format.h"
#include "brivet/platform/internal/json_scalars.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

// The platform's integer reading of a value: numbers truncate, strings are read as a leading decimal integer
// (saturating), anything else is 0.
std::int64_t integerValue(const Object& value) {
  if (const Number* n = value.asNumber()) return n->int64Value();
  if (!value.isString()) return 0;
  std::string_view text = value.stringValue();
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n')) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  std::int64_t result = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const int digit = text[i] - '0';
    if (result > (INT64_MAX - digit) / 10) return negative ? INT64_MIN : INT64_MAX;
    result = result * 10 + digit;
  }
  return negative ? -result : result;
}

// from + length - 1, saturating at the ends of the 64-bit range.
std::int64_t saturatingEnd(std::int64_t from, std::int64_t length) {
  std::int64_t end = 0;
  if (__builtin_add_overflow(from, length, &end)) return length > 0 ? INT64_MAX : INT64_MIN;
  return end == INT64_MIN ? INT64_MIN : end - 1;
}

// A number formatter's reading of a run of decimal digits: the integer when it
// fits 64 bits, else the correctly rounded double; nothing when it lies beyond
// the double range (no JSON text could carry it).
std::optional<Object> decimalNumber(std::string_view digits) {
  while (digits.size() > 1 && digits.front() == '0') digits.remove_prefix(1);
  const internal::JSONNumberRead read = internal::readJSONNumber(digits.data(), digits.data() + digits.size());
  if (read.fault() != internal::JSONNumberFault::None || read.length() != digits.size()) return std::nullopt;
  switch (read.kind()) {
    case internal::JSONNumberRead::Kind::Signed: return Object::integer(read.signedValue());
    case internal::JSONNumberRead::Kind::Unsigned: return Object::unsignedInteger(read.unsignedValue());
    case internal::JSONNumberRead::Kind::Double: return Object::real(read.doubleValue());
  }
  return std::nullopt;
}

Object replaceNulls(const Object& object, std::size_t depth);

Object replaceNullsInArray(const Object& array, std::size_t depth) {
  const Array* a = array.asArray();
  if (a == nullptr || depth > kMaxJSONNestingDepth) return array;
  std::vector<Object> elements;
  elements.reserve(a->size());
  for (const Object& e : *a) elements.push_back(replaceNulls(e, depth + 1));
  return Object::array(std::move(elements));
}

Object replaceNullsInDictionary(const Object& dictionary, std::size_t depth) {
  const Dictionary* d = dictionary.asDictionary();
  if (d == nullptr || depth > kMaxJSONNestingDepth) return dictionary;
  std::vector<Object::Entry> entries;
  entries.reserve(d->size());
  for (const auto& [key, value] : *d) entries.emplace_back(key, replaceNulls(value, depth + 1));
  return Object::dictionaryWithDistinctKeys(std::move(entries), false);
}

Object replaceNulls(const Object& object, std::size_t depth) {
  if (object.isNull()) return Object("");
  if (object.isDictionary()) return replaceNullsInDictionary(object, depth);
  if (object.isArray()) return replaceNullsInArray(object, depth);
  return object;
}

}  // namespace

// --- BrivetKeySet ---

void BrivetKeySet::addRange(std::int64_t from, std::int64_t to) {
  if (from <= to) elements_.emplace_back(Range{from, to});
}

std::uint64_t BrivetKeySet::count() const {
  std::uint64_t total = 0;
  for (const Element& e : elements_) {
    std::uint64_t n = 1;
    if (const Range* r = std::get_if<Range>(&e)) {
      const std::uint64_t span = static_cast<std::uint64_t>(r->to) - static_cast<std::uint64_t>(r->from);
      n = span == UINT64_MAX ? UINT64_MAX : span + 1;
    }
    total = n > UINT64_MAX - total ? UINT64_MAX : total + n;
  }
  return total;
}

std::vector<std::string> BrivetKeySet::keys() const {
  std::vector<std::string> keys;
  for (const Element& e : elements_) {
    if (const std::string* key = std::get_if<std::string>(&e)) {
      keys.push_back(*key);
      continue;
    }
    const Range& r = std::get<Range>(e);
    for (std::int64_t i = r.from;; ++i) {
      keys.push_back(std::to_string(i));
      if (i == r.to) break;
    }
  }
  return keys;
}

// --- BrivetPath ---

struct BrivetPath::Shared {
  std::string text;  // the whole key path
  std::vector<std::string> fragments;
  std::vector<std::size_t> starts;  // where each fragment begins in `text`
};

BrivetPath::BrivetPath(std::shared_ptr<const Shared> shared, std::size_t index)
    : shared_(std::move(shared)), index_(index) {}

BrivetPath::~BrivetPath() {
  std::shared_ptr<BrivetPath> next = std::move(next_);
  while (next != nullptr && next.use_count() == 1) {
    std::shared_ptr<BrivetPath> after = std::move(next->next_);
    next.reset();
    next = std::move(after);
  }
}

std::shared_ptr<BrivetPath> BrivetPath::withKeyPath(std::string_view keyPath) {
  auto shared = std::make_shared<Shared>();
  shared->text = std::string(keyPath);
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = keyPath.find('.', start);
    shared->starts.push_back(start);
    shared->fragments.emplace_back(keyPath.substr(start, dot == std::string_view::npos ? dot : dot - start));
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  return buildChain(std::move(shared));
}

std::shared_ptr<BrivetPath> BrivetPath::withPathFragments(std::vector<std::string> fragments) {
  auto shared = std::make_shared<Shared>();
  for (std::size_t i = 0; i < fragments.size(); ++i) {
    if (i > 0) shared->text += BRIVET_KEY_PATH_SEPARATOR;
    shared->starts.push_back(shared->text.size());
    shared->text += fragments[i];
  }
  shared->fragments = std::move(fragments);
  return buildChain(std::move(shared));
}

std::shared_ptr<BrivetPath> BrivetPath::buildChain(std::shared_ptr<const Shared> shared) {
  const std::size_t n = shared->fragments.size();
  std::shared_ptr<BrivetPath> head = std::make_shared<BrivetPath>(shared, n == 0 ? 0 : n - 1);
  head->resolveFirstRange();
  for (std::size_t i = n == 0 ? 0 : n - 1; i > 0; --i) {
    auto link = std::make_shared<BrivetPath>(shared, i - 1);
    head->previous_ = link;
    link->next_ = std::move(head);
    link->resolveFirstRange();
    head = std::move(link);
  }
  return head;
}

void BrivetPath::resolveFirstRange() {
  if (index_ >= shared_->fragments.size()) return;
  const std::string& fragment = shared_->fragments[index_];
  if (!internal::containsRangeMarker(fragment)) {
    first_.emplace().addKey(fragment);
    return;
  }
  const auto match = internal::matchRangeFragment(fragment, /*anchored=*/false);
  if (!match) return;
  first_.emplace().addRange(internal::parseInt32Saturating(match->from), internal::parseInt32Saturating(match->to));
}

std::string_view BrivetPath::keyPath() const {
  if (index_ >= shared_->starts.size()) return {};
  return std::string_view(shared_->text).substr(shared_->starts[index_]);
}

std::span<const std::string> BrivetPath::pathFragments() const {
  return std::span<const std::string>(shared_->fragments).subspan(std::min(index_, shared_->fragments.size()));
}

std::size_t BrivetPath::pathCount() const { return pathFragments().size(); }

std::string BrivetPath::description() const {
  return formatString("%@ : keyPath = %@", CustomObject::description(), keyPath());
}

// --- BrivetPathSet ---

BrivetPathSet::BrivetPathSet(Object pathSets, std::size_t index) : all_(std::move(pathSets)), index_(index) {}

BrivetPathSet::~BrivetPathSet() {
  std::shared_ptr<BrivetPathSet> next = std::move(next_);
  while (next != nullptr && next.use_count() == 1) {
    std::shared_ptr<BrivetPathSet> after = std::move(next->next_);
    next.reset();
    next = std::move(after);
  }
}

std::shared_ptr<BrivetPathSet> BrivetPathSet::withPathSets(const Object& pathSets) {
  if (!pathSets.isArray()) return nullptr;
  const Object all = pathSets.copy();  // later changes to a mutable input do not reach the chain
  const std::size_t n = all.count();
  auto head = std::make_shared<BrivetPathSet>(all, n == 0 ? 0 : n - 1);
  head->resolveFirstKeySet();
  for (std::size_t i = n == 0 ? 0 : n - 1; i > 0; --i) {
    auto link = std::make_shared<BrivetPathSet>(all, i - 1);
    link->next_ = std::move(head);
    link->resolveFirstKeySet();
    head = std::move(link);
  }
  return head;
}

std::span<const Object> BrivetPathSet::pathSets() const {
  const std::span<const Object> all = all_.asArray()->elements();
  return all.subspan(std::min(index_, all.size()));
}

std::size_t BrivetPathSet::pathCount() const { return pathSets().size(); }

void BrivetPathSet::resolveFirstKeySet() {
  const std::span<const Object> positions = pathSets();
  if (positions.empty()) return;
  const Object& position = positions.front();
  const std::span<const Object> elements =
      position.isArray() ? position.asArray()->elements() : std::span<const Object>(&position, 1);
  BrivetKeySet keys;
  for (const Object& element : elements) {
    if (const Dictionary* range = element.asDictionary()) {
      const std::int64_t from = integerValue(range->objectForKey(BRIVET_PQL_PATH_RANGE_FROM_KEY));
      const Object to = range->objectForKey(BRIVET_PQL_PATH_RANGE_TO_KEY);
      const Object length = range->objectForKey(BRIVET_PQL_PATH_RANGE_LENGTH_KEY);
      if (!to.isNil()) {
        keys.addRange(from, integerValue(to));
      } else if (!length.isNil()) {
        keys.addRange(from, saturatingEnd(from, integerValue(length)));
      } else {
        break;  // an incomplete range ends the position
      }
    } else if (element.isString()) {
      keys.addKey(std::string(element.stringValue()));
    } else if (element.isNumber()) {
      keys.addKey(element.description());
    }
  }
  if (!keys.empty()) first_ = std::move(keys);
}

std::string BrivetPathSet::description() const {
  const std::span<const Object> rest = pathSets();
  return formatString("%@ : pathSets = %@", CustomObject::description(),
                      Object::array(std::vector<Object>(rest.begin(), rest.end())));
}

// --- Free functions ---

std::string convertKeyPathToPQL(std::string_view keyPath) {
  std::vector<Object> elements;
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = keyPath.find('.', start);
    const std::string_view fragment =
        keyPath.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
    const auto match = internal::matchRangeFragment(fragment, /*anchored=*/true);
    const std::optional<Object> from = match ? decimalNumber(match->from) : std::nullopt;
    const std::optional<Object> to = match ? decimalNumber(match->to) : std::nullopt;
    if (from && to) {
      elements.push_back(Object::dictionary(
          {{Object(BRIVET_PQL_PATH_RANGE_FROM_KEY), *from}, {Object(BRIVET_PQL_PATH_RANGE_TO_KEY), *to}}));
    } else {  // not a range, or bounds beyond any number: the fragment stays text
      elements.emplace_back(fragment);
    }
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  Result<std::string> text = writeJSON(Object::array(std::move(elements)));
  return text.ok() ? std::move(text).value() : std::string();
}

Object arrayByReplacingNullsWithBlanks(const Object& array) { return replaceNullsInArray(array, 0); }

Object dictionaryByReplacingNullsWithBlanks(const Object& dictionary) {
  return replaceNullsInDictionary(dictionary, 0);
}

}  // namespace brivet
