#include "brivet/platform/key_path.h"

#include <atomic>
#include <charconv>

namespace brivet {
namespace {

using detail::KeyPathProblem;

std::string quoted(std::string_view text) {
  std::string out = "\"";
  out.append(text);
  out += '"';
  return out;
}

std::string_view ruleOf(KeyPathProblem problem) {
  switch (problem) {
    case KeyPathProblem::None: return "";
    case KeyPathProblem::Empty: return "a key path needs at least one key";
    case KeyPathProblem::EmptyComponent: return "is empty (a doubled, leading or trailing \".\")";
    case KeyPathProblem::TooManyComponents: return "is one too many: a key path has at most 512 components";
    case KeyPathProblem::MalformedRange:
      return "mentions \"@range\" but is not exactly \"@range(from,to)\" (decimal bounds, no blanks, nothing after "
             "\")\")";
    case KeyPathProblem::RangeNotLowerCase: return "is a range only when \"@range\" is written in lower case";
    case KeyPathProblem::ReversedRange: return "is a range that ends before it starts";
    case KeyPathProblem::RangeTooLarge: return "is a range with a bound beyond 2147483647";
    case KeyPathProblem::NotUTF8: return "is not UTF-8 text";
  }
  return "";
}

Error invalid(std::string message) { return accessError(AccessErrorCode::InvalidKeyPath, std::move(message)); }

// The component at `index`, for messages (text that is not UTF-8 is shown as its length only).
std::string componentText(std::string_view text, std::size_t index) {
  std::string_view found;
  std::size_t i = 0;
  detail::forEachKeyPathComponent(text, [&](std::string_view c) {
    if (i++ == index) found = c;
  });
  return quoted(found);
}

std::string describeRefusal(std::string_view text, const detail::KeyPathCheck& check) {
  switch (check.problem) {
    case KeyPathProblem::None: return "";
    case KeyPathProblem::Empty: return "invalid key path \"\": " + std::string(ruleOf(check.problem));
    case KeyPathProblem::NotUTF8:
      return "invalid key path of " + std::to_string(text.size()) + " bytes: it is not UTF-8 text";
    default: break;
  }
  return "invalid key path " + quoted(text) + ": component " + std::to_string(check.component + 1) + " (" +
         componentText(text, check.component) + ") " + std::string(ruleOf(check.problem));
}

}  // namespace

Error accessError(AccessErrorCode code, std::string message) {
  return Error::withDescription(std::string(kAccessErrorDomain), static_cast<std::int64_t>(code), std::move(message));
}

struct KeyPath::Shared {
  std::string text;
  mutable std::atomic<std::size_t> references{1};
};

KeyPath::KeyPath(std::string text) : owned_(new Shared{std::move(text)}) {}

void KeyPath::retain(const Shared* shared) noexcept { shared->references.fetch_add(1, std::memory_order_relaxed); }

void KeyPath::release(const Shared* shared) noexcept {
  if (shared->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete shared;
}

std::string_view KeyPath::text() const { return owned_ != nullptr ? std::string_view(owned_->text) : literal_; }

Result<KeyPath, Error> KeyPath::parse(std::string_view text) {
  const detail::KeyPathCheck check = detail::checkKeyPath(text);
  if (check.problem != KeyPathProblem::None) return invalid(describeRefusal(text, check));
  return KeyPath(std::string(text));
}

std::vector<std::string_view> KeyPath::components() const {
  std::vector<std::string_view> out;
  detail::forEachKeyPathComponent(text(), [&](std::string_view c) { out.push_back(c); });
  return out;
}

bool KeyPath::hasRange() const {
  bool found = false;
  detail::forEachKeyPathComponent(text(), [&](std::string_view c) { found = found || detail::matchKeyPathRange(c).matched; });
  return found;
}

// --- KeyPathBuilder ---

void KeyPathBuilder::append(std::string_view component) {
  if (!error_.empty()) return;
  if (count_ == detail::kMaxKeyPathComponents) {
    error_ = "invalid key path: more than 512 components";
    return;
  }
  if (count_ > 0) text_ += '.';
  text_.append(component);
  ++count_;
}

KeyPathBuilder& KeyPathBuilder::add(std::string_view key) {
  if (!error_.empty()) return *this;
  if (key.empty()) {
    error_ = "invalid key at position " + std::to_string(count_ + 1) + ": a key cannot be empty";
  } else if (!detail::isValidKeyPathUTF8(key)) {
    error_ = "invalid key of " + std::to_string(key.size()) + " bytes at position " + std::to_string(count_ + 1) +
             ": it is not UTF-8 text";
  } else if (key.find('.') != std::string_view::npos) {
    error_ = "invalid key " + quoted(key) + " at position " + std::to_string(count_ + 1) +
             ": a key cannot hold \".\" (it would read as two keys)";
  } else if (detail::mentionsKeyPathRange(key)) {
    error_ = "invalid key " + quoted(key) + " at position " + std::to_string(count_ + 1) +
             ": a text key cannot mention \"@range\" (it would read as a range); use range(from, to)";
  } else {
    append(key);
  }
  return *this;
}

KeyPathBuilder& KeyPathBuilder::add(std::int64_t key) {
  char buffer[24];
  const auto r = std::to_chars(buffer, buffer + sizeof buffer, key);
  append(std::string_view(buffer, static_cast<std::size_t>(r.ptr - buffer)));
  return *this;
}

KeyPathBuilder& KeyPathBuilder::add(std::uint64_t key) {
  char buffer[24];
  const auto r = std::to_chars(buffer, buffer + sizeof buffer, key);
  append(std::string_view(buffer, static_cast<std::size_t>(r.ptr - buffer)));
  return *this;
}

KeyPathBuilder& KeyPathBuilder::add(KeyRange key) {
  if (!error_.empty()) return *this;
  const std::string text = "@range(" + std::to_string(key.from) + "," + std::to_string(key.to) + ")";
  if (key.from < 0) {
    error_ = "invalid range " + text + " at position " + std::to_string(count_ + 1) + ": bounds cannot be negative";
  } else if (key.from > key.to) {
    error_ = "invalid range " + text + " at position " + std::to_string(count_ + 1) + ": it ends before it starts";
  } else if (key.to > detail::kMaxKeyPathRangeBound) {
    error_ = "invalid range " + text + " at position " + std::to_string(count_ + 1) +
             ": a bound is beyond 2147483647";
  } else {
    append(text);
  }
  return *this;
}

KeyPathBuilder& KeyPathBuilder::add(const KeyPath& keys) {
  detail::forEachKeyPathComponent(keys.text(), [&](std::string_view c) { append(c); });
  return *this;
}

Result<KeyPath, Error> KeyPathBuilder::build() const {
  if (!error_.empty()) return invalid(error_);
  if (count_ == 0) return invalid("invalid key path \"\": " + std::string(ruleOf(KeyPathProblem::Empty)));
  return KeyPath(text_);
}

}  // namespace brivet
