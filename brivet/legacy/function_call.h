// BrivetFunctionCall: a remote function call for the legacy model.
//
// Names the function by key path, carries its arguments (dictionaries are sent as JSON text, other values as
// their quoted description), the key-path suffixes whose values should come back, and an optional task name for
// performance traces. Immutable once built; share it freely across threads.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "brivet/platform/object.h"

namespace brivet {

class BrivetFunctionCall final : public CustomObject {
 public:
  BrivetFunctionCall(std::optional<std::string> callKeyPath, std::optional<std::vector<Object>> callArguments,
                     std::optional<std::vector<std::string>> returnKeyPathSuffixes,
                     std::optional<std::string> taskName = std::nullopt)
      : callKeyPath_(std::move(callKeyPath)),
        callArguments_(std::move(callArguments)),
        returnKeyPathSuffixes_(std::move(returnKeyPathSuffixes)),
        taskName_(std::move(taskName)) {}

  const std::optional<std::string>& callKeyPath() const { return callKeyPath_; }
  const std::optional<std::vector<Object>>& callArguments() const { return callArguments_; }
  const std::optional<std::vector<std::string>>& returnKeyPathSuffixes() const { return returnKeyPathSuffixes_; }
  const std::optional<std::string>& taskName() const { return taskName_; }

  std::string_view className() const override { return "BrivetFunctionCall"; }
  void* castTo(CustomTypeId type) override { return castAs<BrivetFunctionCall>(this, type); }
  // "<BrivetFunctionCall: 0x...> : keyPath = f, arguments = (1), returnPathSuffix = (name), taskName = (null)"
  std::string description() const override;

 private:
  const std::optional<std::string> callKeyPath_;
  const std::optional<std::vector<Object>> callArguments_;
  const std::optional<std::vector<std::string>> returnKeyPathSuffixes_;
  const std::optional<std::string> taskName_;
};

}  // namespace brivet
