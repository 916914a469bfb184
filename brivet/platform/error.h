// Error: the platform error object.
//
// An error has a domain (text), a code (integer) and a user-info dictionary
// (possibly nil); its message lives in the user info under
// `kLocalizedDescriptionKey`. Errors are immutable values, cheap to copy and
// safe to share across threads.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "brivet/platform/object.h"

namespace brivet {

inline constexpr std::string_view kLocalizedDescriptionKey = "localizedDescription";

class Error {
 public:
  Error(std::string domain, std::int64_t code, Object userInfo = Object());
  // An error whose user info holds only `description` under the localized-description key.
  static Error withDescription(std::string domain, std::int64_t code, std::string description);

  const std::string& domain() const { return impl_->domain; }
  std::int64_t code() const { return impl_->code; }
  const Object& userInfo() const { return impl_->userInfo; }  // a dictionary, or nil
  // The text under the localized-description key, or a generic sentence naming domain and code.
  std::string localizedDescription() const;
  // "Error Domain=<domain> Code=<code> \"<localized description>\" UserInfo=<user info>"
  std::string description() const;

  friend bool operator==(const Error& a, const Error& b);

 private:
  struct Impl {
    std::string domain;
    std::int64_t code;
    Object userInfo;
  };
  std::shared_ptr<const Impl> impl_;
};

}  // namespace brivet
