#include "brivet/platform/error.h"

namespace brivet {

Error::Error(std::string domain, std::int64_t code, Object userInfo)
    : impl_(std::make_shared<const Impl>(Impl{std::move(domain), code, userInfo.copy()})) {}

Error Error::withDescription(std::string domain, std::int64_t code, std::string description) {
  return Error(std::move(domain), code,
               Object::dictionary({{Object(kLocalizedDescriptionKey), Object(std::move(description))}}));
}

std::string Error::localizedDescription() const {
  const Object text = impl_->userInfo[kLocalizedDescriptionKey];
  if (text.isString()) return std::string(text.stringValue());
  return "The operation could not be completed (" + impl_->domain + " error " + std::to_string(impl_->code) + ").";
}

std::string Error::description() const {
  std::string out = "Error Domain=" + impl_->domain + " Code=" + std::to_string(impl_->code) + " \"" +
                    localizedDescription() + "\"";
  if (!impl_->userInfo.isNil() && impl_->userInfo.count() > 0) out += " UserInfo=" + impl_->userInfo.description();
  return out;
}

bool operator==(const Error& a, const Error& b) {
  if (a.impl_ == b.impl_) return true;
  return a.impl_->domain == b.impl_->domain && a.impl_->code == b.impl_->code &&
         (a.impl_->userInfo.isNil() ? b.impl_->userInfo.isNil() || b.impl_->userInfo.count() == 0
                                    : a.impl_->userInfo.isEqual(b.impl_->userInfo) ||
                                          (a.impl_->userInfo.count() == 0 && b.impl_->userInfo.isNil()));
}

}  // namespace brivet
