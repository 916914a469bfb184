#include "tools/server/json_graph_server.h"

#include <atomic>
#include <map>
#include <mutex>

#include "brivet/core/cache/internal/graph_walk.h"
#include "brivet/core/values/internal/value_access.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/json.h"
#include "tools/server/http_server.h"

namespace brivet::tools {
namespace {

// Ranges are expanded key by key on the server: wider ones are refused.
constexpr std::int64_t kMaxRangeWidth = 100000;
// A write is re-rooted through at most this many references; a longer chain
// (a cycle) stops there and the write lands where it stopped. A set follows
// at most kMaxReferencesPerSet in all, so no request can keep the server busy.
constexpr std::size_t kMaxReferencesPerWrite = 1024;
constexpr std::size_t kMaxReferencesPerSet = 100000;
// Writes never land deeper than a document can nest.
constexpr std::size_t kMaxWriteDepth = 256;

constexpr std::string_view kCorePath = "/model.json";
constexpr std::string_view kLegacyPath = "/legacy/model.json";

struct RequestError {
  int status;
  std::string code;
  std::string message;
};

enum class Dialect { Core, Legacy };

Dialect dialectOf(std::string_view path) { return path.rfind("/legacy/", 0) == 0 ? Dialect::Legacy : Dialect::Core; }

// Each dialect reports failures the way its data source reads them: the core
// model reads {"code", "message"} from the body of an error status; the
// legacy model reads the answer's "error" object ({"message", ...}).
std::string errorBody(Dialect dialect, const RequestError& error) {
  const Object details = Object::dictionary({{"code", error.code}, {"message", error.message}});
  const Object body = dialect == Dialect::Core ? details : Object::dictionary({{"error", details}});
  return writeJSON(body).valueOr("{}");
}

HTTPServerResponse errorResponse(Dialect dialect, const RequestError& error) {
  HTTPServerResponse response;
  response.status = error.status;
  response.body = errorBody(dialect, error);
  return response;
}

// Every parameter value is JSON text; query and form body parameters together.
Result<Object, RequestError> decodeParameters(const HTTPServerRequest& request) {
  const Object parameters = Object::mutableDictionary();
  for (const std::string* text : {&request.query, &request.body}) {
    auto pairs = decodeForm(*text);
    if (!pairs.ok()) return Failure{RequestError{400, "badParameter", "the parameters are not form-encoded: " + pairs.error()}};
    for (const auto& [name, value] : pairs.value()) {
      Result<Object> parsed = parseJSON(value, JSONReadingOptions::FragmentsAllowed | JSONReadingOptions::MutableContainers);
      if (!parsed.ok()) {
        return Failure{RequestError{400, "badParameter",
                                    "parameter \"" + name + "\" is not JSON text: " +
                                        parsed.error().localizedDescription()}};
      }
      parameters.asMutableDictionary()->setObject(parsed.value(), name);
    }
  }
  return parameters;
}

Result<std::vector<Path>, RequestError> checkedPaths(const PathTree& tree) {
  std::vector<Path> paths = tree.paths();
  for (const Path& path : paths) {
    for (const KeySet& keys : path) {
      for (const Key& key : keys) {
        if (key.kind() == Key::Kind::Range && key.to() >= key.from() && key.to() - key.from() >= kMaxRangeWidth) {
          return Failure{RequestError{400, "rangeTooWide", "a range wider than " + std::to_string(kMaxRangeWidth) +
                                                               " keys: " + key.description()}};
        }
      }
    }
  }
  return paths;
}

// The sub-graph `paths` reach in `document`, references followed.
Result<JSONGraph, RequestError> extractGraph(const JSONGraph& document, const std::vector<Path>& paths) {
  if (paths.empty()) return JSONGraph::emptyObject();
  Result<internal::Extraction, BrivetError> extraction = internal::extract(internal::slot(document), paths, true);
  if (!extraction.ok()) return Failure{RequestError{400, "invalidPath", extraction.error().description()}};
  return internal::graphFromSlot(std::move(extraction.value().graph));
}

bool isReference(const JSONGraph& node) { return node.isLeaf() && node.leaf().kind() == JSONGraphLeaf::Kind::Ref; }

// Where a write at `path` lands in `document`: every key but the last is read
// through the references it meets (a write through lists.top.0 to a video
// changes the video, not the list). `hops` counts the references followed.
std::vector<std::string> landingPath(const JSONGraph& document, std::vector<std::string> path, std::size_t& hops) {
  for (;;) {
    std::optional<JSONGraph> node = document;
    bool rerooted = false;
    for (std::size_t i = 0; i + 1 < path.size() && node; ++i) {
      node = node->find(path[i]);
      if (node && isReference(*node) && hops < kMaxReferencesPerWrite) {
        ++hops;
        std::vector<std::string> target = node->leaf().path();
        target.insert(target.end(), path.begin() + static_cast<std::ptrdiff_t>(i) + 1, path.end());
        path = std::move(target);
        // Too deep to land anywhere: the caller refuses it.
        if (path.size() > kMaxWriteDepth) return path;
        rerooted = true;
        break;
      }
    }
    if (!rerooted) return path;
  }
}

// The leaves (and empty branches) of a written graph, with their paths.
void writtenNodes(const JSONGraph& graph, std::vector<std::string>& path,
                  std::vector<std::pair<std::vector<std::string>, JSONGraph>>& out) {
  if (graph.isLeaf() || graph.size() == 0) {
    if (!path.empty()) out.emplace_back(path, graph);
    return;
  }
  graph.forEach([&](std::string_view key, const JSONGraph& child) {
    path.emplace_back(key);
    writtenNodes(child, path, out);
    path.pop_back();
  });
}

// Nested dictionaries that hold each node at its path; a later node at the same path wins.
void place(const Object& root, const std::vector<std::string>& path, const Object& value) {
  Object node = root;
  for (std::size_t i = 0; i + 1 < path.size(); ++i) {
    Object child = node[path[i]];
    if (!child.isMutableDictionary()) {
      child = Object::mutableDictionary();
      node.asMutableDictionary()->setObject(child, path[i]);
    }
    node = child;
  }
  node.asMutableDictionary()->setObject(value, path.back());
}

// The written graph re-rooted through the document's references.
Result<JSONGraph, RequestError> landedGraph(const JSONGraph& document, const JSONGraph& written) {
  std::vector<std::pair<std::vector<std::string>, JSONGraph>> nodes;
  std::vector<std::string> path;
  writtenNodes(written, path, nodes);
  const Object root = Object::mutableDictionary();
  std::size_t followed = 0;
  for (auto& [keys, node] : nodes) {
    std::size_t hops = 0;
    const std::vector<std::string> landing = landingPath(document, std::move(keys), hops);
    followed += hops;
    if (followed > kMaxReferencesPerSet) {
      return Failure{RequestError{400, "tooManyReferences", "a set that follows more than " +
                                                                std::to_string(kMaxReferencesPerSet) + " references"}};
    }
    if (landing.size() > kMaxWriteDepth) {
      return Failure{RequestError{400, "writeTooDeep", "a write lands deeper than " + std::to_string(kMaxWriteDepth) +
                                                            " levels"}};
    }
    place(root, landing, node.toAnyType());
  }
  return JSONGraph::fromAny(root);
}

// A path given as an array of text keys ("callPath").
std::vector<std::string> textPath(const Object& keys) {
  std::vector<std::string> path;
  if (const Array* array = keys.asArray()) {
    for (const Object& key : *array) path.push_back(key.isString() ? std::string(key.stringValue()) : key.description());
  }
  return path;
}

std::string joined(const std::vector<std::string>& keys) {
  std::string out;
  for (const std::string& key : keys) out += (out.empty() ? "" : ".") + key;
  return out;
}

// A string that holds JSON text (how both models send structured values inside
// arrays) is parsed; anything else stays as it is.
Object parsedIfJSONText(const Object& value) {
  if (!value.isString()) return value;
  Result<Object> parsed = parseJSON(value.stringValue(), JSONReadingOptions::FragmentsAllowed |
                                                            JSONReadingOptions::MutableContainers);
  return parsed.ok() ? parsed.value() : value;
}

Object arrayOfParsedTexts(const Object& value) {
  std::vector<Object> items;
  if (const Array* array = value.asArray()) {
    for (const Object& item : *array) items.push_back(parsedIfJSONText(item));
  }
  return Object::array(std::move(items));
}

Path textKeysPath(const std::vector<std::string>& keys) {
  Path path;
  for (const std::string& key : keys) path.push_back({Key::string(key)});
  return path;
}

Path concatenated(Path head, const Path& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

Object legacyFromWire(const Object& node) {
  if (const Array* array = node.asArray()) {
    std::vector<Object> elements;
    for (const Object& e : *array) elements.push_back(legacyFromWire(e));
    return Object::mutableArray(std::move(elements));
  }
  const Dictionary* dictionary = node.asDictionary();
  if (dictionary == nullptr) return node;
  const Object type = node["$type"];
  if (type.isString()) {
    const std::string_view kind = type.stringValue();
    const Object value = node["value"];
    if (kind == "ref" && value.isArray()) return value.mutableCopy();
    const Object leaf = Object::mutableDictionary({{"$type", "leaf"}});
    if (kind == "error") {
      leaf.setValueForKey(value.isNil() ? Object::null() : value, "error");
    } else if (const Dictionary* payload = value.asDictionary()) {
      for (const auto& [k, v] : *payload) leaf.asMutableDictionary()->setObject(legacyFromWire(v), k);
    } else if (!value.isNil()) {
      leaf.setValueForKey(value, "value");
    }
    if (const Object expires = node["$expires"]; expires.isNumber()) leaf.setValueForKey(expires, "$expires");
    return leaf;
  }
  const Object out = Object::mutableDictionary();
  for (const auto& [k, v] : *dictionary) out.asMutableDictionary()->setObject(legacyFromWire(v), k);
  return out;
}

Result<std::string, RequestError> wrapped(const char* key, const Result<std::string>& text) {
  if (!text.ok()) return Failure{RequestError{500, "serverError", text.error().localizedDescription()}};
  return std::string("{\"") + key + "\":" + text.value() + "}";
}

}  // namespace

Object toLegacyForm(const JSONGraph& graph) { return legacyFromWire(graph.toAnyType()); }

struct JSONGraphServer::State {
  std::unique_ptr<HTTPServer> http;
  std::shared_ptr<Cache> cache;
  std::atomic<std::size_t> requests{0};
  std::mutex mu;  // functions, interceptor; also runs functions and sets one at a time
  std::map<std::string, Function> functions;
  Interceptor interceptor;
  RequestObserver observer;

  JSONGraph document() const { return cache->jsonGraph(); }

  // Writes and waits until readers see the result.
  void write(const std::function<void()>& change) {
    change();
    cacheQueue()->sync([] {});
  }

  std::optional<HTTPServerResponse> intercepted(const HTTPServerRequest& request) {
    Interceptor hook;
    RequestObserver watch;
    {
      std::lock_guard<std::mutex> lock(mu);
      hook = interceptor;
      watch = observer;
    }
    const std::string target = request.query.empty() ? request.path : request.path + "?" + request.query;
    if (watch) watch(request.method, target, request.body);
    if (!hook) return std::nullopt;
    std::optional<CannedResponse> canned = hook(request.method, target);
    if (!canned) return std::nullopt;
    HTTPServerResponse response;
    response.status = canned->status;
    response.body = canned->body;
    response.contentType = canned->contentType;
    response.fields = canned->fields;
    response.dropConnection = canned->dropConnection;
    return response;
  }

  HTTPServerResponse serve(const HTTPServerRequest& request) {
    ++requests;
    if (std::optional<HTTPServerResponse> canned = intercepted(request)) return *std::move(canned);
    const Dialect dialect = dialectOf(request.path);
    if (request.path != kCorePath && request.path != kLegacyPath) {
      return errorResponse(dialect, {404, "notFound", "no JSON Graph is served at " + request.path});
    }
    if (request.method != "GET" && request.method != "POST") {
      return errorResponse(dialect, {405, "methodNotAllowed", "only GET and POST are served, not " + request.method});
    }
    Result<Object, RequestError> parameters = decodeParameters(request);
    Result<std::string, RequestError> answer =
        !parameters.ok()           ? Result<std::string, RequestError>(Failure{parameters.error()})
        : dialect == Dialect::Core ? (request.method == "GET" ? coreGet(parameters.value()) : corePost(parameters.value()))
                                   : (request.method == "GET" ? legacyGet(parameters.value())
                                                              : legacyPost(parameters.value()));
    if (!answer.ok()) return errorResponse(dialect, answer.error());
    HTTPServerResponse response;
    response.body = std::move(answer).value();
    return response;
  }

  Result<std::string, RequestError> coreGet(const Object& parameters) {
    const Object pathArrays = parameters["path"];
    if (!pathArrays.isArray()) return Failure{RequestError{400, "badParameter", "\"path\" must be an array of paths"}};
    Result<std::vector<Path>, RequestError> paths = checkedPaths(PathTree::fromPathArrays(pathArrays));
    if (!paths.ok()) return Failure{paths.error()};
    Result<JSONGraph, RequestError> graph = extractGraph(document(), paths.value());
    if (!graph.ok()) return Failure{graph.error()};
    return wrapped("jsonGraph", graph->toJSONText());
  }

  Result<std::string, RequestError> corePost(const Object& parameters) {
    const std::string_view method = parameters["method"].stringValue();
    if (method == "set") return set(parameters["param"]);
    if (method == "call") {
      Result<CallAnswer, RequestError> result = call(textPath(parameters["callPath"]), arrayOfParsedTexts(parameters["param"]),
                                                     parameters["pathSuffix"], parameters["path"]);
      if (!result.ok()) return Failure{result.error()};
      Result<std::string> graph = result->graph.toJSONText();
      Result<std::string> paths = writeJSON(result->paths);
      Result<std::string> invalidated = writeJSON(result->invalidated);
      if (!graph.ok() || !paths.ok() || !invalidated.ok()) {
        return Failure{RequestError{500, "serverError", "the answer cannot be written"}};
      }
      return "{\"jsonGraph\":" + graph.value() + ",\"paths\":" + paths.value() + ",\"invalidated\":" +
             invalidated.value() + "}";
    }
    return Failure{RequestError{400, "badParameter", "\"method\" must be \"set\" or \"call\""}};
  }

  // Merges the written graph through the document's references, then reads
  // the written paths back (references followed).
  Result<std::string, RequestError> set(const Object& param) {
    if (!param.isDictionary()) return Failure{RequestError{400, "badParameter", "\"param\" must be a JSON Graph"}};
    const JSONGraph written = JSONGraph::fromAny(param);
    Result<std::vector<Path>, RequestError> paths = checkedPaths(PathTree::fromGraph(written));
    if (!paths.ok()) return Failure{paths.error()};
    {
      std::lock_guard<std::mutex> lock(mu);
      Result<JSONGraph, RequestError> landed = landedGraph(document(), written);
      if (!landed.ok()) return Failure{landed.error()};
      write([&] { cache->merge(landed.value()); });
    }
    Result<JSONGraph, RequestError> graph = extractGraph(document(), paths.value());
    if (!graph.ok()) return Failure{graph.error()};
    return wrapped("jsonGraph", graph->toJSONText());
  }

  Result<std::string, RequestError> legacyGet(const Object& parameters) {
    const Object texts = parameters["path"];
    if (!texts.isArray()) {
      return Failure{RequestError{400, "badParameter", "\"path\" must be an array of key-path array texts"}};
    }
    Result<std::vector<Path>, RequestError> paths = checkedPaths(PathTree::fromPathArrays(arrayOfParsedTexts(texts)));
    if (!paths.ok()) return Failure{paths.error()};
    Result<JSONGraph, RequestError> graph = extractGraph(document(), paths.value());
    if (!graph.ok()) return Failure{graph.error()};
    return wrapped("value", writeJSON(toLegacyForm(graph.value())));
  }

  Result<std::string, RequestError> legacyPost(const Object& parameters) {
    if (parameters["method"].stringValue() != "call") {
      return Failure{RequestError{400, "badParameter", "\"method\" must be \"call\""}};
    }
    // The suffixes arrive as key-path array texts joined by ",".
    Object suffixes;
    if (parameters["pathSuffix"].isString()) {
      suffixes = parseJSON("[" + std::string(parameters["pathSuffix"].stringValue()) + "]").valueOr(Object());
    }
    Result<CallAnswer, RequestError> result = call(textPath(parsedIfJSONText(parameters["callPath"])),
                                                   arrayOfParsedTexts(parameters["param"]), suffixes,
                                                   arrayOfParsedTexts(parameters["path"]));
    if (!result.ok()) return Failure{result.error()};
    const Object body = Object::dictionary(
        {{"value", toLegacyForm(result->graph)}, {"paths", result->paths}, {"invalidated", result->invalidated}});
    Result<std::string> text = writeJSON(body);
    if (!text.ok()) return Failure{RequestError{500, "serverError", text.error().localizedDescription()}};
    return text.value();
  }

  struct CallAnswer {
    JSONGraph graph;
    Object paths;
    Object invalidated;
  };

  // Runs a registered function and reads back what answers it.
  Result<CallAnswer, RequestError> call(const std::vector<std::string>& function, const Object& arguments,
                                        const Object& suffixes, const Object& thisPaths) {
    std::lock_guard<std::mutex> lock(mu);
    auto found = functions.find(joined(function));
    if (found == functions.end()) {
      return Failure{RequestError{404, "unknownFunction", "no function \"" + joined(function) + "\""}};
    }
    Result<CallResult, std::string> result = found->second(document(), arguments);
    if (!result.ok()) return Failure{RequestError{400, "callFailed", result.error()}};
    const PathTree invalidated = PathTree::fromPathArrays(result->invalidated);
    write([&] {
      if (invalidated.kind() == PathTree::Kind::Object && !invalidated.entries().empty()) cache->invalidate(invalidated);
      cache->merge(result->jsonGraph);
    });
    std::vector<Path> read = PathTree::fromPathArrays(result->paths).paths();
    // The suffixes are read below each answered path that ends on a reference.
    const std::vector<Path> suffixPaths = PathTree::fromPathArrays(suffixes).paths();
    if (const Array* answered = result->paths.asArray(); answered != nullptr && !suffixPaths.empty()) {
      const JSONGraph now = document();
      for (const Object& keys : *answered) {
        const std::vector<std::string> path = textPath(keys);
        std::optional<JSONGraph> node = now;
        for (const std::string& key : path) node = node ? node->find(key) : std::nullopt;
        if (!node || !isReference(*node)) continue;
        for (const Path& suffix : suffixPaths) read.push_back(concatenated(textKeysPath(path), suffix));
      }
    }
    const std::vector<std::string> owner(function.begin(), function.end() - (function.empty() ? 0 : 1));
    for (const Path& path : PathTree::fromPathArrays(thisPaths).paths()) {
      read.push_back(concatenated(textKeysPath(owner), path));
    }
    const PathTree readTree = PathTree::fromPaths(read);
    Result<std::vector<Path>, RequestError> checked = checkedPaths(readTree);
    if (!checked.ok()) return Failure{checked.error()};
    Result<JSONGraph, RequestError> graph = extractGraph(document(), checked.value());
    if (!graph.ok()) return Failure{graph.error()};
    return CallAnswer{graph.value(), readTree.toJSONArray(),
                      result->invalidated.isNil() ? Object::array() : result->invalidated};
  }
};

Result<std::unique_ptr<JSONGraphServer>, std::string> JSONGraphServer::start(JSONGraph document, int port,
                                                                             HTTPWireLimits limits) {
  auto state = std::make_shared<State>();
  state->cache = Cache::create(std::move(document));
  HTTPServer::Options options;
  options.limits = limits;
  State* s = state.get();
  auto http = HTTPServer::start(
      options, port, [s](const HTTPServerRequest& request) { return s->serve(request); },
      [s](const HTTPWireError& error) {
        ++s->requests;
        return errorResponse(dialectOf(error.path), {error.status, error.code, error.message});
      });
  if (!http.ok()) return Failure{http.error()};
  state->http = std::move(http).value();
  return std::unique_ptr<JSONGraphServer>(new JSONGraphServer(std::move(state)));
}

// Stops the HTTP server first: its handlers use the state.
JSONGraphServer::~JSONGraphServer() { state_->http.reset(); }

int JSONGraphServer::port() const { return state_->http->port(); }
std::string JSONGraphServer::url() const { return "http://127.0.0.1:" + std::to_string(port()) + std::string(kCorePath); }
std::string JSONGraphServer::legacyURL() const {
  return "http://127.0.0.1:" + std::to_string(port()) + std::string(kLegacyPath);
}
JSONGraph JSONGraphServer::document() const { return state_->document(); }
std::size_t JSONGraphServer::requestCount() const { return state_->requests.load(); }

void JSONGraphServer::registerFunction(const std::string& keyPath, Function function) {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->functions[keyPath] = std::move(function);
}

void JSONGraphServer::setInterceptor(Interceptor interceptor) {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->interceptor = std::move(interceptor);
}

void JSONGraphServer::setRequestObserver(RequestObserver observer) {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->observer = std::move(observer);
}

}  // namespace brivet::tools
