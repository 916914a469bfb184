#include "tools/server/json_graph_server.h"

#include <httplib.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "brivet/core/cache/internal/graph_walk.h"
#include "brivet/core/values/path_tree.h"
#include "brivet/platform/json.h"

namespace brivet::tools {
namespace {

// Ranges are expanded key by key on the server: wider ones are refused.
constexpr std::int64_t kMaxRangeWidth = 100000;

struct RequestError {
  int status;
  std::string code;
  std::string message;
};

std::string errorBody(const RequestError& error) {
  return writeJSON(Object::dictionary({{"code", error.code}, {"message", error.message}})).valueOr("{}");
}

// Every parameter value is JSON text.
Result<Object, RequestError> decodeParameters(const httplib::Request& request) {
  const Object parameters = Object::mutableDictionary();
  for (const auto& [name, text] : request.params) {
    Result<Object> value = parseJSON(text, JSONReadingOptions::FragmentsAllowed | JSONReadingOptions::MutableContainers);
    if (!value.ok()) {
      return Failure{RequestError{400, "badParameter",
                                  "parameter \"" + name + "\" is not JSON text: " +
                                      value.error().localizedDescription()}};
    }
    parameters.asMutableDictionary()->setObject(value.value(), name);
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

}  // namespace

Object toLegacyForm(const JSONGraph& graph) { return legacyFromWire(graph.toAnyType()); }

struct JSONGraphServer::State {
  httplib::Server http;
  std::thread thread;
  int port = 0;
  std::shared_ptr<Cache> cache;
  std::atomic<std::size_t> requests{0};
  std::mutex mu;  // functions, interceptor; also runs functions one at a time
  std::map<std::string, Function> functions;
  Interceptor interceptor;

  JSONGraph document() const { return cache->jsonGraph(); }

  // Writes and waits until readers see the result.
  void write(const std::function<void()>& change) {
    change();
    cacheQueue()->sync([] {});
  }

  bool intercepted(const httplib::Request& request, httplib::Response& response) {
    ++requests;
    Interceptor hook;
    {
      std::lock_guard<std::mutex> lock(mu);
      hook = interceptor;
    }
    if (!hook) return false;
    std::optional<CannedResponse> canned = hook(request.method, request.path);
    if (!canned) return false;
    response.status = canned->status;
    response.set_content(canned->body, canned->contentType.c_str());
    return true;
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
    std::vector<Path> answered = PathTree::fromPathArrays(result->paths).paths();
    std::vector<Path> read = answered;
    for (const Path& suffix : PathTree::fromPathArrays(suffixes).paths()) {
      for (const Path& path : answered) read.push_back(concatenated(path, suffix));
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

namespace {

void answer(httplib::Response& response, const Result<std::string, RequestError>& body) {
  if (body.ok()) {
    response.status = 200;
    response.set_content(body.value(), "application/json");
  } else {
    response.status = body.error().status;
    response.set_content(errorBody(body.error()), "application/json");
  }
}

Result<std::string, RequestError> wrapped(const char* key, const Result<std::string>& text) {
  if (!text.ok()) return Failure{RequestError{500, "serverError", text.error().localizedDescription()}};
  return std::string("{\"") + key + "\":" + text.value() + "}";
}

}  // namespace

Result<std::unique_ptr<JSONGraphServer>, std::string> JSONGraphServer::start(JSONGraph document, int port) {
  auto state = std::make_shared<State>();
  state->cache = Cache::create(std::move(document));
  State* s = state.get();

  // --- the core model's dialect ---
  s->http.Get("/model.json", [s](const httplib::Request& request, httplib::Response& response) {
    if (s->intercepted(request, response)) return;
    answer(response, [&]() -> Result<std::string, RequestError> {
      Result<Object, RequestError> parameters = decodeParameters(request);
      if (!parameters.ok()) return Failure{parameters.error()};
      const Object pathArrays = parameters.value()["path"];
      if (!pathArrays.isArray()) {
        return Failure{RequestError{400, "badParameter", "\"path\" must be an array of paths"}};
      }
      Result<std::vector<Path>, RequestError> paths = checkedPaths(PathTree::fromPathArrays(pathArrays));
      if (!paths.ok()) return Failure{paths.error()};
      Result<JSONGraph, RequestError> graph = extractGraph(s->document(), paths.value());
      if (!graph.ok()) return Failure{graph.error()};
      return wrapped("jsonGraph", graph->toJSONText());
    }());
  });
  s->http.Post("/model.json", [s](const httplib::Request& request, httplib::Response& response) {
    if (s->intercepted(request, response)) return;
    answer(response, [&]() -> Result<std::string, RequestError> {
      Result<Object, RequestError> decoded = decodeParameters(request);
      if (!decoded.ok()) return Failure{decoded.error()};
      const Object& parameters = decoded.value();
      const std::string_view method = parameters["method"].stringValue();
      if (method == "set") {
        const Object param = parameters["param"];
        if (!param.isDictionary()) return Failure{RequestError{400, "badParameter", "\"param\" must be a JSON Graph"}};
        const JSONGraph written = JSONGraph::fromAny(param);
        s->write([&] { s->cache->merge(written); });
        Result<std::vector<Path>, RequestError> paths = checkedPaths(PathTree::fromGraph(written));
        if (!paths.ok()) return Failure{paths.error()};
        Result<JSONGraph, RequestError> graph = extractGraph(s->document(), paths.value());
        if (!graph.ok()) return Failure{graph.error()};
        return wrapped("jsonGraph", graph->toJSONText());
      }
      if (method == "call") {
        Result<State::CallAnswer, RequestError> result =
            s->call(textPath(parameters["callPath"]), arrayOfParsedTexts(parameters["param"]),
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
    }());
  });

  // --- the legacy model's dialect ---
  s->http.Get("/legacy/model.json", [s](const httplib::Request& request, httplib::Response& response) {
    if (s->intercepted(request, response)) return;
    answer(response, [&]() -> Result<std::string, RequestError> {
      Result<Object, RequestError> parameters = decodeParameters(request);
      if (!parameters.ok()) return Failure{parameters.error()};
      const Object texts = parameters.value()["path"];
      if (!texts.isArray()) {
        return Failure{RequestError{400, "badParameter", "\"path\" must be an array of key-path array texts"}};
      }
      Result<std::vector<Path>, RequestError> paths = checkedPaths(PathTree::fromPathArrays(arrayOfParsedTexts(texts)));
      if (!paths.ok()) return Failure{paths.error()};
      Result<JSONGraph, RequestError> graph = extractGraph(s->document(), paths.value());
      if (!graph.ok()) return Failure{graph.error()};
      return wrapped("value", writeJSON(toLegacyForm(graph.value())));
    }());
  });
  s->http.Post("/legacy/model.json", [s](const httplib::Request& request, httplib::Response& response) {
    if (s->intercepted(request, response)) return;
    answer(response, [&]() -> Result<std::string, RequestError> {
      Result<Object, RequestError> decoded = decodeParameters(request);
      if (!decoded.ok()) return Failure{decoded.error()};
      const Object& parameters = decoded.value();
      if (parameters["method"].stringValue() != "call") {
        return Failure{RequestError{400, "badParameter", "\"method\" must be \"call\""}};
      }
      // The suffixes arrive as key-path array texts joined by ",".
      Object suffixes;
      if (parameters["pathSuffix"].isString()) {
        suffixes = parseJSON("[" + std::string(parameters["pathSuffix"].stringValue()) + "]").valueOr(Object());
      }
      Result<State::CallAnswer, RequestError> result =
          s->call(textPath(parsedIfJSONText(parameters["callPath"])), arrayOfParsedTexts(parameters["param"]),
                  suffixes, arrayOfParsedTexts(parameters["path"]));
      if (!result.ok()) return Failure{result.error()};
      const Object body = Object::dictionary({{"value", toLegacyForm(result->graph)},
                                              {"paths", result->paths},
                                              {"invalidated", result->invalidated}});
      Result<std::string> text = writeJSON(body);
      if (!text.ok()) return Failure{RequestError{500, "serverError", text.error().localizedDescription()}};
      return text.value();
    }());
  });

  // Answers are small and connections are kept alive: without TCP_NODELAY the
  // body of every answer after the first waits for the client's delayed
  // acknowledgement of the headers (about 40 ms).
  s->http.set_tcp_nodelay(true);
  const int bound = port == 0 ? s->http.bind_to_any_port("127.0.0.1") : (s->http.bind_to_port("127.0.0.1", port)
                                                                              ? port
                                                                              : -1);
  if (bound <= 0) return Failure{"cannot listen on 127.0.0.1:" + std::to_string(port)};
  s->port = bound;
  s->thread = std::thread([s] { s->http.listen_after_bind(); });
  return std::unique_ptr<JSONGraphServer>(new JSONGraphServer(std::move(state)));
}

JSONGraphServer::~JSONGraphServer() {
  state_->http.stop();
  if (state_->thread.joinable()) state_->thread.join();
}

int JSONGraphServer::port() const { return state_->port; }
std::string JSONGraphServer::url() const { return "http://127.0.0.1:" + std::to_string(state_->port) + "/model.json"; }
std::string JSONGraphServer::legacyURL() const {
  return "http://127.0.0.1:" + std::to_string(state_->port) + "/legacy/model.json";
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

}  // namespace brivet::tools
