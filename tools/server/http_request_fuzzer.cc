// Fuzzes the server's HTTP request reader with whatever a client could send.
//
// The input is a request as received. Beyond surviving, the reader must:
// answer the same for the whole input as for the same bytes arriving in two
// pieces (a head is complete or not whatever the split); keep every field
// free of line breaks; never report a head longer than its input, or a body
// past the limit; and give only the error statuses it documents. The query of
// a complete head goes through the form decoder, whose output, encoded again,
// must decode to the same pairs.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/server/http_wire.h"

namespace {

using brivet::tools::HeadScan;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

std::string encoded(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                       c == '.' || c == '_' || c == '~';
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

bool hasLineBreak(std::string_view text) { return text.find_first_of("\r\n") != std::string_view::npos; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  // Small limits, so that inputs reach every bound.
  brivet::tools::HTTPWireLimits limits;
  limits.maxTargetBytes = 96;
  limits.maxHeaderBytes = 192;
  limits.maxBodyBytes = 64;

  const HeadScan whole = brivet::tools::scanRequestHead(input, limits);
  switch (whole.state) {
    case HeadScan::State::NeedMore: break;
    case HeadScan::State::Complete: {
      const brivet::tools::HTTPRequestHead& head = whole.head;
      check(whole.length > 0 && whole.length <= input.size());
      check(!head.method.empty() && !head.path.empty() && head.path.front() == '/');
      check(head.path.size() + head.query.size() <= limits.maxTargetBytes);
      check(head.contentLength <= limits.maxBodyBytes);
      check(!hasLineBreak(head.method) && !hasLineBreak(head.path) && !hasLineBreak(head.query));
      for (const auto& [name, value] : head.fields) check(!hasLineBreak(name) && !hasLineBreak(value));
      // The head ends where it says: the same bytes without what follows give the same head.
      const HeadScan cut = brivet::tools::scanRequestHead(input.substr(0, whole.length), limits);
      check(cut.state == HeadScan::State::Complete && cut.length == whole.length);
      auto pairs = brivet::tools::decodeForm(head.query);
      if (pairs.ok()) {
        std::string again;
        for (const auto& [name, value] : pairs.value()) {
          again += (again.empty() ? "" : "&") + encoded(name) + "=" + encoded(value);
        }
        auto decoded = brivet::tools::decodeForm(again);
        check(decoded.ok());
        std::size_t i = 0;
        for (const auto& pair : pairs.value()) {
          check(i < decoded.value().size() && decoded.value()[i] == pair);
          ++i;
        }
        check(i == decoded.value().size());
      }
      break;
    }
    case HeadScan::State::Failed: {
      const int status = whole.error.status;
      check(status == 400 || status == 413 || status == 414 || status == 431 || status == 501 || status == 505);
      check(!whole.error.message.empty() && !hasLineBreak(whole.error.path));
      break;
    }
  }
  // A prefix that is already complete or already wrong says so before the rest arrives.
  const HeadScan prefix = brivet::tools::scanRequestHead(input.substr(0, size / 2), limits);
  if (prefix.state == HeadScan::State::Complete) {
    check(whole.state == HeadScan::State::Complete && whole.length == prefix.length);
  } else if (prefix.state == HeadScan::State::Failed) {
    check(whole.state == HeadScan::State::Failed && whole.error.status == prefix.error.status);
  }
  return 0;
}
