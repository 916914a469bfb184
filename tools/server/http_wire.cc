#include "tools/server/http_wire.h"

#include <algorithm>
#include <cstdint>

namespace brivet::tools {
namespace {

// Method names are short tokens; the request line holds the method, the
// target, "HTTP/1.x" and two blanks.
constexpr std::size_t kMaxMethodBytes = 16;
constexpr std::size_t kRequestLineOverhead = kMaxMethodBytes + 16;
// Blank lines a client may send before a request line.
constexpr std::size_t kMaxLeadingBlankBytes = 16;
// The longest path kept to say which dialect an error answers in.
constexpr std::size_t kMaxErrorPathBytes = 256;

bool isTokenChar(unsigned char c) {
  if (c >= '0' && c <= '9') return true;
  if ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') return true;
  return std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
}
bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return isTokenChar(static_cast<unsigned char>(c)); });
}
std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}
bool equalsIgnoringCase(std::string_view a, std::string_view b) { return a.size() == b.size() && lowered(a) == lowered(b); }
std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}
// The line at the start of `text` without its "\n" or "\r\n"; nothing when no line end has arrived.
std::optional<std::string_view> lineAt(std::string_view text, std::size_t* consumed) {
  const std::size_t end = text.find('\n');
  if (end == std::string_view::npos) return std::nullopt;
  *consumed = end + 1;
  std::string_view line = text.substr(0, end);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}
// The path of a (possibly partial) request line, for the dialect of an error answer.
std::string pathOf(std::string_view requestLine) {
  const std::size_t blank = requestLine.find(' ');
  if (blank == std::string_view::npos) return std::string();
  std::string_view target = requestLine.substr(blank + 1);
  target = target.substr(0, std::min({target.find('?'), target.find(' '), kMaxErrorPathBytes}));
  if (target.empty() || target.front() != '/') return std::string();
  for (char c : target) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7F) return std::string();
  }
  return std::string(target);
}
HeadScan failed(int status, std::string code, std::string message, std::string path = std::string()) {
  HeadScan scan;
  scan.state = HeadScan::State::Failed;
  scan.error = HTTPWireError{status, std::move(code), std::move(message), std::move(path)};
  return scan;
}
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') return (c | 0x20) - 'a' + 10;
  return -1;
}
Result<std::string, std::string> percentDecoded(std::string_view text, std::size_t offset) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '+') {
      out += ' ';
    } else if (c != '%') {
      out += c;
    } else {
      const bool whole = i + 2 < text.size();
      const int high = whole ? hexValue(text[i + 1]) : -1;
      const int low = whole ? hexValue(text[i + 2]) : -1;
      if (high < 0 || low < 0) {
        return Failure{"a malformed percent escape at byte " + std::to_string(offset + i)};
      }
      out += static_cast<char>(high * 16 + low);
      i += 2;
    }
  }
  return out;
}

}  // namespace

std::optional<std::string_view> HTTPRequestHead::field(std::string_view name) const {
  for (const auto& [key, value] : fields) {
    if (key == name) return std::string_view(value);
  }
  return std::nullopt;
}

HeadScan scanRequestHead(std::string_view received, const HTTPWireLimits& limits) {
  std::size_t offset = 0;
  // A client may send blank lines before its request line.
  while (offset < received.size() && offset < kMaxLeadingBlankBytes &&
         (received[offset] == '\r' || received[offset] == '\n')) {
    ++offset;
  }
  const std::size_t maxLine = limits.maxTargetBytes + kRequestLineOverhead;
  std::size_t consumed = 0;
  const std::optional<std::string_view> requestLine = lineAt(received.substr(offset), &consumed);
  if (!requestLine) {
    // One byte more than a line may hold: its "\r" may still be waiting for the "\n".
    if (received.size() - offset > maxLine + 1) {
      return failed(414, "uriTooLong",
                    "the request target is longer than " + std::to_string(limits.maxTargetBytes) + " bytes",
                    pathOf(received.substr(offset, std::min(received.size() - offset, maxLine))));
    }
    return HeadScan{};
  }
  const std::string path = pathOf(*requestLine);
  if (requestLine->size() > maxLine) {
    return failed(414, "uriTooLong",
                  "the request target is longer than " + std::to_string(limits.maxTargetBytes) + " bytes", path);
  }

  // Request line: method SP target SP HTTP-version.
  HTTPRequestHead head;
  const std::size_t firstBlank = requestLine->find(' ');
  const std::size_t lastBlank = requestLine->rfind(' ');
  if (firstBlank == std::string_view::npos || lastBlank == firstBlank) {
    return failed(400, "badRequest", "the request line is not \"METHOD TARGET HTTP/1.1\"", path);
  }
  const std::string_view method = requestLine->substr(0, firstBlank);
  const std::string_view target = requestLine->substr(firstBlank + 1, lastBlank - firstBlank - 1);
  const std::string_view version = requestLine->substr(lastBlank + 1);
  if (!isToken(method) || method.size() > kMaxMethodBytes) {
    return failed(400, "badRequest", "the request method is not a token", path);
  }
  if (target.empty() || target.front() != '/') {
    return failed(400, "badRequest", "the request target must begin with \"/\"", path);
  }
  for (char c : target) {
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7F) {
      return failed(400, "badRequest", "the request target holds a blank or a control character", path);
    }
  }
  if (target.size() > limits.maxTargetBytes) {
    return failed(414, "uriTooLong",
                  "the request target is longer than " + std::to_string(limits.maxTargetBytes) + " bytes", path);
  }
  if (version == "HTTP/1.1") {
    head.minorVersion = 1;
  } else if (version == "HTTP/1.0") {
    head.minorVersion = 0;
  } else if (version.substr(0, 5) == "HTTP/" && version.size() > 5 && version[5] >= '0' && version[5] <= '9') {
    return failed(505, "versionNotSupported", "only HTTP/1.0 and HTTP/1.1 are served", path);
  } else {
    return failed(400, "badRequest", "the request line does not end in an HTTP version", path);
  }
  head.method = std::string(method);
  const std::size_t question = target.find('?');
  head.path = std::string(target.substr(0, question));
  if (question != std::string_view::npos) head.query = std::string(target.substr(question + 1));

  // Header fields, up to the blank line (which the limit does not count).
  const std::size_t maxFieldBytes = limits.maxHeaderBytes + 2;
  std::size_t at = offset + consumed;
  const std::size_t fieldsStart = at;
  bool sawLength = false;
  std::optional<bool> connectionClose;
  for (;;) {
    std::size_t lineBytes = 0;
    const std::optional<std::string_view> line = lineAt(received.substr(at), &lineBytes);
    if (!line) {
      if (received.size() - fieldsStart > maxFieldBytes) {
        return failed(431, "headerTooLarge",
                      "the header fields are larger than " + std::to_string(limits.maxHeaderBytes) + " bytes", path);
      }
      return HeadScan{};
    }
    at += lineBytes;
    if (at - fieldsStart > maxFieldBytes) {
      return failed(431, "headerTooLarge",
                    "the header fields are larger than " + std::to_string(limits.maxHeaderBytes) + " bytes", path);
    }
    if (line->empty()) break;
    if (line->front() == ' ' || line->front() == '\t') {
      return failed(400, "badRequest", "folded header lines are not accepted", path);
    }
    const std::size_t colon = line->find(':');
    if (colon == std::string_view::npos || !isToken(line->substr(0, colon))) {
      return failed(400, "badRequest", "a header line is not \"Name: value\"", path);
    }
    const std::string_view value = trimmed(line->substr(colon + 1));
    for (char c : value) {
      const auto u = static_cast<unsigned char>(c);
      if ((u < ' ' && c != '\t') || u == 0x7F) {
        return failed(400, "badRequest", "a header value holds a control character", path);
      }
    }
    std::string name = lowered(line->substr(0, colon));
    if (name == "content-length") {
      if (value.empty() || !std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return failed(400, "badRequest", "Content-Length is not a number", path);
      }
      std::size_t length = 0;
      for (char c : value) {
        const auto digit = static_cast<std::size_t>(c - '0');
        // length * 10 cannot pass the limit after the first test, so the second cannot wrap.
        if (length > limits.maxBodyBytes / 10 || digit > limits.maxBodyBytes - length * 10) {
          return failed(413, "payloadTooLarge",
                        "the request body is larger than " + std::to_string(limits.maxBodyBytes) + " bytes", path);
        }
        length = length * 10 + digit;
      }
      if (sawLength && length != head.contentLength) {
        return failed(400, "badRequest", "Content-Length is given twice with different values", path);
      }
      sawLength = true;
      head.contentLength = length;
    } else if (name == "transfer-encoding") {
      return failed(501, "notImplemented", "request bodies with a transfer coding are not accepted; send Content-Length",
                    path);
    } else if (name == "connection") {
      std::string_view rest = value;
      while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        const std::string_view option = trimmed(rest.substr(0, comma));
        if (equalsIgnoringCase(option, "close")) connectionClose = true;
        if (equalsIgnoringCase(option, "keep-alive") && !connectionClose) connectionClose = false;
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
      }
    } else if (name == "expect") {
      head.expectContinue = equalsIgnoringCase(value, "100-continue");
    }
    head.fields.emplace_back(std::move(name), std::string(value));
  }
  head.keepAlive = connectionClose ? !*connectionClose : head.minorVersion >= 1;

  HeadScan scan;
  scan.state = HeadScan::State::Complete;
  scan.head = std::move(head);
  scan.length = at;
  return scan;
}

Result<std::vector<std::pair<std::string, std::string>>, std::string> decodeForm(std::string_view text) {
  std::vector<std::pair<std::string, std::string>> pairs;
  std::size_t offset = 0;
  while (offset <= text.size()) {
    const std::size_t end = std::min(text.find('&', offset), text.size());
    const std::string_view part = text.substr(offset, end - offset);
    if (!part.empty()) {
      const std::size_t equals = part.find('=');
      Result<std::string, std::string> name = percentDecoded(part.substr(0, equals), offset);
      if (!name.ok()) return Failure{name.error()};
      std::string value;
      if (equals != std::string_view::npos) {
        Result<std::string, std::string> decoded = percentDecoded(part.substr(equals + 1), offset + equals + 1);
        if (!decoded.ok()) return Failure{decoded.error()};
        value = std::move(decoded).value();
      }
      pairs.emplace_back(std::move(name).value(), std::move(value));
    }
    offset = end + 1;
  }
  return pairs;
}

std::string_view reasonPhrase(int status) {
  switch (status) {
    case 100: return "Continue";
    case 200: return "OK";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 307: return "Temporary Redirect";
    case 308: return "Permanent Redirect";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 413: return "Payload Too Large";
    case 414: return "URI Too Long";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 503: return "Service Unavailable";
    case 505: return "HTTP Version Not Supported";
    default: return "Unknown";
  }
}

std::string responseHead(int status, std::string_view contentType, std::size_t length, bool keepAlive,
                         const std::vector<std::pair<std::string, std::string>>& fields) {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + std::string(reasonPhrase(status)) + "\r\n";
  for (const auto& [name, value] : fields) head += name + ": " + value + "\r\n";
  if (!contentType.empty()) head += "Content-Type: " + std::string(contentType) + "\r\n";
  head += "Content-Length: " + std::to_string(length) + "\r\n";
  head += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
  return head;
}

}  // namespace brivet::tools
