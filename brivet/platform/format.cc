#include "brivet/platform/format.h"

#include <cstdio>

namespace brivet {
namespace {

std::string objectText(const FormatArg::Value& v) {
  struct Visitor {
    std::string operator()(const Object& o) const { return o.isNil() ? "(null)" : o.description(); }
    std::string operator()(std::string_view s) const { return std::string(s); }
    std::string operator()(const std::string& s) const { return s; }
    std::string operator()(std::int64_t i) const { return std::to_string(i); }
    std::string operator()(std::uint64_t u) const { return std::to_string(u); }
    std::string operator()(double d) const { return Object(d).description(); }
  };
  return std::visit(Visitor{}, v);
}

long long signedValue(const FormatArg::Value& v) {
  if (const auto* i = std::get_if<std::int64_t>(&v)) return *i;
  if (const auto* u = std::get_if<std::uint64_t>(&v)) return static_cast<long long>(*u);
  if (const auto* d = std::get_if<double>(&v)) return Object(*d).asNumber()->int64Value();
  if (const auto* o = std::get_if<Object>(&v)) {
    if (const Number* n = o->asNumber()) return n->int64Value();
  }
  return 0;
}

double doubleValue(const FormatArg::Value& v) {
  if (const auto* d = std::get_if<double>(&v)) return *d;
  if (const auto* i = std::get_if<std::int64_t>(&v)) return static_cast<double>(*i);
  if (const auto* u = std::get_if<std::uint64_t>(&v)) return static_cast<double>(*u);
  if (const auto* o = std::get_if<Object>(&v)) {
    if (const Number* n = o->asNumber()) return n->doubleValue();
  }
  return 0.0;
}

bool isFlag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0'; }
bool isLength(char c) { return c == 'h' || c == 'l' || c == 'q' || c == 'L' || c == 'z' || c == 'j' || c == 't'; }

// Pads `text` to the width given in a "%-10@" style conversion.
std::string pad(std::string text, std::string_view specifier) {
  bool left = false;
  std::size_t width = 0;
  for (char c : specifier) {
    if (c == '-') left = true;
    if (c >= '0' && c <= '9') width = width * 10 + static_cast<std::size_t>(c - '0');
    if (c == '.') break;
  }
  if (text.size() >= width) return text;
  const std::string fill(width - text.size(), ' ');
  return left ? text + fill : fill + text;
}

}  // namespace

std::string format(std::string_view fmt, std::initializer_list<FormatArg> args) {
  std::string out;
  out.reserve(fmt.size() + 16 * args.size());
  const FormatArg* next = args.begin();
  auto take = [&]() -> const FormatArg::Value* { return next != args.end() ? &(next++)->value() : nullptr; };

  for (std::size_t i = 0; i < fmt.size(); ++i) {
    const char c = fmt[i];
    if (c != '%') {
      out += c;
      continue;
    }
    std::size_t j = i + 1;
    while (j < fmt.size() && isFlag(fmt[j])) ++j;
    while (j < fmt.size() && fmt[j] >= '0' && fmt[j] <= '9') ++j;
    if (j < fmt.size() && fmt[j] == '.') {
      ++j;
      while (j < fmt.size() && fmt[j] >= '0' && fmt[j] <= '9') ++j;
    }
    const std::string_view flagsWidthPrecision = fmt.substr(i + 1, j - i - 1);
    while (j < fmt.size() && isLength(fmt[j])) ++j;
    if (j >= fmt.size()) {  // a dangling '%': keep it as text
      out.append(fmt.substr(i));
      break;
    }
    const char conversion = fmt[j];
    std::string conversionFormat = "%";
    conversionFormat += flagsWidthPrecision;
    char buffer[128];
    switch (conversion) {
      case '%': out += '%'; break;
      case '@':
      case 's': {
        const auto* v = take();
        if (v != nullptr) out += pad(objectText(*v), flagsWidthPrecision);
        break;
      }
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
      case 'c': {
        const auto* v = take();
        if (v == nullptr) break;
        conversionFormat += conversion == 'c' ? "" : "ll";
        conversionFormat += conversion;
        if (conversion == 'c') {
          std::snprintf(buffer, sizeof buffer, conversionFormat.c_str(), static_cast<int>(signedValue(*v)));
        } else if (conversion == 'd' || conversion == 'i') {
          std::snprintf(buffer, sizeof buffer, conversionFormat.c_str(), signedValue(*v));
        } else {
          std::snprintf(buffer, sizeof buffer, conversionFormat.c_str(), static_cast<unsigned long long>(signedValue(*v)));
        }
        out += buffer;
        break;
      }
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A': {
        const auto* v = take();
        if (v == nullptr) break;
        conversionFormat += conversion;
        std::snprintf(buffer, sizeof buffer, conversionFormat.c_str(), doubleValue(*v));
        out += buffer;
        break;
      }
      default:  // unknown conversion: copy it through untouched
        out.append(fmt.substr(i, j - i + 1));
        break;
    }
    i = j;
  }
  return out;
}

}  // namespace brivet
