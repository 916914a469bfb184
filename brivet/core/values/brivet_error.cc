#include "brivet/core/values/brivet_error.h"

#include <algorithm>

#include "brivet/platform/json.h"

namespace brivet {

namespace {

std::string describeStrings(const std::vector<std::string>& strings) {
  std::string out = "[";
  for (std::size_t i = 0; i < strings.size(); ++i) {
    if (i > 0) out += ", ";
    out += "\"" + strings[i] + "\"";
  }
  return out + "]";
}

std::string describeTree(const std::optional<PathTree>& tree) { return tree ? tree->description() : "nil"; }

// The tree of the single path in a "pql" entry; nothing when there is no valid path.
std::optional<PathTree> treeOfPQL(const Object& pql) {
  if (!pql.isArray()) return std::nullopt;
  std::optional<Path> path = PathTree::pathFromArray(pql);
  if (!path) return std::nullopt;
  return PathTree::fromPaths({*path});
}

// Bounds of the one-line text: bytes of one text from outside, entries of one list.
constexpr std::size_t kTextLimit = 240;
constexpr std::size_t kListLimit = 8;

// Where to cut `text` so that at most `kTextLimit` bytes stay, at a character boundary.
std::size_t cutPoint(std::string_view text) {
  if (text.size() <= kTextLimit) return text.size();
  std::size_t end = kTextLimit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;  // not inside a character
  return end;
}

// `text` cut to `kTextLimit` bytes ("..." marks the cut).
std::string cut(std::string_view text) {
  const std::size_t end = cutPoint(text);
  return std::string(text.substr(0, end)) + (end < text.size() ? "..." : "");
}

// `text` as the inside of a quoted string on one line: quotes, backslashes and control characters escaped, cut.
std::string oneLine(std::string_view text) {
  std::string out;
  const std::size_t end = cutPoint(text);
  for (std::size_t i = 0; i < end; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    switch (c) {
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      default:
        if (c < 0x20 || c == 0x7F) {
          static constexpr char kHex[] = "0123456789abcdef";
          out += "\\u00";
          out += kHex[c >> 4];
          out += kHex[c & 0xF];
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  if (end < text.size()) out += "...";
  return out;
}

std::string quoted(std::string_view text) { return "\"" + oneLine(text) + "\""; }

// A path as a key path ("videos.v1.title") when its keys are plain, else as a list of quoted keys.
std::string pathText(const std::vector<std::string>& path) {
  if (path.empty()) return "the root";
  auto plainChar = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '$' || c == '@';
  };
  const bool plain = std::all_of(path.begin(), path.end(), [&](const std::string& key) {
    return !key.empty() && key.size() <= kTextLimit && std::all_of(key.begin(), key.end(), plainChar);
  });
  std::string out = plain ? "" : "[";
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (out.size() > kTextLimit) {
      out += plain ? "..." : ", ...";
      break;
    }
    if (i > 0) out += plain ? "." : ", ";
    out += plain ? path[i] : quoted(path[i]);
  }
  return plain ? out : out + "]";
}

std::string treeText(const std::optional<PathTree>& tree) {
  if (!tree) return "no path";
  std::string out;
  for (const std::string& keyPath : tree->keyPathStrings()) {
    if (out.size() > kTextLimit) break;
    out += (out.empty() ? "" : ", ") + keyPath;
  }
  return oneLine(out);  // key paths from a server may hold anything
}

// An object as compact JSON (sorted keys; JSON text has no raw line breaks), else its description, escaped.
std::string objectText(const Object& object) {
  Result<std::string> json = writeJSON(object, JSONWritingOptions::SortedKeys | JSONWritingOptions::FragmentsAllowed);
  return json.ok() ? cut(json.value()) : oneLine(object.description());
}

// "<n> errors: a; b; ... and <m> more"
template <class T, class Describe>
std::string listText(const std::vector<T>& items, Describe describe) {
  std::string out = std::to_string(items.size()) + (items.size() == 1 ? " error: " : " errors: ");
  for (std::size_t i = 0; i < items.size() && i < kListLimit; ++i) out += (i > 0 ? "; " : "") + describe(items[i]);
  if (items.size() > kListLimit) out += "; and " + std::to_string(items.size() - kListLimit) + " more";
  return out;
}

}  // namespace

std::string PathBoundError::description() const {
  return "PathBoundError(path: " + describeStrings(path) + ", value: " + value.description() + ")";
}

// --- DataSourceFailureReason ---

using DataSourceFailureReason = BrivetError::DataSourceFailureReason;
using JSONGraphFailureReason = BrivetError::JSONGraphFailureReason;

DataSourceFailureReason DataSourceFailureReason::httpClientError(std::int64_t statusCode, Object userInfo) {
  DataSourceFailureReason r(Kind::HttpClientError);
  r.statusCode_ = statusCode;
  r.userInfo_ = userInfo.isNil() ? Object::dictionary() : userInfo.copy();
  return r;
}

DataSourceFailureReason DataSourceFailureReason::badRequest(std::string code, std::string message) {
  DataSourceFailureReason r(Kind::BadRequest);
  r.code_ = std::move(code);
  r.message_ = std::move(message);
  return r;
}

DataSourceFailureReason DataSourceFailureReason::legacyPathBoundError(std::string message,
                                                                      std::optional<PathTree> pathTree) {
  DataSourceFailureReason r(Kind::LegacyPathBoundError);
  r.message_ = std::move(message);
  r.pathTree_ = std::move(pathTree);
  return r;
}

DataSourceFailureReason DataSourceFailureReason::legacyPathBoundInnerError(std::vector<InnerError> innerErrors) {
  DataSourceFailureReason r(Kind::LegacyPathBoundInnerError);
  r.innerErrors_ = std::move(innerErrors);
  return r;
}

DataSourceFailureReason DataSourceFailureReason::httpClientNil() {
  return DataSourceFailureReason(Kind::HttpClientNil);
}

DataSourceFailureReason DataSourceFailureReason::withHTTPFailure(std::int64_t statusCode, Object userInfo) && {
  statusCode_ = statusCode;
  userInfo_ = std::move(userInfo);
  return std::move(*this);
}

std::optional<DataSourceFailureReason> DataSourceFailureReason::fromErrorBody(const Object& body) {
  const Dictionary* d = body.asDictionary();
  if (d == nullptr) return std::nullopt;
  const Object code = d->objectForKey("code");
  const Object message = d->objectForKey("message");
  if (code.isString() && message.isString()) {
    return badRequest(std::string(code.stringValue()), std::string(message.stringValue()));
  }
  const Dictionary* error = d->objectForKey("error").asDictionary();
  if (error == nullptr) return std::nullopt;
  const Object errorMessage = error->objectForKey("message");
  if (errorMessage.isString()) {
    return legacyPathBoundError(std::string(errorMessage.stringValue()), treeOfPQL(error->objectForKey("pql")));
  }
  const Array* inner = error->objectForKey("innerErrors").asArray();
  if (inner == nullptr) return std::nullopt;
  std::vector<InnerError> pairs;
  for (const Object& element : *inner) {
    const Dictionary* e = element.asDictionary();
    if (e == nullptr) continue;
    const Object innerMessage = e->objectForKey("message");
    const Object pql = e->objectForKey("pql");
    if (!innerMessage.isString() || !pql.isArray()) continue;
    pairs.push_back({std::string(innerMessage.stringValue()), treeOfPQL(pql)});
  }
  return legacyPathBoundInnerError(std::move(pairs));
}

std::string DataSourceFailureReason::description() const {
  switch (kind_) {
    case Kind::HttpClientError:
      return "httpClientError(statusCode: " + std::to_string(statusCode_) + ", userInfo: " + userInfo_.description() +
             ")";
    case Kind::BadRequest: return "badRequest(code: \"" + code_ + "\", message: \"" + message_ + "\")";
    case Kind::LegacyPathBoundError:
      return "legacyPathBoundError(message: \"" + message_ + "\", pathTree: " + describeTree(pathTree_) + ")";
    case Kind::LegacyPathBoundInnerError: {
      std::string out = "legacyPathBoundInnerError(innerErrors: [";
      for (std::size_t i = 0; i < innerErrors_.size(); ++i) {
        if (i > 0) out += ", ";
        out +=
            "(message: \"" + innerErrors_[i].message + "\", pathTree: " + describeTree(innerErrors_[i].pathTree) + ")";
      }
      return out + "])";
    }
    case Kind::HttpClientNil: return "httpClientNil";
  }
  return {};
}

bool operator==(const DataSourceFailureReason& a, const DataSourceFailureReason& b) {
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case DataSourceFailureReason::Kind::HttpClientError:
      return a.statusCode_ == b.statusCode_ && a.userInfo_.isEqual(b.userInfo_);
    case DataSourceFailureReason::Kind::BadRequest: return a.code_ == b.code_ && a.message_ == b.message_;
    case DataSourceFailureReason::Kind::LegacyPathBoundError:
      return a.message_ == b.message_ && a.pathTree_ == b.pathTree_;
    case DataSourceFailureReason::Kind::LegacyPathBoundInnerError: return a.innerErrors_ == b.innerErrors_;
    case DataSourceFailureReason::Kind::HttpClientNil: return true;
  }
  return false;
}

// --- JSONGraphFailureReason ---

JSONGraphFailureReason JSONGraphFailureReason::pathBoundErrors(std::vector<PathBoundError> errors) {
  JSONGraphFailureReason r(Kind::PathBoundErrors);
  r.errors_ = std::move(errors);
  return r;
}

JSONGraphFailureReason JSONGraphFailureReason::invalidAttempt(std::vector<std::string> keys) {
  JSONGraphFailureReason r(Kind::InvalidAttempt);
  r.keys_ = std::move(keys);
  return r;
}

std::string JSONGraphFailureReason::description() const {
  if (kind_ == Kind::InvalidAttempt) return "invalidAttempt(" + describeStrings(keys_) + ")";
  std::string out = "pathBoundErrors([";
  for (std::size_t i = 0; i < errors_.size(); ++i) {
    if (i > 0) out += ", ";
    out += errors_[i].description();
  }
  return out + "])";
}

// --- BrivetError ---

BrivetError BrivetError::responseDataSourceFailed(DataSourceFailureReason reason) {
  return BrivetError(Kind::ResponseDataSourceFailed, std::move(reason));
}
BrivetError BrivetError::responseJSONGraphFailed(JSONGraphFailureReason reason) {
  return BrivetError(Kind::ResponseJSONGraphFailed, std::move(reason));
}
BrivetError BrivetError::responseModelFailed(ModelFailureReason reason) {
  return BrivetError(Kind::ResponseModelFailed, reason);
}
BrivetError BrivetError::invalidAttempt() { return BrivetError(Kind::InvalidAttempt, std::monostate()); }

std::optional<BrivetError::ModelFailureReason> BrivetError::modelReason() const {
  if (const ModelFailureReason* r = std::get_if<ModelFailureReason>(&reason_)) return *r;
  return std::nullopt;
}

BrivetError BrivetError::combined(const BrivetError& other) const {
  if (kind_ != other.kind_) return *this;
  if (kind_ != Kind::ResponseJSONGraphFailed) return other;
  const JSONGraphFailureReason& mine = *jsonGraphReason();
  const JSONGraphFailureReason& theirs = *other.jsonGraphReason();
  if (mine.kind() != theirs.kind()) return *this;
  if (mine.kind() == JSONGraphFailureReason::Kind::InvalidAttempt) return other;
  std::vector<PathBoundError> all = mine.errors();
  all.insert(all.end(), theirs.errors().begin(), theirs.errors().end());
  return responseJSONGraphFailed(JSONGraphFailureReason::pathBoundErrors(std::move(all)));
}

Error BrivetError::toError() const {
  return Error(std::string(kBrivetErrorDomain), static_cast<std::int64_t>(kind_), Object::dictionary());
}

std::string BrivetError::description() const {
  switch (kind_) {
    case Kind::ResponseDataSourceFailed:
      return "responseDataSourceFailed(reason: " + dataSourceReason()->description() + ")";
    case Kind::ResponseJSONGraphFailed:
      return "responseJSONGraphFailed(reason: " + jsonGraphReason()->description() + ")";
    case Kind::ResponseModelFailed:
      return std::string("responseModelFailed(reason: ") +
             (*modelReason() == ModelFailureReason::serializationFailed ? "serializationFailed"
                                                                        : "deserializationFailed") +
             ")";
    case Kind::InvalidAttempt: return "invalidAttempt";
  }
  return {};
}

std::string BrivetError::text() const {
  switch (kind_) {
    case Kind::ResponseDataSourceFailed: {
      const DataSourceFailureReason& r = *dataSourceReason();
      switch (r.kind()) {
        case DataSourceFailureReason::Kind::HttpClientError: {
          std::string out = "responseDataSourceFailed (httpClientError): HTTP status " + std::to_string(r.statusCode());
          if (r.userInfo().count() > 0) out += ", " + objectText(r.userInfo());
          return out;
        }
        case DataSourceFailureReason::Kind::BadRequest:
          return "responseDataSourceFailed (badRequest): code " + quoted(r.code()) + ", message " + quoted(r.message());
        case DataSourceFailureReason::Kind::LegacyPathBoundError:
          return "responseDataSourceFailed (legacyPathBoundError): " + quoted(r.message()) + " at " +
                 treeText(r.pathTree());
        case DataSourceFailureReason::Kind::LegacyPathBoundInnerError:
          return "responseDataSourceFailed (legacyPathBoundInnerError): " +
                 listText(r.innerErrors(), [](const DataSourceFailureReason::InnerError& e) {
                   return quoted(e.message) + " at " + treeText(e.pathTree);
                 });
        case DataSourceFailureReason::Kind::HttpClientNil:
          return "responseDataSourceFailed (httpClientNil): there is no HTTP client to send the request with";
      }
      return {};
    }
    case Kind::ResponseJSONGraphFailed: {
      const JSONGraphFailureReason& r = *jsonGraphReason();
      if (r.kind() == JSONGraphFailureReason::Kind::InvalidAttempt) {
        return "responseJSONGraphFailed (invalidAttempt): the path ends on a branch, not a value, at " +
               pathText(r.keys());
      }
      return "responseJSONGraphFailed (pathBoundErrors): " + listText(r.errors(), [](const PathBoundError& e) {
               return "at " + pathText(e.path) + ": " + objectText(e.value.toAnyType());
             });
    }
    case Kind::ResponseModelFailed:
      return *modelReason() == ModelFailureReason::serializationFailed
                 ? "responseModelFailed (serializationFailed): the cache snapshot could not be written"
                 : "responseModelFailed (deserializationFailed): the cache snapshot could not be read";
    case Kind::InvalidAttempt: return "invalidAttempt: the operation is not allowed in this state";
  }
  return {};
}

std::size_t hashValue(BrivetError::ModelFailureReason reason) { return static_cast<std::size_t>(reason); }

}  // namespace brivet
