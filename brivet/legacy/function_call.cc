#include "brivet/legacy/function_call.h"

#include "brivet/platform/format.h"

namespace brivet {
namespace {

Object optionalText(const std::optional<std::string>& text) { return text ? Object(*text) : Object(); }

template <class T>
Object optionalArray(const std::optional<std::vector<T>>& values) {
  if (!values) return Object();
  std::vector<Object> elements(values->begin(), values->end());
  return Object::array(std::move(elements));
}

}  // namespace

std::string BrivetFunctionCall::description() const {
  return formatString("%@ : keyPath = %@, arguments = %@, returnPathSuffix = %@, taskName = %@",
                      CustomObject::description(), optionalText(callKeyPath_), optionalArray(callArguments_),
                      optionalArray(returnKeyPathSuffixes_), optionalText(taskName_));
}

}  // namespace brivet
