#include "brivet/platform/json.h"

#include <algorithm>
#include <span>
#include <vector>

#include "brivet/platform/format.h"
#include "brivet/platform/internal/json_scalars.h"
#include "brivet/platform/internal/rapidjson.h"
#include "brivet/platform/internal/utf8.h"

namespace brivet {
namespace {

using internal::isValidUTF8;

Error jsonError(JSONErrorCode code, std::string message) {
  return Error::withDescription(std::string(kJSONErrorDomain), static_cast<std::int64_t>(code), std::move(message));
}

// Keys repeat in every object of a document ("title", "$type"...), and so do
// short values ("atom", "ref", path steps): within one parse, short strings
// are shared instead of allocated again. The table is bounded; once full it
// only answers lookups. Equal interned strings are one object, so two
// interned keys are the same key exactly when they are identical.
class StringTable {
 public:
  // Answers the shared string, and whether it is interned.
  std::pair<Object, bool> intern(const char* s, std::size_t length) {
    if (length > kMaxLength) return {Object::string({s, length}), false};
    const std::string_view text(s, length);
    const std::size_t hash = String::hashText(text);
    if (slots_.empty()) slots_.resize(kInitialSlots);
    for (;;) {
      const std::size_t mask = slots_.size() - 1;
      for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
        Slot& slot = slots_[i];
        if (slot.string.isNil()) {
          if (used_ * 2 >= slots_.size()) break;  // grow, or stop adding when at the bound
          slot = Slot{hash, Object::string(text)};
          ++used_;
          return {slot.string, true};
        }
        if (slot.hash == hash && slot.string.stringValue() == text) return {slot.string, true};
      }
      if (slots_.size() >= kMaxSlots) return {Object::string(text), false};
      grow();
    }
  }

 private:
  struct Slot {
    std::size_t hash = 0;
    Object string;
  };
  static constexpr std::size_t kInitialSlots = 64;
  static constexpr std::size_t kMaxSlots = 8192;
  static constexpr std::size_t kMaxLength = 24;

  void grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (Slot& slot : old) {
      if (slot.string.isNil()) continue;
      std::size_t i = slot.hash & mask;
      while (!slots_[i].string.isNil()) i = (i + 1) & mask;
      slots_[i] = std::move(slot);
    }
  }

  std::vector<Slot> slots_;
  std::size_t used_ = 0;
};

// SAX handler that builds objects on one value stack: scalars are pushed,
// a container's end pops its members into a new array or dictionary.
class ObjectBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ObjectBuilder> {
 public:
  ObjectBuilder(bool mutableContainers, const char* textEnd, bool checkSurrogates)
      : textEnd_(textEnd), checkSurrogates_(checkSurrogates), mutable_(mutableContainers) {
    values_.reserve(64);
  }

  bool Null() { return push(Object::null()); }
  bool Bool(bool b) { return push(Object::boolean(b)); }
  bool Int(int i) { return push(Object::integer(i)); }
  bool Uint(unsigned u) { return push(Object::integer(u)); }
  bool Int64(std::int64_t i) { return push(Object::integer(i)); }
  bool Uint64(std::uint64_t u) {
    return push(u <= static_cast<std::uint64_t>(INT64_MAX) ? Object::integer(static_cast<std::int64_t>(u))
                                                          : Object::unsignedInteger(u));
  }
  bool Double(double d) { return push(Object::real(d)); }
  bool String(const char* s, rapidjson::SizeType length, bool) {
    if (checkSurrogates_ && internal::hasEncodedSurrogate({s, length})) return refuseSurrogate();
    return push(length <= kShortValue ? strings_.intern(s, length).first : Object::string({s, length}));
  }
  bool Key(const char* s, rapidjson::SizeType length, bool) {
    if (checkSurrogates_ && internal::hasEncodedSurrogate({s, length})) return refuseSurrogate();
    auto [key, interned] = strings_.intern(s, length);
    if (!interned) ++unsharedKeys_;
    return push(std::move(key));
  }

  bool StartObject() {
    unsharedKeyMarks_.push_back(unsharedKeys_);
    return enter();
  }
  bool StartArray() { return enter(); }

  bool EndObject(rapidjson::SizeType memberCount) {
    --depth_;
    const std::size_t first = values_.size() - 2 * static_cast<std::size_t>(memberCount);
    const std::span<Object> members(values_.data() + first, 2 * static_cast<std::size_t>(memberCount));
    // When every key of this object is interned, identity decides duplicates.
    bool distinct = unsharedKeys_ == unsharedKeyMarks_.back() && memberCount <= 16;
    unsharedKeyMarks_.pop_back();
    for (std::size_t i = 2; distinct && i < members.size(); i += 2) {
      for (std::size_t j = 0; j < i; j += 2) {
        if (members[i].isIdentical(members[j])) {
          distinct = false;
          break;
        }
      }
    }
    Object dictionary = detail::makeDictionary(members, mutable_, distinct);
    values_.resize(first);
    return push(std::move(dictionary));
  }

  bool EndArray(rapidjson::SizeType elementCount) {
    --depth_;
    const std::size_t first = values_.size() - elementCount;
    Object array = detail::makeArray(std::span<Object>(values_.data() + first, elementCount), mutable_);
    values_.resize(first);
    return push(std::move(array));
  }

  bool tooDeep() const { return tooDeep_; }
  // A string decoded to an unpaired surrogate, which is not text.
  bool unpairedSurrogate() const { return unpairedSurrogate_; }
  const char* textEnd() const { return textEnd_; }
  Object result() { return values_.empty() ? Object() : std::move(values_.back()); }

 private:
  bool push(Object o) {
    values_.push_back(std::move(o));
    return true;
  }
  bool enter() {
    if (++depth_ > kMaxJSONNestingDepth) {
      tooDeep_ = true;
      return false;
    }
    return true;
  }

  bool refuseSurrogate() {
    unpairedSurrogate_ = true;
    return false;
  }

  static constexpr std::size_t kShortValue = 12;
  const char* const textEnd_;
  const bool checkSurrogates_;  // the text has surrogate escapes: decoded strings are checked
  std::vector<Object> values_;
  StringTable strings_;
  std::size_t unsharedKeys_ = 0;
  std::vector<std::size_t> unsharedKeyMarks_;
  std::size_t depth_ = 0;
  bool tooDeep_ = false;
  bool unpairedSurrogate_ = false;
  const bool mutable_;
};

// One reader for every text. Text with a byte JSON does not allow (found
// beforehand, see parseJSON) is read with it too: up to that byte the text is
// clean, so the reader fails there exactly as a validating reader would, and
// whatever it does past that byte is never reported (the fault is).
constexpr unsigned kParseFlags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag;

// Why an object cannot be written, or nullptr when it can.
const char* invalidReason(const Object& o, std::size_t depth) {
  if (o.isNil()) return "nil value";
  switch (o.kind()) {
    case ObjectKind::Null: return nullptr;
    case ObjectKind::String: return isValidUTF8(o.stringValue()) ? nullptr : "a string that is not UTF-8";
    case ObjectKind::Number: {
      const Number* n = o.asNumber();
      if (n->type() != Number::Type::Double) return nullptr;
      const double d = n->doubleValue();
      return d - d == 0 ? nullptr : "a number that is not finite";
    }
    case ObjectKind::Array:
      if (depth >= kMaxJSONNestingDepth) return "nesting deeper than the JSON limit";
      for (const Object& e : *o.asArray()) {
        if (const char* why = invalidReason(e, depth + 1)) return why;
      }
      return nullptr;
    case ObjectKind::Dictionary:
      if (depth >= kMaxJSONNestingDepth) return "nesting deeper than the JSON limit";
      for (const auto& [k, v] : *o.asDictionary()) {
        if (!k.isString()) return "a dictionary key that is not a string";
        if (!isValidUTF8(k.stringValue())) return "a string that is not UTF-8";
        if (const char* why = invalidReason(v, depth + 1)) return why;
      }
      return nullptr;
    case ObjectKind::Date: return "a date";
    case ObjectKind::Data: return "a data object";
    case ObjectKind::Custom: return "a library object";
  }
  return "an unknown object";
}

const char* invalidTopLevel(const Object& o, JSONWritingOptions options) {
  if (!(options & JSONWritingOptions::FragmentsAllowed) && !o.isArray() && !o.isDictionary()) {
    return "the top level is not an array or a dictionary";
  }
  return invalidReason(o, 0);
}

// A dictionary's entries in key order. Kept out of the writer template, so that the compact and the pretty
// writer share one sort.
std::vector<const Object::Entry*> sortedEntries(const Dictionary& d) {
  std::vector<const Object::Entry*> entries;
  entries.reserve(d.size());
  for (const auto& entry : d) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(),
            [](const auto* a, const auto* b) { return a->first.stringValue() < b->first.stringValue(); });
  return entries;
}

template <class Writer>
bool writeValue(Writer& w, const Object& o, bool sortKeys) {
  switch (o.kind()) {
    case ObjectKind::Null: return w.Null();
    case ObjectKind::Number: {
      const Number* n = o.asNumber();
      switch (n->type()) {
        case Number::Type::Boolean: return w.Bool(n->boolValue());
        case Number::Type::Signed: return w.Int64(n->int64Value());
        case Number::Type::Unsigned: return w.Uint64(n->uint64Value());
        case Number::Type::Double: return w.Double(n->doubleValue());
      }
      return false;
    }
    case ObjectKind::String: {
      const std::string_view s = o.stringValue();
      return w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
    }
    case ObjectKind::Array: {
      if (!w.StartArray()) return false;
      for (const Object& e : *o.asArray()) {
        if (!writeValue(w, e, sortKeys)) return false;
      }
      return w.EndArray();
    }
    case ObjectKind::Dictionary: {
      if (!w.StartObject()) return false;
      const Dictionary& d = *o.asDictionary();
      if (sortKeys) {
        for (const auto* entry : sortedEntries(d)) {
          const std::string_view k = entry->first.stringValue();
          if (!w.Key(k.data(), static_cast<rapidjson::SizeType>(k.size())) ||
              !writeValue(w, entry->second, sortKeys)) {
            return false;
          }
        }
      } else {
        for (const auto& [key, value] : d) {
          const std::string_view k = key.stringValue();
          if (!w.Key(k.data(), static_cast<rapidjson::SizeType>(k.size())) || !writeValue(w, value, sortKeys)) {
            return false;
          }
        }
      }
      return w.EndObject();
    }
    default: return false;
  }
}

}  // namespace
}  // namespace brivet

BRIVET_RAPIDJSON_READ_NUMBERS(brivet::kParseFlags, brivet::ObjectBuilder)

namespace brivet {
namespace {

Error invalidText(std::size_t offset, const char* what) {
  return jsonError(JSONErrorCode::InvalidText, formatString("JSON text is not valid at byte offset %zu: %s", offset, what));
}

// Parses in place on a private, NUL-terminated copy: strings are decoded into
// the buffer and copied out once. The reader's vector scans load whole aligned
// 16-byte blocks, so the buffer carries padding past the text for them.
// `fault` is the first byte that JSON text may not hold, when there is one:
// the text is refused, at that byte or at an earlier fault the reader finds.
Result<Object> parseText(std::string_view text, JSONReadingOptions options, const internal::JSONTextFault& fault) {
  constexpr std::size_t kScanPadding = 32;
  std::string buffer;
  buffer.reserve(text.size() + kScanPadding);
  buffer.assign(text.data(), text.size());
  rapidjson::InsituStringStream stream(buffer.data());
  rapidjson::Reader reader;
  ObjectBuilder builder(options & JSONReadingOptions::MutableContainers, buffer.data() + buffer.size(),
                        internal::mayHoldSurrogateEscape(text));
  const rapidjson::ParseResult parsed = reader.Parse<kParseFlags>(stream, builder);
  if (fault && (!parsed.IsError() || parsed.Offset() >= fault.offset)) {
    return invalidText(fault.offset, internal::describeJSONTextFault(fault.kind));
  }
  if (builder.tooDeep()) {
    return jsonError(JSONErrorCode::NestingTooDeep,
                     formatString("JSON text nests deeper than %zu levels at byte offset %zu.", kMaxJSONNestingDepth,
                                  parsed.Offset()));
  }
  if (builder.unpairedSurrogate()) {
    return invalidText(internal::findUnpairedSurrogateEscape(text, parsed.Offset()), internal::kUnpairedSurrogateText);
  }
  if (parsed.IsError()) {
    // A tab or line break inside a string reaches the reader as a bad escape.
    const std::size_t at = parsed.Offset();
    if (at < text.size() && static_cast<unsigned char>(text[at]) < 0x20) {
      return invalidText(at, internal::describeJSONTextFault(internal::JSONTextFaultKind::ControlCharacter));
    }
    return invalidText(at, rapidjson::GetParseError_En(parsed.Code()));
  }
  // The reader stops at a NUL byte; anything after it is trailing data.
  const std::size_t consumed = stream.Tell();
  if (consumed != text.size()) return invalidText(consumed, "unexpected NUL byte.");
  Object result = builder.result();
  if (!(options & JSONReadingOptions::FragmentsAllowed) && !result.isArray() && !result.isDictionary()) {
    return jsonError(JSONErrorCode::FragmentNotAllowed,
                     "JSON text did not start with an array or an object and fragments are not allowed.");
  }
  return result;
}

}  // namespace

Result<Object> parseJSON(std::string_view text, JSONReadingOptions options) {
  // The whole text is checked for UTF-8 and stray control characters at once,
  // which is far cheaper than the reader's per-character checks (and its
  // vector string scan lets the characters 0x1A to 0x1F through).
  const internal::JSONTextFault fault = internal::findJSONTextFault(text);
  return parseText(text, options, fault);
}

bool isValidJSONObject(const Object& object, JSONWritingOptions options) {
  return invalidTopLevel(object, options) == nullptr;
}

Result<std::string> writeJSON(const Object& object, JSONWritingOptions options) {
  if (const char* why = invalidTopLevel(object, options)) {
    return jsonError(JSONErrorCode::InvalidObject, std::string("Invalid object for JSON writing: ") + why + ".");
  }
  internal::JSONTextBuffer out;
  const bool sortKeys = options & JSONWritingOptions::SortedKeys;
  bool written;
  if (options & JSONWritingOptions::PrettyPrinted) {
    internal::JSONTextPrettyWriter writer(out);
    writer.SetIndent(' ', 2);
    written = writeValue(writer, object, sortKeys);
  } else {
    internal::JSONTextWriter writer(out);
    written = writeValue(writer, object, sortKeys);
  }
  if (!written) return jsonError(JSONErrorCode::InvalidObject, "Invalid object for JSON writing.");
  return std::string(out.GetString(), out.GetSize());
}

}  // namespace brivet
