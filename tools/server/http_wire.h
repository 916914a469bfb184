// The HTTP/1.1 request side as the loopback server reads it: the request head
// (request line and header fields) and form-encoded parameters.
//
// Every byte here comes from the network, so everything is written for
// hostile input: nothing reads past the text it is given, what is kept is
// bounded by the caller's limits, and a malformed or oversized request is
// answered with an HTTP status and a reason, never by failing in any other
// way. Pure functions; safe from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brivet/platform/result.h"

namespace brivet::tools {

struct HTTPWireLimits {
  std::size_t maxTargetBytes = 1u << 20;  // the request target: path and query
  std::size_t maxBodyBytes = 1u << 20;
  std::size_t maxHeaderBytes = 64u << 10;  // the header fields together
};

// Why a request cannot be served: 400 (malformed), 413 (body too large), 414
// (target too long), 431 (header fields too large), 501 (a transfer coding
// other than none), 505 (not HTTP/1.x). `path` is the target's path when it
// could be read (it tells the server which dialect to answer in).
struct HTTPWireError {
  int status = 400;
  std::string code;
  std::string message;
  std::string path;
};

struct HTTPRequestHead {
  std::string method;
  std::string path;   // the target up to '?'
  std::string query;  // the target after '?', still encoded
  int minorVersion = 1;
  // Field names in lower case, values without surrounding blanks, in order.
  std::vector<std::pair<std::string, std::string>> fields;
  std::size_t contentLength = 0;
  bool keepAlive = true;
  bool expectContinue = false;

  // The first value of a field (name in lower case).
  std::optional<std::string_view> field(std::string_view name) const;
};

// What the bytes received so far hold: not yet a whole head, a head of
// `length` bytes (its blank line included), or an error.
struct HeadScan {
  enum class State { NeedMore, Complete, Failed };
  State state = State::NeedMore;
  HTTPRequestHead head;
  std::size_t length = 0;
  HTTPWireError error;
};
HeadScan scanRequestHead(std::string_view received, const HTTPWireLimits& limits);

// "a=1&b=%22x%22" as its pairs, percent escapes and '+' (a blank) decoded, in
// order; an empty text has none. A malformed escape is an error.
Result<std::vector<std::pair<std::string, std::string>>, std::string> decodeForm(std::string_view text);

// The reason phrase of a status ("Not Found"), "Unknown" for others.
std::string_view reasonPhrase(int status);

// The head of a response with a body of `length` bytes and more header fields.
std::string responseHead(int status, std::string_view contentType, std::size_t length, bool keepAlive,
                         const std::vector<std::pair<std::string, std::string>>& fields = {});

}  // namespace brivet::tools
