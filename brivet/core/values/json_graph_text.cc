// JSON text straight to graph nodes and back, without platform objects.
//
// The reader is a SAX handler that builds nodes as values close. It decides
// what a dictionary is (a branch or a wrapped leaf) when the dictionary ends,
// so a child under "value" has to be built knowing whether its parent is a
// leaf: when "$type" comes first (as every writer of JSON Graph puts it) the
// reader knows in time. In the rare text where it does not (a "value"
// container before "$type", a repeated "$type" that changes its kind), and on
// any error, the text takes the general road, parseJSON and fromAny, so the
// result and the errors are exactly theirs.
#include <algorithm>

#include "brivet/core/values/internal/unreadable.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/core/values/json_graph.h"
#include "brivet/platform/internal/json_scalars.h"
#include "brivet/platform/internal/rapidjson.h"
#include "brivet/platform/internal/utf8.h"

namespace brivet {

using internal::Entry;
using internal::KeyProbe;
using internal::Slot;
using internal::SlotRef;
using internal::isValidUTF8;

namespace {

const KeyProbe& typeKey() {
  static const KeyProbe probe("$type");
  return probe;
}
const KeyProbe& valueKey() {
  static const KeyProbe probe("value");
  return probe;
}

class GraphReader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, GraphReader> {
 public:
  GraphReader(const Object& defaultExpires, Date parseTime, const char* textEnd, bool checkSurrogates)
      : defaultExpires_(defaultExpires),
        parseTime_(parseTime),
        textEnd_(textEnd),
        checkSurrogates_(checkSurrogates),
        scratchMark_(internal::scratchMark()) {
    frames_.reserve(32);
    entries_.reserve(256);
  }
  GraphReader(const GraphReader&) = delete;
  GraphReader& operator=(const GraphReader&) = delete;
  ~GraphReader() {
    for (Entry& e : entries_) {
      internal::release(e.key);
      internal::release(e.value);
    }
    for (Frame& f : frames_) internal::release(f.keyInParent);
    internal::release(pendingKey_);
    internal::release(result_);
    internal::scratchReset(scratchMark_);
  }

  bool Null() { return push(internal::kNull); }
  bool Bool(bool b) { return push(b ? internal::kTrue : internal::kFalse); }
  bool Int(int i) { return push(internal::makeSignedNumber(i)); }
  bool Uint(unsigned u) { return push(internal::makeSignedNumber(u)); }
  bool Int64(std::int64_t i) { return push(internal::makeSignedNumber(i)); }
  bool Uint64(std::uint64_t u) {
    return push(u <= static_cast<std::uint64_t>(INT64_MAX) ? internal::makeSignedNumber(static_cast<std::int64_t>(u))
                                                           : internal::makeUnsignedNumber(u));
  }
  bool Double(double d) { return push(internal::makeDoubleNumber(d)); }
  bool String(const char* s, rapidjson::SizeType length, bool) {
    const std::string_view text(s, length);
    if (checkSurrogates_ && internal::hasEncodedSurrogate(text)) return takeGeneralRoad();
    // Inside a container, a short text waits in the scratch area until its
    // object is built (arrays copy it out); the scratch is dropped as the
    // container closes.
    if (frames_.empty() || text.size() <= 7 || text.size() > internal::kMaxEmbeddedString) {
      return push(internal::makeString(text));
    }
    return push(internal::scratchText(text));
  }
  bool Key(const char* s, rapidjson::SizeType length, bool) {
    const std::string_view key(s, length);
    if (checkSurrogates_ && internal::hasEncodedSurrogate(key)) return takeGeneralRoad();
    internal::release(pendingKey_);
    pendingKey_ = internal::makeString(key);
    Frame& f = frames_.back();
    f.expectType = !f.valueMode && pendingKey_ == typeKey().inlineSlot;
    f.keyIsValue = pendingKey_ == valueKey().inlineSlot;
    return true;
  }
  bool StartObject() { return enter(true); }
  bool StartArray() { return enter(false); }

  bool EndObject(rapidjson::SizeType) {
    Frame f = frames_.back();
    frames_.pop_back();
    Slot built;
    if (f.valueMode) {
      built = buildObject(f.start);
    } else {
      built = buildGraphObject(f);
    }
    internal::scratchReset(f.scratchMark);
    pendingKey_ = f.keyInParent;
    return push(built);
  }

  bool EndArray(rapidjson::SizeType) {
    Frame f = frames_.back();
    frames_.pop_back();
    std::vector<Slot> items;
    items.reserve(entries_.size() - f.start);
    for (std::size_t i = f.start; i < entries_.size(); ++i) items.push_back(entries_[i].value);
    entries_.resize(f.start);
    const Slot built = internal::buildArray(std::move(items));
    internal::scratchReset(f.scratchMark);
    pendingKey_ = f.keyInParent;
    return push(built);
  }

  bool failed() const { return tooDeep_ || needsGeneralRoad_; }
  const char* textEnd() const { return textEnd_; }
  bool topIsContainer() const { return topIsContainer_; }
  std::size_t unreadable() const { return unreadable_; }
  Slot takeResult() { return std::exchange(result_, internal::kEmpty); }

 private:
  struct Frame {
    bool isObject;
    bool valueMode;               // plain JSON below an atom's or error's "value": no "$type" reading
    std::size_t start;            // first entry of this container
    Slot keyInParent;             // owned: the key this container sits under
    bool expectType = false;      // the pending key is "$type"
    bool keyIsValue = false;      // the pending key is "value"
    bool typeIsText = false;      // the last "$type" so far was text
    std::int8_t valueChild = 0;   // how the last container under "value" was built: 1 plain, 2 graph
    std::size_t scratchMark = 0;  // the scratch area as the container opened
  };

  // An unpaired surrogate escape: the general road refuses the text with its error.
  bool takeGeneralRoad() {
    needsGeneralRoad_ = true;
    return false;
  }

  bool enter(bool isObject) {
    if (frames_.size() >= kMaxJSONNestingDepth) {
      tooDeep_ = true;
      return false;
    }
    bool valueMode = false;
    if (frames_.empty()) {
      topIsContainer_ = true;
    } else {
      Frame& parent = frames_.back();
      if (parent.valueMode) {
        valueMode = true;
      } else if (parent.isObject) {
        if (parent.expectType) {
          parent.typeIsText = false;
          parent.expectType = false;
        } else if (parent.keyIsValue) {
          valueMode = parent.typeIsText;
          parent.valueChild = valueMode ? 1 : 2;
        }
      }
    }
    frames_.push_back(Frame{isObject, valueMode, entries_.size(), std::exchange(pendingKey_, internal::kEmpty)});
    frames_.back().scratchMark = internal::scratchMark();
    return true;
  }

  bool push(Slot value) {
    if (frames_.empty()) {
      result_ = value;
      return true;
    }
    Frame& f = frames_.back();
    if (f.isObject) {
      if (f.expectType) {
        f.typeIsText = internal::isStringSlot(value);
        f.expectType = false;
      }
      entries_.push_back({std::exchange(pendingKey_, internal::kEmpty), value});
    } else {
      entries_.push_back({internal::kEmpty, value});
    }
    return true;
  }

  Slot buildObject(std::size_t start) {
    internal::ObjectBuilder builder;
    builder.reserve(entries_.size() - start);
    for (std::size_t i = start; i < entries_.size(); ++i) builder.add(entries_[i].key, entries_[i].value);
    entries_.resize(start);
    return builder.build();
  }

  // The last entry under `key` (borrowed), or kEmpty.
  Slot lastEntry(std::size_t start, const KeyProbe& key) const {
    for (std::size_t i = entries_.size(); i > start; --i) {
      if (key.matches(entries_[i - 1].key)) return entries_[i - 1].value;
    }
    return internal::kEmpty;
  }
  static bool isNumberLike(Slot s) {
    return s != internal::kEmpty && (internal::isNumberSlot(s) || internal::isBooleanSlot(s));
  }

  internal::Metadata metadata(std::size_t start, bool withDefault) const {
    static const KeyProbe timestampKey("$timestamp");
    static const KeyProbe sizeKey("$size");
    static const KeyProbe expiresKey("$expires");
    static const KeyProbe refreshKey("$refresh");
    internal::Metadata m;
    using internal::kMetaExpires;
    using internal::kMetaRefresh;
    using internal::kMetaSize;
    using internal::kMetaTimestamp;
    const Slot timestamp = lastEntry(start, timestampKey);
    if (isNumberLike(timestamp)) {
      m.present |= 1u << kMetaTimestamp;
      m.timestamp = internal::numberOf(timestamp).doubleValue();
    }
    const Slot size = lastEntry(start, sizeKey);
    if (isNumberLike(size)) {
      m.present |= 1u << kMetaSize;
      m.size = size;  // borrowed: makeLeaf retains it
    }
    const Slot expires = lastEntry(start, expiresKey);
    double v = 0;
    bool hasExpires = false;
    if (isNumberLike(expires)) {
      v = internal::numberOf(expires).doubleValue();
      hasExpires = true;
    } else if (withDefault && defaultExpires_.isNumber()) {
      v = defaultExpires_.asNumber()->doubleValue();
      hasExpires = true;
    }
    if (hasExpires) {
      m.present |= 1u << kMetaExpires;
      internal::readWireDate(v, parseTime_, &m.expiresKind, &m.expires);
    }
    const Slot refresh = lastEntry(start, refreshKey);
    if (isNumberLike(refresh)) {
      m.present |= 1u << kMetaRefresh;
      internal::readWireDate(internal::numberOf(refresh).doubleValue(), parseTime_, &m.refreshKind, &m.refresh);
    }
    return m;
  }

  Slot buildGraphObject(const Frame& f) {
    const Slot type = lastEntry(f.start, typeKey());
    if (type == internal::kEmpty || !internal::isStringSlot(type)) {
      if (f.valueChild == 1) needsGeneralRoad_ = true;
      return buildObject(f.start);
    }
    const Slot value = lastEntry(f.start, valueKey());
    Slot built = internal::kNull;
    if (value == internal::kEmpty) {
      built = internal::kUndefined;
      if (internal::stringOf(type) != "atom") ++unreadable_;  // an error or a reference without its value
    } else if (f.valueChild == 2) {
      needsGeneralRoad_ = true;  // the value was read as a graph before the "$type" that makes it plain
    } else {
      const std::string_view t = internal::stringOf(type);
      if (t == "atom" || t == "error") {
        internal::retain(value);
        built = internal::makeLeaf(t == "atom" ? internal::LeafKind::Atom : internal::LeafKind::Error, value,
                                   metadata(f.start, t == "error"));
      } else if (t == "ref" && internal::isArraySlot(value)) {
        const internal::ArrayNode* a = internal::arrayOf(value);
        const bool allText =
            std::all_of(a->items, a->items + a->count, [](Slot s) { return internal::isStringSlot(s); });
        if (allText) {
          internal::retain(value);
          built = internal::makeLeaf(internal::LeafKind::Ref, value, metadata(f.start, false));
        }
      }
      if (built == internal::kNull) ++unreadable_;
    }
    for (std::size_t i = f.start; i < entries_.size(); ++i) {
      internal::release(entries_[i].key);
      internal::release(entries_[i].value);
    }
    entries_.resize(f.start);
    return built;
  }

  const Object defaultExpires_;
  const Date parseTime_;
  const char* const textEnd_;
  const bool checkSurrogates_;  // the text has surrogate escapes: decoded strings are checked
  std::vector<Frame> frames_;
  std::vector<Entry> entries_;  // owned
  Slot pendingKey_ = internal::kEmpty;
  Slot result_ = internal::kEmpty;
  bool tooDeep_ = false;
  bool needsGeneralRoad_ = false;
  bool topIsContainer_ = false;
  std::size_t unreadable_ = 0;  // "$type" dictionaries that read as null or lost their value
  const std::size_t scratchMark_;
};

constexpr unsigned kGraphParseFlags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag;

}  // namespace
}  // namespace brivet

BRIVET_RAPIDJSON_READ_NUMBERS(brivet::kGraphParseFlags, brivet::GraphReader)

namespace brivet {
namespace {

// --- Writing ---

// An object's entries in key order. Kept out of the writer template, so that the compact and the pretty writer
// share one sort.
std::vector<internal::Entry> sortedEntries(Slot s) {
  std::vector<internal::Entry> entries = internal::objectEntries(s);
  std::sort(entries.begin(), entries.end(), [](const internal::Entry& a, const internal::Entry& b) {
    return internal::stringOf(a.key) < internal::stringOf(b.key);
  });
  return entries;
}

template <class Writer>
class GraphWriter {
 public:
  GraphWriter(Writer& w, bool sortKeys) : w_(w), sortKeys_(sortKeys) {}

  bool graph(Slot s) {
    if (internal::isObjectSlot(s)) return object(s, true);
    internal::LeafView v;
    if (!internal::viewLeaf(s, &v)) {
      const internal::ArrayNode* a = internal::arrayOf(s);
      if (!w_.StartArray()) return false;
      for (std::uint32_t i = 0; i < a->count; ++i) {
        if (!graph(a->items[i])) return false;
      }
      return w_.EndArray();
    }
    switch (v.kind) {
      case JSONGraphLeaf::Kind::Primitive: return primitive(v.value);
      case JSONGraphLeaf::Kind::Undefined: return w_.StartObject() && key("$type") && text("atom") && w_.EndObject();
      default: break;
    }
    const char* type =
        v.kind == JSONGraphLeaf::Kind::Atom ? "atom" : (v.kind == JSONGraphLeaf::Kind::Error ? "error" : "ref");
    const internal::Metadata& m = v.metadata;
    auto has = [&](internal::MetaField f) { return (m.present & (1u << f)) != 0; };
    auto writeField = [&](int field) {
      switch (field) {
        case 0: return key("$type") && text(type);
        case 1: return key("value") && value(v.value);
        case 2: return !has(internal::kMetaTimestamp) || (key("$timestamp") && w_.Double(m.timestamp));
        case 3: return !has(internal::kMetaSize) || (key("$size") && primitive(m.size));
        case 4: return !has(internal::kMetaExpires) || (key("$expires") && w_.Double(wireOf(m.expiresKind, m.expires)));
        default:
          return !has(internal::kMetaRefresh) || (key("$refresh") && w_.Double(wireOf(m.refreshKind, m.refresh)));
      }
    };
    // The order a dictionary of these keys is written in: as built, or by byte value.
    static constexpr int kBuilt[] = {0, 1, 2, 3, 4, 5};
    static constexpr int kSorted[] = {4, 5, 3, 2, 0, 1};
    if (!w_.StartObject()) return false;
    for (int field : sortKeys_ ? kSorted : kBuilt) {
      if (!writeField(field)) return false;
    }
    return w_.EndObject();
  }

  bool value(Slot s) {
    s = internal::valueView(s);
    if (internal::isObjectSlot(s)) return object(s, false);
    if (internal::isArraySlot(s)) {
      const internal::ArrayNode* a = internal::arrayOf(s);
      if (!w_.StartArray()) return false;
      for (std::uint32_t i = 0; i < a->count; ++i) {
        if (!value(a->items[i])) return false;
      }
      return w_.EndArray();
    }
    return primitive(s);
  }

 private:
  static double wireOf(internal::MetaDateKind kind, double ms) {
    return kind == internal::MetaDateKind::Never ? 1.0 : (kind == internal::MetaDateKind::Now ? 0.0 : ms);
  }

  bool object(Slot s, bool asGraph) {
    if (!w_.StartObject()) return false;
    bool ok = true;
    if (sortKeys_) {
      for (const Entry& e : sortedEntries(s)) {
        if (!key(internal::stringOf(e.key)) || !(asGraph ? graph(e.value) : value(e.value))) return false;
      }
    } else {
      internal::forEachEntry(s, [&](const Slot& k, const Slot& v) {
        if (ok) ok = key(internal::stringOf(k)) && (asGraph ? graph(v) : value(v));
      });
    }
    return ok && w_.EndObject();
  }

  // Text is copied as it is; the caller checks the whole output for UTF-8 once.
  bool key(std::string_view k) { return w_.Key(k.data(), static_cast<rapidjson::SizeType>(k.size())); }
  bool text(std::string_view t) { return w_.String(t.data(), static_cast<rapidjson::SizeType>(t.size())); }

  bool primitive(const Slot& s) {
    if (internal::isStringSlot(s)) return text(internal::stringOf(s));
    if (internal::isBooleanSlot(s)) return w_.Bool(s == internal::kTrue);
    if (internal::isNumberSlot(s)) {
      const Number n = internal::numberOf(s);
      switch (n.type()) {
        case Number::Type::Signed: return w_.Int64(n.int64Value());
        case Number::Type::Unsigned: return w_.Uint64(n.uint64Value());
        case Number::Type::Double: {
          const double d = n.doubleValue();
          return d - d == 0 && w_.Double(d);
        }
        case Number::Type::Boolean: return w_.Bool(n.boolValue());
      }
    }
    return w_.Null();
  }

  Writer& w_;
  const bool sortKeys_;
};

}  // namespace

Result<JSONGraph> JSONGraph::fromJSONText(std::string_view text, const Object& defaultExpires,
                                          JSONReadingOptions options) {
  auto generalRoad = [&]() -> Result<JSONGraph> {
    Result<Object> parsed = parseJSON(text, options);
    if (!parsed.ok()) return Failure{parsed.error()};
    return fromAny(parsed.value(), defaultExpires);
  };
  // Text with a byte JSON does not allow (not UTF-8, a stray control
  // character) is refused by the general road, with its error.
  if (internal::findJSONTextFault(text)) return generalRoad();
  std::string buffer;
  buffer.reserve(text.size() + 16);  // the SIMD string scan reads whole 16-byte blocks
  buffer.assign(text.data(), text.size());
  rapidjson::InsituStringStream stream(buffer.data());
  rapidjson::Reader reader;
  GraphReader builder(defaultExpires, dateNow(), buffer.data() + buffer.size(),
                      internal::mayHoldSurrogateEscape(text));
  const rapidjson::ParseResult parsed = reader.Parse<kGraphParseFlags>(stream, builder);
  if (parsed.IsError() || builder.failed() || stream.Tell() != text.size()) return generalRoad();
  if (!(options & JSONReadingOptions::FragmentsAllowed) && !builder.topIsContainer()) return generalRoad();
  internal::noteUnreadable(builder.unreadable());
  return JSONGraph(ValueStorage(builder.takeResult()));
}

Result<std::string> JSONGraph::toJSONText(JSONWritingOptions options) const {
  const Slot s = slot_.get();
  internal::LeafView v;
  const bool topIsScalar = internal::viewLeaf(s, &v) && v.kind == JSONGraphLeaf::Kind::Primitive;
  if (!topIsScalar || (options & JSONWritingOptions::FragmentsAllowed)) {
    internal::JSONTextBuffer out;
    const bool sortKeys = options & JSONWritingOptions::SortedKeys;
    bool written;
    if (options & JSONWritingOptions::PrettyPrinted) {
      internal::JSONTextPrettyWriter writer(out);
      writer.SetIndent(' ', 2);
      GraphWriter<decltype(writer)> w(writer, sortKeys);
      written = w.graph(s);
    } else {
      internal::JSONTextWriter writer(out);
      GraphWriter<decltype(writer)> w(writer, sortKeys);
      written = w.graph(s);
    }
    // The writer escapes what JSON requires and copies every other byte, so
    // the text is UTF-8 exactly when every string and key was.
    if (written && isValidUTF8(std::string_view(out.GetString(), out.GetSize()))) {
      return std::string(out.GetString(), out.GetSize());
    }
  }
  // Something cannot be written (a fragment, a number that is not finite, text
  // that is not UTF-8): the general road gives the error, worded as always.
  return writeJSON(toAnyType(), options);
}

}  // namespace brivet
