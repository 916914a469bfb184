// BrivetError: the core's one error type, with its failure reasons.
//
// A `BrivetError` says what failed: the data source (with a
// `DataSourceFailureReason`), the JSON Graph of a response (path-bound errors
// or an invalid attempt), the model (snapshot serialisation), or an operation
// attempted in a state that does not allow it. Errors are immutable values
// that own their payloads; `combined` gathers the errors of one response.
// Towards the platform an error becomes an `Error` with the domain
// "BrivetCore.BrivetError", its case number as code and empty user info: the
// reason stays with core code that holds the value, which shows it with
// `text()`, one line naming the case, the reason and its payload (status
// code, server messages, the paths of path-bound errors, the keys read before
// a path ended on a branch). `description()` is the structural form.
//
// Thread safety: values; share and read freely.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "brivet/core/values/json_value.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/error.h"
#include "brivet/platform/object.h"

namespace brivet {

inline constexpr std::string_view kBrivetErrorDomain = "BrivetCore.BrivetError";

// An error found in a graph, bound to the path where it lies.
struct PathBoundError {
  std::vector<std::string> path;
  JSONValue value;  // the error leaf's value

  const std::vector<std::string>& getPath() const { return path; }
  const JSONValue& getValue() const { return value; }
  std::string description() const;
  friend bool operator==(const PathBoundError& a, const PathBoundError& b) {
    return a.path == b.path && a.value == b.value;
  }
};

class BrivetError {
 public:
  enum class Kind : std::uint8_t {
    ResponseDataSourceFailed,
    ResponseJSONGraphFailed,
    ResponseModelFailed,
    InvalidAttempt
  };

  class DataSourceFailureReason {
   public:
    enum class Kind : std::uint8_t {
      HttpClientError,
      BadRequest,
      LegacyPathBoundError,
      LegacyPathBoundInnerError,
      HttpClientNil
    };
    struct InnerError {
      std::string message;
      std::optional<PathTree> pathTree;
      friend bool operator==(const InnerError&, const InnerError&) = default;
    };

    static DataSourceFailureReason httpClientError(std::int64_t statusCode, Object userInfo);
    static DataSourceFailureReason badRequest(std::string code, std::string message);
    static DataSourceFailureReason legacyPathBoundError(std::string message, std::optional<PathTree> pathTree);
    static DataSourceFailureReason legacyPathBoundInnerError(std::vector<InnerError> innerErrors);
    static DataSourceFailureReason httpClientNil();
    // Reads an error body: "code" and "message" texts give badRequest; an
    // "error" dictionary with a text "message" gives legacyPathBoundError (the
    // path of its "pql" array, if any and valid); one with an "innerErrors"
    // array gives legacyPathBoundInnerError; anything else gives nothing.
    static std::optional<DataSourceFailureReason> fromErrorBody(const Object& body);

    // The same reason remembering the HTTP failure it was read from (status and
    // user info), for a reason made from an error body. Equality, `text()` and
    // `description()` of such a reason are unchanged by it.
    DataSourceFailureReason withHTTPFailure(std::int64_t statusCode, Object userInfo) &&;

    Kind kind() const { return kind_; }
    // The HTTP status and user info: an httpClientError's own, or those given
    // to `withHTTPFailure` (0 and nil otherwise).
    std::int64_t statusCode() const { return statusCode_; }
    const Object& userInfo() const { return userInfo_; }
    const std::string& code() const { return code_; }
    const std::string& message() const { return message_; }
    const std::optional<PathTree>& pathTree() const { return pathTree_; }
    const std::vector<InnerError>& innerErrors() const { return innerErrors_; }

    std::string description() const;
    friend bool operator==(const DataSourceFailureReason& a, const DataSourceFailureReason& b);

   private:
    explicit DataSourceFailureReason(Kind kind) : kind_(kind) {}
    Kind kind_;
    std::int64_t statusCode_ = 0;
    Object userInfo_;
    std::string code_;
    std::string message_;
    std::optional<PathTree> pathTree_;
    std::vector<InnerError> innerErrors_;
  };

  class JSONGraphFailureReason {
   public:
    enum class Kind : std::uint8_t { PathBoundErrors, InvalidAttempt };
    static JSONGraphFailureReason pathBoundErrors(std::vector<PathBoundError> errors);
    static JSONGraphFailureReason invalidAttempt(std::vector<std::string> keys);

    Kind kind() const { return kind_; }
    const std::vector<PathBoundError>& errors() const { return errors_; }  // pathBoundErrors
    const std::vector<std::string>& keys() const { return keys_; }         // invalidAttempt

    std::string description() const;
    friend bool operator==(const JSONGraphFailureReason&, const JSONGraphFailureReason&) = default;

   private:
    explicit JSONGraphFailureReason(Kind kind) : kind_(kind) {}
    Kind kind_;
    std::vector<PathBoundError> errors_;
    std::vector<std::string> keys_;
  };

  enum class ModelFailureReason : std::uint8_t { serializationFailed = 0, deserializationFailed = 1 };

  static BrivetError responseDataSourceFailed(DataSourceFailureReason reason);
  static BrivetError responseJSONGraphFailed(JSONGraphFailureReason reason);
  static BrivetError responseModelFailed(ModelFailureReason reason);
  static BrivetError invalidAttempt();

  Kind kind() const { return kind_; }
  // The reason of the matching case (nullptr otherwise).
  const DataSourceFailureReason* dataSourceReason() const { return std::get_if<DataSourceFailureReason>(&reason_); }
  const JSONGraphFailureReason* jsonGraphReason() const { return std::get_if<JSONGraphFailureReason>(&reason_); }
  std::optional<ModelFailureReason> modelReason() const;

  // This error (already held) with a newly found one: path-bound errors
  // accumulate, another pair of the same case gives the newer one, an error of
  // a different case never displaces this one.
  BrivetError combined(const BrivetError& other) const;

  // The platform error: domain "BrivetCore.BrivetError", code = case number, empty user info.
  Error toError() const;
  // One line for people: "<case> (<reason>): <payload>", for example
  //   responseJSONGraphFailed (pathBoundErrors): 1 error: at videos.v1.title: {"message":"gone"}
  //   responseDataSourceFailed (badRequest): code "E42", message "no such list"
  // Texts from outside are quoted with control characters escaped, and cut
  // at a few hundred bytes; long lists name their first entries and a count.
  std::string text() const;
  // The structural form: "responseDataSourceFailed(reason: badRequest(code: ...))".
  std::string description() const;
  friend bool operator==(const BrivetError&, const BrivetError&) = default;

 private:
  BrivetError(Kind kind,
              std::variant<std::monostate, DataSourceFailureReason, JSONGraphFailureReason, ModelFailureReason> reason)
      : kind_(kind), reason_(std::move(reason)) {}
  Kind kind_;
  std::variant<std::monostate, DataSourceFailureReason, JSONGraphFailureReason, ModelFailureReason> reason_;
};

std::size_t hashValue(BrivetError::ModelFailureReason reason);

}  // namespace brivet
