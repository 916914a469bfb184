#include "brivet/platform/object.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "brivet/platform/precondition.h"

namespace brivet {
namespace {

class NullObject final : public ObjectBase {
 public:
  NullObject() : ObjectBase(ObjectKind::Null) {}
};

// The singletons live for the whole process (never destroyed, so they stay
// valid in blocks that still run while the process exits).
const std::shared_ptr<ObjectBase>& nullSingleton() {
  static const auto* instance = new std::shared_ptr<ObjectBase>(std::make_shared<NullObject>());
  return *instance;
}
const std::shared_ptr<ObjectBase>& booleanSingleton(bool value) {
  static const auto* yes = new std::shared_ptr<ObjectBase>(std::make_shared<Number>(true));
  static const auto* no = new std::shared_ptr<ObjectBase>(std::make_shared<Number>(false));
  return value ? *yes : *no;
}

template <class T>
const T& as(const std::shared_ptr<ObjectBase>& impl) {
  return static_cast<const T&>(*impl);
}
template <class T>
T& asMutable(const std::shared_ptr<ObjectBase>& impl) {
  return static_cast<T&>(*impl);
}

std::size_t mix(std::uint64_t x) {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  x ^= x >> 31;
  return static_cast<std::size_t>(x);
}

constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;

int threeWay(auto a, auto b) { return a < b ? -1 : (a > b ? 1 : 0); }

int compareSignedUnsigned(std::int64_t a, std::uint64_t b) {
  if (a < 0) return -1;
  return threeWay(static_cast<std::uint64_t>(a), b);
}

// Exact comparison of an integer with a double, without rounding the integer.
int compareSignedDouble(std::int64_t a, double d) {
  if (std::isnan(d)) return 2;
  if (d >= kTwo63) return -1;
  if (d < -kTwo63) return 1;
  const double t = std::trunc(d);
  const auto ti = static_cast<std::int64_t>(t);
  if (a != ti) return threeWay(a, ti);
  const double frac = d - t;
  return frac > 0 ? -1 : (frac < 0 ? 1 : 0);
}

int compareUnsignedDouble(std::uint64_t a, double d) {
  if (std::isnan(d)) return 2;
  if (d < 0) return 1;
  if (d >= kTwo64) return -1;
  const double t = std::trunc(d);
  const auto ti = static_cast<std::uint64_t>(t);
  if (a != ti) return threeWay(a, ti);
  return d - t > 0 ? -1 : 0;
}

int negate(int c) { return c == 2 ? 2 : -c; }

bool isPlainText(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '_' || c == '.' || c == '$' || c == '-';
    if (!plain) return false;
  }
  return true;
}

void appendQuoted(std::string& out, std::string_view s) {
  out += '"';
  for (char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      default: out += c;
    }
  }
  out += '"';
}

std::string describeData(const std::vector<std::uint8_t>& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "{length = " + std::to_string(bytes.size()) + ", bytes = 0x";
  const std::size_t shown = bytes.size() > 24 ? 24 : bytes.size();
  for (std::size_t i = 0; i < shown; ++i) {
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 15];
  }
  if (shown < bytes.size()) out += "...";
  out += '}';
  return out;
}

// Everything but arrays and dictionaries.
void describeLeaf(const Object& o, std::string& out) {
  if (o.isNil()) {
    out += "(nil)";
    return;
  }
  switch (o.kind()) {
    case ObjectKind::Null: out += "<null>"; break;
    case ObjectKind::Number: out += o.asNumber()->description(); break;
    case ObjectKind::String: out += o.stringValue(); break;
    case ObjectKind::Date: out += dateDescription(o.asDate()->value()); break;
    case ObjectKind::Data: out += describeData(o.asData()->bytes()); break;
    case ObjectKind::Custom: out += o.asCustom()->description(); break;
    case ObjectKind::Array:
    case ObjectKind::Dictionary: break;
  }
}

// Describes a tree with an explicit stack of the containers being written, so
// that the depth of the tree costs heap, not call stack.
void describe(const Object& root, std::string& out) {
  struct Frame {
    const Object* container;
    std::size_t next = 0;              // arrays: the next element
    Dictionary::const_iterator entry;  // dictionaries: the current entry
    int phase = 0;                     // dictionaries: 0 before a key, 1 before its value, 2 after it
  };
  std::vector<Frame> stack;
  // Writes a leaf, or opens a container (its members follow from the stack).
  auto open = [&](const Object& o) {
    if (o.isArray()) {
      out += '(';
      stack.push_back(Frame{&o, 0, Dictionary::const_iterator(), 0});
    } else if (const Dictionary* d = o.asDictionary()) {
      out += '{';
      stack.push_back(Frame{&o, 0, d->begin(), 0});
    } else {
      describeLeaf(o, out);
    }
  };
  // Members of a container quote the strings that would not read back plainly.
  auto member = [&](const Object& o) {
    if (o.isString() && !isPlainText(o.stringValue())) {
      appendQuoted(out, o.stringValue());
    } else {
      open(o);
    }
  };
  open(root);
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (const Array* a = f.container->asArray()) {
      if (f.next == a->size()) {
        out += ')';
        stack.pop_back();
        continue;
      }
      if (f.next > 0) out += ", ";
      member((*a)[f.next++]);  // may push: `f` is not used after this
      continue;
    }
    const Dictionary& d = *f.container->asDictionary();
    switch (f.phase) {
      case 0:
        if (f.entry == d.end()) {
          out += '}';
          stack.pop_back();
          break;
        }
        if (f.entry != d.begin()) out += ' ';
        f.phase = 1;
        member(f.entry->first);
        break;
      case 1:
        out += " = ";
        f.phase = 2;
        member(f.entry->second);
        break;
      default:
        out += ';';
        ++f.entry;
        f.phase = 0;
        break;
    }
  }
}

// Releasing the last reference to a container releases its members, and each
// of them its own members: a deep tree would recurse once per level. Nested
// releases run on the call stack for up to kInlineReleaseDepth levels; below
// that, the members that can hold others are parked on the outermost release's
// list, which it empties in a loop before it returns. No tree, however deep,
// takes more than that many levels of stack, and shallow trees (nearly all)
// pay one counter per container.
class NestedRelease {
 public:
  NestedRelease() : outermost_(tDepth == 0) {
    if (outermost_) tParked = &parked_;
    ++tDepth;
  }
  NestedRelease(const NestedRelease&) = delete;
  NestedRelease& operator=(const NestedRelease&) = delete;
  ~NestedRelease() {
    if (outermost_) {
      while (!parked_.empty()) {
        Object next = std::move(parked_.back());
        parked_.pop_back();
        next = Object();  // may park more members
      }
      tParked = nullptr;
    }
    --tDepth;
  }

  bool deep() const { return tDepth > kInlineReleaseDepth; }
  // Moves a member that may hold others onto the list (leaving nil behind).
  void park(Object& member) {
    if (member.isArray() || member.isDictionary() || member.isCustom()) tParked->push_back(std::move(member));
  }

 private:
  static constexpr std::size_t kInlineReleaseDepth = 64;
  static thread_local std::size_t tDepth;
  static thread_local std::vector<Object>* tParked;
  const bool outermost_;
  std::vector<Object> parked_;
};
thread_local std::size_t NestedRelease::tDepth = 0;
thread_local std::vector<Object>* NestedRelease::tParked = nullptr;

constexpr std::size_t kLinearLimit = 8;
constexpr std::uint32_t kEmptySlot = 0;
constexpr std::uint32_t kTombstone = 0xFFFFFFFFu;

bool keyEqualsText(const Object& key, std::string_view text) {
  const String* s = key.asString();
  return s != nullptr && s->text() == text;
}

}  // namespace

namespace detail {

namespace {
thread_local void* tTrailingStorage = nullptr;

// Allocates the shared-pointer control block (with the object in it) and
// `extra` bytes after it in one block, and leaves the address of those bytes
// for the object's constructor.
template <class T>
struct TrailingAllocator {
  using value_type = T;
  std::size_t extra;
  explicit TrailingAllocator(std::size_t bytes) : extra(bytes) {}
  template <class U>
  TrailingAllocator(const TrailingAllocator<U>& other) : extra(other.extra) {}  // NOLINT
  T* allocate(std::size_t n) {
    const std::size_t head = (n * sizeof(T) + 15) & ~std::size_t{15};
    char* block = static_cast<char*>(::operator new(head + extra));
    tTrailingStorage = extra > 0 ? block + head : nullptr;
    return reinterpret_cast<T*>(block);
  }
  void deallocate(T* p, std::size_t) noexcept { ::operator delete(static_cast<void*>(p)); }
  template <class U>
  bool operator==(const TrailingAllocator<U>& other) const {
    return extra == other.extra;
  }
};

template <class T, class... Args>
std::shared_ptr<T> makeWithTrailing(std::size_t extraBytes, Args&&... args) {
  return std::allocate_shared<T>(TrailingAllocator<T>(extraBytes), std::forward<Args>(args)...);
}
}  // namespace

void* takeTrailingStorage() { return std::exchange(tTrailingStorage, nullptr); }

Object makeArray(std::span<Object> elements, bool isMutable) {
  auto array = makeWithTrailing<Array>(elements.size() * sizeof(Object), TrailingTag{}, elements.size(), isMutable);
  for (Object& e : elements) {
    BRIVET_PRECONDITION(!e.isNil(), "nil element in an array");
    array->elements_.emplace_back(std::move(e));
  }
  return Object::fromImpl(std::move(array));
}

Object makeDictionary(std::span<Object> keysAndValues, bool isMutable, bool distinctKeys) {
  const std::size_t n = keysAndValues.size() / 2;
  auto dictionary = makeWithTrailing<Dictionary>(n * sizeof(Dictionary::Entry), TrailingTag{}, n, isMutable);
  for (std::size_t i = 0; i < n; ++i) {
    dictionary->entries_.emplace_back(std::move(keysAndValues[2 * i]), std::move(keysAndValues[2 * i + 1]));
  }
  dictionary->adopt(distinctKeys);
  return Object::fromImpl(std::move(dictionary));
}

Object makeDictionaryFrom(std::vector<Dictionary::Entry>& entries, bool isMutable, bool distinctKeys) {
  std::vector<Object> flat;
  flat.reserve(entries.size() * 2);
  for (auto& [k, v] : entries) {
    flat.push_back(std::move(k));
    flat.push_back(std::move(v));
  }
  return makeDictionary(flat, isMutable, distinctKeys);
}

}  // namespace detail

// --- Object construction ---

Object::Object(const char* text) : Object(string(std::string_view(text))) {}
Object::Object(std::string_view text) : Object(string(text)) {}
Object::Object(std::string text) : Object(string(text)) {}

Object Object::string(std::string_view text) {
  return fromImpl(detail::makeWithTrailing<String>(text.size(), detail::TrailingTag{}, text));
}
Object::Object(std::shared_ptr<CustomObject> custom) : impl_(std::move(custom)) {}

Object Object::null() { return fromImpl(nullSingleton()); }
Object Object::boolean(bool value) { return fromImpl(booleanSingleton(value)); }
// Small integers are shared, as the platform does: they are the most common
// numbers in JSON documents and sharing them saves an allocation each.
Object Object::integer(std::int64_t value) {
  constexpr std::int64_t kLow = -128;
  constexpr std::int64_t kHigh = 2047;
  if (value < kLow || value > kHigh) return fromImpl(std::make_shared<Number>(value));
  static const auto* cache = [] {
    auto* numbers = new std::vector<std::shared_ptr<ObjectBase>>();
    numbers->reserve(kHigh - kLow + 1);
    for (std::int64_t i = kLow; i <= kHigh; ++i) numbers->push_back(std::make_shared<Number>(i));
    return numbers;
  }();
  return fromImpl((*cache)[static_cast<std::size_t>(value - kLow)]);
}
Object Object::unsignedInteger(std::uint64_t value) { return fromImpl(std::make_shared<Number>(value)); }
Object Object::real(double value) { return fromImpl(std::make_shared<Number>(value)); }
Object Object::array(std::vector<Object> elements) { return detail::makeArray(elements, false); }
Object Object::array(std::initializer_list<Object> elements) { return array(std::vector<Object>(elements)); }
Object Object::mutableArray(std::vector<Object> elements) { return detail::makeArray(elements, true); }
Object Object::dictionary(std::vector<Entry> entries) { return detail::makeDictionaryFrom(entries, false, false); }
Object Object::dictionary(std::initializer_list<Entry> entries) {
  return dictionary(std::vector<Entry>(entries));
}
Object Object::mutableDictionary(std::vector<Entry> entries) {
  return detail::makeDictionaryFrom(entries, true, false);
}
Object Object::mutableDictionary(std::initializer_list<Entry> entries) {
  return mutableDictionary(std::vector<Entry>(entries));
}
Object Object::dictionaryWithDistinctKeys(std::vector<Entry> entries, bool isMutable) {
  return detail::makeDictionaryFrom(entries, isMutable, true);
}
Object Object::date(Date value) { return fromImpl(std::make_shared<DateObject>(value)); }
Object Object::data(std::vector<std::uint8_t> bytes) { return fromImpl(std::make_shared<Data>(std::move(bytes))); }

// --- Kind tests and access ---

ObjectKind Object::kind() const {
  BRIVET_PRECONDITION(impl_ != nullptr, "kind() of a nil Object");
  return impl_->kind();
}
bool Object::isBoolean() const { return isNumber() && as<Number>(impl_).isBoolean(); }
bool Object::isMutableArray() const { return isArray() && as<Array>(impl_).isMutable(); }
bool Object::isMutableDictionary() const { return isDictionary() && as<Dictionary>(impl_).isMutable(); }

Array* Object::asMutableArray() const { return isMutableArray() ? &asMutable<Array>(impl_) : nullptr; }
Dictionary* Object::asMutableDictionary() const {
  return isMutableDictionary() ? &asMutable<Dictionary>(impl_) : nullptr;
}
const DateObject* Object::asDate() const { return isDate() ? &as<DateObject>(impl_) : nullptr; }
const Data* Object::asData() const { return isData() ? &as<Data>(impl_) : nullptr; }
CustomObject* Object::asCustom() const { return isCustom() ? &asMutable<CustomObject>(impl_) : nullptr; }


std::size_t Object::count() const {
  if (const Array* a = asArray()) return a->size();
  if (const Dictionary* d = asDictionary()) return d->size();
  return 0;
}

Object Object::operator[](std::string_view key) const {
  const Dictionary* d = asDictionary();
  return d != nullptr ? d->objectForKey(key) : Object();
}

Object Object::operator[](std::size_t index) const {
  const Array* a = asArray();
  return a != nullptr ? a->at(index) : Object();
}

// --- Equality, hashing, description ---

namespace {

enum class Comparison { Different, Same, Descend };

// Compares two objects without looking into their members: containers of the
// same kind and size answer Descend.
Comparison compareShallow(const Object& a, const Object& b) {
  if (a.isIdentical(b)) return Comparison::Same;
  if (a.isNil() || b.isNil() || a.kind() != b.kind()) return Comparison::Different;
  auto same = [](bool equal) { return equal ? Comparison::Same : Comparison::Different; };
  switch (a.kind()) {
    case ObjectKind::Null: return Comparison::Same;
    case ObjectKind::Number: return same(a.asNumber()->isEqual(*b.asNumber()));
    case ObjectKind::String: return same(a.stringValue() == b.stringValue());
    case ObjectKind::Array:
    case ObjectKind::Dictionary: return a.count() == b.count() ? Comparison::Descend : Comparison::Different;
    case ObjectKind::Date: return same(a.asDate()->value() == b.asDate()->value());
    case ObjectKind::Data: return same(a.asData()->bytes() == b.asData()->bytes());
    case ObjectKind::Custom: return same(a.asCustom()->isEqual(*b.asCustom()));
  }
  return Comparison::Different;
}

}  // namespace

// Containers are compared with an explicit stack of the pairs being walked, so
// the depth of the trees costs heap, not call stack.
bool Object::isEqual(const Object& other) const {
  const Comparison top = compareShallow(*this, other);
  if (top != Comparison::Descend) return top == Comparison::Same;
  struct Frame {
    const Object* a;
    const Object* b;
    Dictionary::const_iterator entry;  // dictionaries: the next entry of `a`
    std::size_t next = 0;              // arrays: the next element
  };
  auto frameOf = [](const Object& a, const Object& b) {
    const Dictionary* d = a.asDictionary();
    return Frame{&a, &b, d != nullptr ? d->begin() : Dictionary::const_iterator(), 0};
  };
  std::vector<Frame> stack;
  stack.push_back(frameOf(*this, other));
  while (!stack.empty()) {
    Frame& f = stack.back();
    const Object* x = nullptr;
    const Object* y = nullptr;
    if (const Array* a = f.a->asArray()) {
      if (f.next == a->size()) {
        stack.pop_back();
        continue;
      }
      x = &(*a)[f.next];
      y = &(*f.b->asArray())[f.next];
      ++f.next;
    } else {
      if (f.entry == f.a->asDictionary()->end()) {
        stack.pop_back();
        continue;
      }
      const Dictionary& b = as<Dictionary>(f.b->impl_);
      const Object& key = f.entry->first;
      const std::size_t found = b.find(key, b.index_.empty() ? 0 : key.hash());
      if (found == SIZE_MAX) return false;
      x = &f.entry->second;
      y = &b.entries_[found].second;
      ++f.entry;
    }
    switch (compareShallow(*x, *y)) {
      case Comparison::Different: return false;
      case Comparison::Same: break;
      case Comparison::Descend: stack.push_back(frameOf(*x, *y)); break;
    }
  }
  return true;
}

std::size_t Object::hash() const {
  if (impl_ == nullptr) return 0;
  switch (impl_->kind()) {
    case ObjectKind::Null: return 0x6e756c6cu;
    case ObjectKind::Number: return as<Number>(impl_).hash();
    case ObjectKind::String: return String::hashText(as<String>(impl_).text());
    case ObjectKind::Array: return mix(as<Array>(impl_).size() ^ 0xa77a7);
    case ObjectKind::Dictionary: return mix(as<Dictionary>(impl_).size() ^ 0xd1c7);
    case ObjectKind::Date:
      return mix(static_cast<std::uint64_t>(as<DateObject>(impl_).value().time_since_epoch().count()));
    case ObjectKind::Data: return mix(as<Data>(impl_).bytes().size() ^ 0xda7a);
    case ObjectKind::Custom: return as<CustomObject>(impl_).hash();
  }
  return 0;
}

std::string Object::description() const {
  std::string out;
  describe(*this, out);
  return out;
}

// --- Copies ---

namespace {
Object copyArray(const Array& a, bool isMutable) {
  std::vector<Object> elements(a.begin(), a.end());
  return detail::makeArray(elements, isMutable);
}
Object copyDictionary(const Dictionary& d, bool isMutable) {
  std::vector<Object> flat;
  flat.reserve(d.size() * 2);
  for (const auto& [k, v] : d) {
    flat.push_back(k);
    flat.push_back(v);
  }
  return detail::makeDictionary(flat, isMutable, true);
}
}  // namespace

Object Object::copy() const {
  if (const Array* a = asArray()) return a->isMutable() ? copyArray(*a, false) : *this;
  if (const Dictionary* d = asDictionary()) return d->isMutable() ? copyDictionary(*d, false) : *this;
  return *this;
}

Object Object::mutableCopy() const {
  if (const Array* a = asArray()) return copyArray(*a, true);
  if (const Dictionary* d = asDictionary()) return copyDictionary(*d, true);
  return Object();
}

// --- Key-value lookup ---

Object Object::valueForKey(std::string_view key) const {
  if (const Dictionary* d = asDictionary()) return d->objectForKey(key);
  if (CustomObject* c = asCustom()) return c->valueForKey(key);
  return Object();
}

// One step per key-path component in a loop: a key path of any length costs
// no call stack (custom objects on the way take over the rest of the path).
Object Object::valueForKeyPath(std::string_view keyPath) const {
  Object current = *this;
  for (;;) {
    if (CustomObject* c = current.asCustom()) return c->valueForKeyPath(keyPath);
    const Dictionary* d = current.asDictionary();
    if (d == nullptr) return Object();
    const std::size_t dot = keyPath.find('.');
    if (dot == std::string_view::npos) return d->objectForKey(keyPath);
    Object child = d->objectForKey(keyPath.substr(0, dot));
    if (child.isNil()) return Object();
    current = std::move(child);
    keyPath.remove_prefix(dot + 1);
  }
}

void Object::setValueForKey(const Object& value, std::string_view key) const {
  if (Dictionary* d = asMutableDictionary()) {
    d->setObject(value, key);
  } else if (CustomObject* c = asCustom()) {
    c->setValueForKey(value, key);
  }
}

void Object::setValueForKeyPath(const Object& value, std::string_view keyPath) const {
  Object current = *this;
  for (;;) {
    if (CustomObject* c = current.asCustom()) {
      c->setValueForKeyPath(value, keyPath);
      return;
    }
    const Dictionary* d = current.asDictionary();
    if (d == nullptr) return;
    const std::size_t dot = keyPath.find('.');
    if (dot == std::string_view::npos) {
      current.setValueForKey(value, keyPath);
      return;
    }
    Object child = d->objectForKey(keyPath.substr(0, dot));
    current = std::move(child);
    keyPath.remove_prefix(dot + 1);
  }
}

// --- Number ---

bool Number::boolValue() const {
  switch (type_) {
    case Type::Double: return u_.d != 0.0;
    default: return u_.u != 0;
  }
}

std::int64_t Number::int64Value() const {
  if (type_ != Type::Double) return u_.i;
  const double d = u_.d;
  if (std::isnan(d)) return 0;
  if (d >= kTwo63) return INT64_MAX;
  if (d < -kTwo63) return INT64_MIN;
  return static_cast<std::int64_t>(d);
}

std::uint64_t Number::uint64Value() const {
  if (type_ != Type::Double) return u_.u;
  const double d = u_.d;
  if (std::isnan(d)) return 0;
  if (d < 0) return static_cast<std::uint64_t>(int64Value());  // wraps like a negative integer
  if (d >= kTwo64) return UINT64_MAX;
  return static_cast<std::uint64_t>(d);
}

double Number::doubleValue() const {
  switch (type_) {
    case Type::Double: return u_.d;
    case Type::Unsigned: return static_cast<double>(u_.u);
    default: return static_cast<double>(u_.i);
  }
}

int Number::compare(const Number& other) const {
  const bool aSigned = type_ == Type::Boolean || type_ == Type::Signed;
  const bool bSigned = other.type_ == Type::Boolean || other.type_ == Type::Signed;
  if (aSigned && bSigned) return threeWay(u_.i, other.u_.i);
  if (type_ == Type::Unsigned && other.type_ == Type::Unsigned) return threeWay(u_.u, other.u_.u);
  if (aSigned && other.type_ == Type::Unsigned) return compareSignedUnsigned(u_.i, other.u_.u);
  if (type_ == Type::Unsigned && bSigned) return negate(compareSignedUnsigned(other.u_.i, u_.u));
  if (type_ == Type::Double && other.type_ == Type::Double) {
    if (std::isnan(u_.d) || std::isnan(other.u_.d)) return 2;
    return threeWay(u_.d, other.u_.d);
  }
  if (type_ == Type::Double) return negate(other.compare(*this));
  // This number is an integer and the other a double.
  return aSigned ? compareSignedDouble(u_.i, other.u_.d) : compareUnsignedDouble(u_.u, other.u_.d);
}

std::size_t Number::hash() const {
  switch (type_) {
    case Type::Boolean:
    case Type::Signed: return mix(static_cast<std::uint64_t>(u_.i));
    case Type::Unsigned: return mix(u_.u);
    case Type::Double: {
      const double d = u_.d;
      // Integral doubles hash like the integer they equal.
      if (d == std::trunc(d)) {
        if (d >= -kTwo63 && d < kTwo63) return mix(static_cast<std::uint64_t>(static_cast<std::int64_t>(d)));
        if (d >= 0 && d < kTwo64) return mix(static_cast<std::uint64_t>(d));
      }
      std::uint64_t bits;
      static_assert(sizeof bits == sizeof d);
      __builtin_memcpy(&bits, &d, sizeof bits);
      return mix(bits ^ 0xd0b1e);
    }
  }
  return 0;
}

std::string Number::description() const {
  char buffer[40];
  std::to_chars_result r{};
  switch (type_) {
    case Type::Boolean:
    case Type::Signed: r = std::to_chars(buffer, buffer + sizeof buffer, u_.i); break;
    case Type::Unsigned: r = std::to_chars(buffer, buffer + sizeof buffer, u_.u); break;
    case Type::Double:
      if (std::isnan(u_.d)) return "nan";
      if (std::isinf(u_.d)) return u_.d > 0 ? "inf" : "-inf";
      r = std::to_chars(buffer, buffer + sizeof buffer, u_.d);
      break;
  }
  return std::string(buffer, r.ptr);
}

// --- String ---

String::String(detail::TrailingTag, std::string_view text) : ObjectBase(ObjectKind::String), size_(text.size()) {
  char* storage = static_cast<char*>(detail::takeTrailingStorage());
  heap_ = storage == nullptr && !text.empty();
  if (heap_) storage = static_cast<char*>(::operator new(text.size()));
  if (!text.empty()) __builtin_memcpy(storage, text.data(), text.size());
  data_ = storage != nullptr ? storage : "";
}

String::~String() {
  if (heap_) ::operator delete(const_cast<char*>(data_));
}

// A fast hash for the short texts that dominate JSON (keys, path steps):
// eight bytes at a time, the tail read with overlapping fixed-size loads.
std::size_t String::hashText(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  auto load64 = [](const unsigned char* q) {
    std::uint64_t v;
    __builtin_memcpy(&v, q, 8);
    return v;
  };
  auto load32 = [](const unsigned char* q) {
    std::uint32_t v;
    __builtin_memcpy(&v, q, 4);
    return static_cast<std::uint64_t>(v);
  };
  constexpr std::uint64_t kMul = 0x9FB21C651E98DF25ULL;
  std::uint64_t h = 0x9E3779B97F4A7C15ULL ^ (n * 0xff51afd7ed558ccdULL);
  std::uint64_t a;
  std::uint64_t b;
  if (n <= 16) {
    if (n >= 8) {
      a = load64(p);
      b = load64(p + n - 8);
    } else if (n >= 4) {
      a = load32(p);
      b = load32(p + n - 4);
    } else if (n > 0) {
      a = (static_cast<std::uint64_t>(p[0]) << 16) | (static_cast<std::uint64_t>(p[n / 2]) << 8) | p[n - 1];
      b = 0;
    } else {
      a = b = 0;
    }
  } else {
    std::size_t i = 0;
    for (; i + 16 < n; i += 16) {
      h = ((h ^ load64(p + i)) * kMul) ^ load64(p + i + 8);
      h = (h ^ (h >> 29)) * kMul;
    }
    a = load64(p + n - 16);
    b = load64(p + n - 8);
  }
  h = (h ^ a) * kMul;
  h = (h ^ (h >> 29) ^ b) * kMul;
  return mix(h);
}

// --- Array ---

Array::Array(detail::TrailingTag, std::size_t capacity, bool isMutable)
    : ObjectBase(ObjectKind::Array),
      elements_(static_cast<Object*>(detail::takeTrailingStorage()), capacity),
      mutable_(isMutable) {}

Array::~Array() {
  NestedRelease release;
  if (release.deep()) {
    for (std::size_t i = 0; i < elements_.size(); ++i) release.park(elements_[i]);
  }
  elements_.clear();
}

void Array::add(Object value) {
  BRIVET_PRECONDITION(mutable_, "mutation of an immutable array");
  BRIVET_PRECONDITION(!value.isNil(), "nil inserted into an array");
  elements_.emplace_back(std::move(value));
}

void Array::insert(Object value, std::size_t index) {
  BRIVET_PRECONDITION(mutable_, "mutation of an immutable array");
  BRIVET_PRECONDITION(!value.isNil(), "nil inserted into an array");
  BRIVET_PRECONDITION(index <= elements_.size(), "array index out of range");
  elements_.insert(index, std::move(value));
}

void Array::replace(std::size_t index, Object value) {
  BRIVET_PRECONDITION(mutable_, "mutation of an immutable array");
  BRIVET_PRECONDITION(!value.isNil(), "nil inserted into an array");
  BRIVET_PRECONDITION(index < elements_.size(), "array index out of range");
  elements_[index] = std::move(value);
}

void Array::removeAt(std::size_t index) {
  BRIVET_PRECONDITION(mutable_, "mutation of an immutable array");
  BRIVET_PRECONDITION(index < elements_.size(), "array index out of range");
  elements_.erase(index);
}

void Array::removeAll() {
  BRIVET_PRECONDITION(mutable_, "mutation of an immutable array");
  elements_.clear();
}

// --- Dictionary ---

Dictionary::Dictionary(detail::TrailingTag, std::size_t capacity, bool isMutable)
    : ObjectBase(ObjectKind::Dictionary),
      entries_(static_cast<Entry*>(detail::takeTrailingStorage()), capacity),
      mutable_(isMutable) {}

Dictionary::~Dictionary() {
  NestedRelease release;
  if (release.deep()) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      release.park(entries_[i].first);
      release.park(entries_[i].second);
    }
  }
  entries_.clear();
}

void Dictionary::adopt(bool distinctKeys) {
  const std::size_t n = entries_.size();
  if (distinctKeys) {
    live_ = static_cast<std::uint32_t>(n);
    if (n > kLinearLimit) rebuildIndex(16);
    return;
  }
  // A key met again hands its value to the first occurrence and leaves a
  // removed entry behind, compacted at the end.
  if (n > kLinearLimit) {
    std::size_t capacity = 16;
    while (capacity * 3 < n * 4) capacity *= 2;
    index_.assign(capacity, kEmptySlot);
  }
  const std::size_t mask = index_.empty() ? 0 : index_.size() - 1;
  for (std::size_t e = 0; e < n; ++e) {
    const Object& key = entries_[e].first;
    BRIVET_PRECONDITION(!key.isNil() && !entries_[e].second.isNil(), "nil key or value in a dictionary");
    std::size_t earlier = SIZE_MAX;
    if (index_.empty()) {
      for (std::size_t i = 0; i < e && earlier == SIZE_MAX; ++i) {
        if (!entries_[i].first.isNil() && entries_[i].first.isEqual(key)) earlier = i;
      }
      if (earlier == SIZE_MAX) ++live_;
    } else {
      std::size_t i = key.hash() & mask;
      for (; index_[i] != kEmptySlot; i = (i + 1) & mask) {
        if (entries_[index_[i] - 1].first.isEqual(key)) {
          earlier = index_[i] - 1;
          break;
        }
      }
      if (earlier == SIZE_MAX) {
        index_[i] = static_cast<std::uint32_t>(e + 1);
        ++live_;
      }
    }
    if (earlier != SIZE_MAX) {
      entries_[earlier].second = std::move(entries_[e].second);
      entries_[e] = Entry();
      ++tombstones_;
    }
  }
  if (tombstones_ > 0) compact();
}

std::size_t Dictionary::find(const Object& key, std::size_t hash) const {
  if (const String* s = key.asString()) return find(s->text(), hash);
  if (index_.empty()) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (!entries_[i].first.isNil() && entries_[i].first.isEqual(key)) return i;
    }
    return SIZE_MAX;
  }
  const std::size_t mask = index_.size() - 1;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    const std::uint32_t slot = index_[i];
    if (slot == kEmptySlot) return SIZE_MAX;
    if (slot != kTombstone && entries_[slot - 1].first.isEqual(key)) return slot - 1;
  }
}

std::size_t Dictionary::find(std::string_view key, std::size_t hash) const {
  if (index_.empty()) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (keyEqualsText(entries_[i].first, key)) return i;
    }
    return SIZE_MAX;
  }
  const std::size_t mask = index_.size() - 1;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    const std::uint32_t slot = index_[i];
    if (slot == kEmptySlot) return SIZE_MAX;
    if (slot != kTombstone && keyEqualsText(entries_[slot - 1].first, key)) return slot - 1;
  }
}

Object Dictionary::objectForKey(const Object& key) const {
  if (key.isNil()) return Object();
  const std::size_t i = find(key, index_.empty() ? 0 : key.hash());
  return i == SIZE_MAX ? Object() : entries_[i].second;
}

Object Dictionary::objectForKey(std::string_view key) const {
  const std::size_t i = find(key, index_.empty() ? 0 : String::hashText(key));
  return i == SIZE_MAX ? Object() : entries_[i].second;
}

void Dictionary::indexInsert(std::size_t entry, std::size_t hash) {
  if ((live_ + tombstones_) * 4 > index_.size() * 3) {
    rebuildIndex(index_.size() * 2);
    return;  // the rebuild indexed every live entry, this one included
  }
  const std::size_t mask = index_.size() - 1;
  std::size_t i = hash & mask;
  while (index_[i] != kEmptySlot && index_[i] != kTombstone) i = (i + 1) & mask;
  index_[i] = static_cast<std::uint32_t>(entry + 1);
}

void Dictionary::rebuildIndex(std::size_t capacity) {
  if (tombstones_ > 0) {
    compact();
    return;
  }
  while (capacity * 3 < live_ * 4) capacity *= 2;
  index_.assign(capacity, kEmptySlot);
  const std::size_t mask = capacity - 1;
  for (std::size_t e = 0; e < entries_.size(); ++e) {
    std::size_t i = entries_[e].first.hash() & mask;
    while (index_[i] != kEmptySlot) i = (i + 1) & mask;
    index_[i] = static_cast<std::uint32_t>(e + 1);
  }
}

void Dictionary::compact() {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].first.isNil()) continue;
    if (kept != i) entries_[kept] = std::move(entries_[i]);
    ++kept;
  }
  while (entries_.size() > kept) entries_.pop_back();
  tombstones_ = 0;
  if (live_ > kLinearLimit) {
    rebuildIndex(16);
  } else {
    index_.clear();
  }
}

void Dictionary::setObject(Object value, Object key) {
  BRIVET_PRECONDITION(mutable_, "mutation of an immutable dictionary");
  BRIVET_PRECONDITION(!key.isNil(), "nil dictionary key");
  if (value.isNil()) {
    removeObject(key);
    return;
  }
  const std::size_t h = key.hash();
  const std::size_t found = find(key, h);
  if (found != SIZE_MAX) {
    entries_[found].second = std::move(value);
    return;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  ++live_;
  if (!index_.empty()) {
    indexInsert(entries_.size() - 1, h);
  } else if (live_ > kLinearLimit) {
    rebuildIndex(16);
  }
}

void Dictionary::removeObject(const Object& key) {
  BRIVET_PRECONDITION(mutable_, "mutation of an immutable dictionary");
  if (key.isNil()) return;
  const std::size_t h = key.hash();
  const std::size_t found = find(key, h);
  if (found == SIZE_MAX) return;
  if (!index_.empty()) {
    const std::size_t mask = index_.size() - 1;
    for (std::size_t i = h & mask;; i = (i + 1) & mask) {
      if (index_[i] == found + 1) {
        index_[i] = kTombstone;
        break;
      }
    }
  }
  entries_[found] = Entry();
  --live_;
  ++tombstones_;
  if (found + 1 == entries_.size() && index_.empty()) {
    entries_.pop_back();  // cheap path for small dictionaries
    --tombstones_;
  } else if (tombstones_ > kLinearLimit && tombstones_ > live_) {
    compact();
  }
}

void Dictionary::removeAll() {
  BRIVET_PRECONDITION(mutable_, "mutation of an immutable dictionary");
  entries_.clear();
  index_.clear();
  live_ = 0;
  tombstones_ = 0;
}

std::vector<Object> Dictionary::allKeys() const {
  std::vector<Object> keys;
  keys.reserve(live_);
  for (const auto& entry : *this) keys.push_back(entry.first);
  return keys;
}

// --- CustomObject ---

std::string CustomObject::description() const {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%p", static_cast<const void*>(this));
  return "<" + std::string(className()) + ": " + buffer + ">";
}

std::size_t CustomObject::hash() const { return mix(reinterpret_cast<std::uintptr_t>(this)); }

Object CustomObject::valueForKey(std::string_view key) const { return valueForUndefinedKey(key); }

Object CustomObject::valueForKeyPath(std::string_view keyPath) const {
  const std::size_t dot = keyPath.find('.');
  if (dot == std::string_view::npos) return valueForKey(keyPath);
  const Object first = valueForKey(keyPath.substr(0, dot));
  return first.isNil() ? Object() : first.valueForKeyPath(keyPath.substr(dot + 1));
}

Object CustomObject::valueForUndefinedKey(std::string_view /*key*/) const { return Object(); }

void CustomObject::setValueForKey(const Object& /*value*/, std::string_view /*key*/) {}

void CustomObject::setValueForKeyPath(const Object& value, std::string_view keyPath) {
  const std::size_t dot = keyPath.find('.');
  if (dot == std::string_view::npos) {
    setValueForKey(value, keyPath);
    return;
  }
  valueForKey(keyPath.substr(0, dot)).setValueForKeyPath(value, keyPath.substr(dot + 1));
}

}  // namespace brivet
