// docs/wire-protocol.md checked against the code: every example exchange in
// it is replayed against the sample server (in order, on one server, as the
// page tells it) and must get the answer the page shows; an example marked
// with the client call that sends it must be exactly what that client sends.
//
// An example is a ```http block holding a request (parameter values written
// as plain JSON text; the test percent-encodes them) followed by a ```http
// block holding the answer. A "<!-- sent by: MODEL OPERATION ARGUMENT -->"
// line just before the request names the call that sends it, with the
// argument as JSON: core get [key paths], core set {graph},
// core call {"path", "args", "refSuffixes", "thisPaths"}, legacy get [key
// paths], legacy call {"path", "args", "suffixes", "fetch"}.
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <set>
#include <sstream>

#include "brivet/adapters/http_transport.h"
#include "brivet/adapters/kel_http_data_source.h"
#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/facade/kel_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"
#include "tools/server/http_wire.h"
#include "tools/server/json_graph_server.h"
#include "tools/server/sample_catalogue.h"

namespace brivet {
namespace {

using namespace std::chrono_literals;

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

struct Example {
  std::string sentBy;  // the annotation, or empty
  std::string request;
  std::string response;
  int line = 0;  // where the request starts in the page
};

std::vector<Example> examplesOf(const std::string& page) {
  std::vector<Example> examples;
  std::istringstream lines(page);
  std::string line;
  std::string lastComment;
  std::optional<std::string> block;
  int number = 0;
  int blockStart = 0;
  while (std::getline(lines, line)) {
    ++number;
    if (block) {
      if (line == "```") {
        if (block->rfind("HTTP/1.1 ", 0) == 0) {
          if (!examples.empty() && examples.back().response.empty()) examples.back().response = *block;
        } else {
          examples.push_back(Example{lastComment, *block, "", blockStart});
          lastComment.clear();
        }
        block.reset();
      } else {
        *block += line + "\n";
      }
    } else if (line == "```http") {
      block = std::string();
      blockStart = number;
    } else if (line.rfind("<!-- sent by: ", 0) == 0) {
      lastComment = line.substr(14, line.size() - 14 - 4);
    } else if (!line.empty()) {
      lastComment.clear();
    }
  }
  return examples;
}

// A request as the page writes it, or as a client sent it.
struct WireRequest {
  std::string method;
  std::string path;
  Object parameters = Object::mutableDictionary();  // name -> the JSON value
  std::string problem;
};

void addParameters(WireRequest& request, const std::vector<std::pair<std::string, std::string>>& pairs) {
  for (const auto& [name, text] : pairs) {
    Result<Object> value = parseJSON(text, JSONReadingOptions::FragmentsAllowed);
    if (!value.ok()) request.problem += "parameter " + name + " is not JSON: " + text + "\n";
    request.parameters.asMutableDictionary()->setObject(value.valueOr(Object::null()), name);
  }
}

// The page's form: "GET /path?name=json&..." or "POST /path" + form lines + blank line + "name=json&...".
WireRequest pageRequest(const std::string& text) {
  WireRequest request;
  const std::string first = text.substr(0, text.find('\n'));
  request.method = first.substr(0, first.find(' '));
  std::string target = first.substr(first.find(' ') + 1);
  std::string query;
  if (const std::size_t question = target.find('?'); question != std::string::npos) {
    query = target.substr(question + 1);
    target = target.substr(0, question);
  }
  request.path = target;
  if (request.method == "POST") {
    const std::size_t blank = text.find("\n\n");
    query = blank == std::string::npos ? "" : text.substr(blank + 2);
    while (!query.empty() && query.back() == '\n') query.pop_back();
  }
  std::vector<std::pair<std::string, std::string>> pairs;
  std::size_t at = 0;
  while (at < query.size()) {
    const std::size_t end = std::min(query.find('&', at), query.size());
    const std::string part = query.substr(at, end - at);
    pairs.emplace_back(part.substr(0, part.find('=')), part.substr(part.find('=') + 1));
    at = end + 1;
  }
  addParameters(request, pairs);
  return request;
}

WireRequest sentRequest(const std::string& method, const std::string& target, const std::string& body) {
  WireRequest request;
  request.method = method;
  request.path = target.substr(0, target.find('?'));
  const std::string query = target.find('?') == std::string::npos ? body : target.substr(target.find('?') + 1);
  auto pairs = tools::decodeForm(query);
  if (!pairs.ok()) request.problem = pairs.error();
  addParameters(request, pairs.valueOr({}));
  return request;
}

class WireProtocolPageTest : public ::testing::Test {
 protected:
  std::unique_ptr<tools::JSONGraphServer> startSample() {
    auto started = tools::JSONGraphServer::start(tools::sampleCatalogue());
    EXPECT_TRUE(started.ok());
    tools::registerSampleFunctions(*started.value());
    return std::move(started).value();
  }

  // Sends the page's request as it is written; answers the status and the body.
  std::pair<long, std::string> send(const tools::JSONGraphServer& server, const WireRequest& request) {
    std::vector<std::pair<std::string, std::string>> fields;
    for (const auto& [name, value] : *request.parameters.asDictionary()) {
      fields.emplace_back(std::string(name.stringValue()),
                          writeJSON(value, JSONWritingOptions::FragmentsAllowed).valueOr(std::string()));
    }
    HTTPRequest http;
    http.url = "http://127.0.0.1:" + std::to_string(server.port()) + request.path;
    if (request.method == "GET") {
      http.url += "?" + HTTPTransport::formEncode(fields);
    } else {
      http.method = HTTPRequest::Method::POST;
      http.body = HTTPTransport::formEncode(fields);
    }
    std::optional<Result<HTTPResponse, HTTPTransportError>> outcome;
    std::mutex mu;
    transport_->send(http, [&](Result<HTTPResponse, HTTPTransportError> result) {
      std::lock_guard<std::mutex> lock(mu);
      outcome.emplace(std::move(result));
    });
    DispatchQueue::main()->runUntil(
        [&] {
          std::lock_guard<std::mutex> lock(mu);
          return outcome.has_value();
        },
        20s);
    std::lock_guard<std::mutex> lock(mu);
    if (!outcome || !outcome->ok()) return {0, ""};
    return {outcome->value().statusCode, outcome->value().body};
  }

  // Makes the client call the annotation names against a fresh server; answers what it sent.
  std::optional<WireRequest> sendWithClient(const std::string& sentBy) {
    const auto server = startSample();
    std::optional<WireRequest> sent;
    std::mutex mu;
    server->setRequestObserver([&](const std::string& method, const std::string& target, const std::string& body) {
      std::lock_guard<std::mutex> lock(mu);
      if (!sent) sent = sentRequest(method, target, body);
    });
    std::istringstream words(sentBy);
    std::string model, operation;
    words >> model >> operation;
    std::string argumentText;
    std::getline(words, argumentText);
    const Object argument = parseJSON(argumentText).valueOr(Object());
    EXPECT_FALSE(argument.isNil()) << "the argument of \"" << sentBy << "\" is not JSON";
    auto strings = [](const Object& array) {
      std::vector<std::string> out;
      if (const Array* a = array.asArray()) {
        for (const Object& item : *a) out.emplace_back(item.stringValue());
      }
      return out;
    };
    auto optionalStrings = [&](const Object& array) {
      return array.isNil() ? std::nullopt : std::optional<std::vector<std::string>>(strings(array));
    };
    auto objects = [](const Object& array) {
      std::vector<Object> out;
      if (const Array* a = array.asArray()) out.assign(a->begin(), a->end());
      return out;
    };
    bool done = false;
    const std::shared_ptr<TovHTTPClient> client = TovHTTPClient::create();
    const auto core = TovBrivet::createTovModelWithUrl(server->url(), client);
    KelHTTPDataSource::Options options;
    options.url = server->legacyURL();
    const auto dataSource = KelHTTPDataSource::create(options);
    const std::shared_ptr<KelModel> legacy = KelBrivet::createModel(std::nullopt, std::nullopt);
    legacy->setDataSource(dataSource);
    auto coreDone = [&](const Object&, const std::optional<Error>&) { done = true; };
    auto legacyDone = [&](const Object&, const std::optional<Error>&) { done = true; };
    std::shared_ptr<Subscription> keep;
    if (model == "core" && operation == "get") {
      core->getKeyPaths(strings(argument), coreDone);
    } else if (model == "core" && operation == "set") {
      keep = core->setWithValue(argument)->asStream().subscribeWithProgressBlock(
          nullptr, [&](const std::optional<Error>&) { done = true; });
    } else if (model == "core" && operation == "call") {
      keep = core->callFunctionWithKeyPath(std::string(argument["path"].stringValue()),
                                           argument["args"].isNil() ? std::nullopt
                                                                    : std::optional(objects(argument["args"])),
                                           optionalStrings(argument["refSuffixes"]),
                                           optionalStrings(argument["thisPaths"]))
                 ->asStream()
                 .subscribeWithProgressBlock(nullptr, [&](const std::optional<Error>&) { done = true; });
    } else if (model == "legacy" && operation == "get") {
      legacy->getKeyPaths(strings(argument), std::nullopt, legacyDone);
    } else if (model == "legacy" && operation == "call") {
      const KelFunctionCall call(std::string(argument["path"].stringValue()),
                                 argument["args"].isNil() ? std::nullopt : std::optional(objects(argument["args"])),
                                 optionalStrings(argument["suffixes"]));
      legacy->callFunction(call, optionalStrings(argument["fetch"]), legacyDone);
    } else {
      ADD_FAILURE() << "unknown client call \"" << sentBy << "\"";
      return std::nullopt;
    }
    EXPECT_TRUE(DispatchQueue::main()->runUntil([&] { return done; }, 20s)) << sentBy;
    std::lock_guard<std::mutex> lock(mu);
    return sent;
  }

  std::shared_ptr<HTTPTransport> transport_ = HTTPTransport::create();
};

TEST_F(WireProtocolPageTest, EveryExampleIsWhatTheClientsSendAndWhatTheServerAnswers) {
  const std::vector<Example> examples = examplesOf(slurp(BRIVET_SOURCE_DIR "/docs/wire-protocol.md"));
  ASSERT_GE(examples.size(), 10u);
  const auto server = startSample();
  std::set<std::string> clientCalls;
  for (const Example& example : examples) {
    SCOPED_TRACE("docs/wire-protocol.md:" + std::to_string(example.line));
    const WireRequest written = pageRequest(example.request);
    EXPECT_EQ(written.problem, "");
    if (!example.sentBy.empty()) {
      clientCalls.insert(example.sentBy.substr(0, example.sentBy.find(' ', example.sentBy.find(' ') + 1)));
      const std::optional<WireRequest> sent = sendWithClient(example.sentBy);
      ASSERT_TRUE(sent.has_value()) << "the client sent nothing for " << example.sentBy;
      EXPECT_EQ(sent->problem, "");
      EXPECT_EQ(sent->method + " " + sent->path, written.method + " " + written.path);
      EXPECT_TRUE(sent->parameters.isEqual(written.parameters))
          << "the client sent " << writeJSON(sent->parameters).valueOr("") << "\nthe page says "
          << writeJSON(written.parameters).valueOr("");
    }
    ASSERT_FALSE(example.response.empty()) << "a request without an answer";
    const int status = std::stoi(example.response.substr(9, 3));
    const std::size_t blank = example.response.find("\n\n");
    ASSERT_NE(blank, std::string::npos) << "an answer without a body";
    Result<Object> shownBody = parseJSON(example.response.substr(blank + 2));
    ASSERT_TRUE(shownBody.ok()) << example.response;
    const auto [actualStatus, actualBody] = send(*server, written);
    EXPECT_EQ(actualStatus, status);
    Result<Object> answered = parseJSON(actualBody);
    ASSERT_TRUE(answered.ok()) << actualBody;
    EXPECT_TRUE(answered.value().isEqual(shownBody.value())) << "the server answers " << actualBody;
  }
  EXPECT_EQ(clientCalls, (std::set<std::string>{"core call", "core get", "core set", "legacy call", "legacy get"}));
}

}  // namespace
}  // namespace brivet
