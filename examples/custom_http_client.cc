// Supplying your own HTTP client to the core model.
//
// The model never talks to the network itself: it calls `GET` for gets and
// `POST` for sets and calls, with the endpoint and a parameter dictionary, and
// subscribes to the response stream the client answers. The client reports
// each response dictionary ({"jsonGraph": ...}) through `progress`, then ends
// with `completion` (an error, or none). Report HTTP failures with
// `httpFailure(status, errorBody)` so the model can read the reason from the
// body. This one answers from memory, so the example runs anywhere.
#include <iostream>

#include "brivet/core/model/tov_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"

namespace {

using namespace brivet;

class InMemoryClient final : public TovHTTPClientProtocol {
 public:
  std::shared_ptr<TovHTTPDataSourceResponseStream> GET(const std::string& /*url*/, const Object& parameters) override {
    std::cout << "GET path=" << writeJSON(parameters["path"]).valueOr("") << "\n";
    return answer(R"({"jsonGraph": {"greeting": {"$type": "atom", "value": "hello"}}})");
  }
  std::shared_ptr<TovHTTPDataSourceResponseStream> POST(const std::string& /*url*/, const Object& /*parameters*/) override {
    return std::make_shared<TovHTTPDataSourceResponseStream>(
        [](ProgressBlock, CompletionBlock completion) {
          completion(httpFailure(405, Object::dictionary({{"message", "read-only"}})));
        },
        [] {});
  }

 private:
  static std::shared_ptr<TovHTTPDataSourceResponseStream> answer(std::string text) {
    return std::make_shared<TovHTTPDataSourceResponseStream>(
        // The task runs when the model subscribes; a real client starts its request here
        // and may call the blocks later, from any thread.
        [text](ProgressBlock progress, CompletionBlock completion) {
          progress(parseJSON(text).valueOr(Object()));
          completion(std::nullopt);
        },
        // The cancel block: abort the request (it also runs once the request has ended).
        [] {});
  }
};

}  // namespace

int main() {
  const auto client = std::make_shared<InMemoryClient>();
  const auto model = TovBrivet::createTovModelWithUrl("memory://example", client);
  bool done = false;
  model->getKeyPath("greeting", [&](const Object& result, const std::optional<Error>& error) {
    std::cout << (error ? error->localizedDescription() : result.valueForKeyPath("greeting").description()) << "\n";
    done = true;
  });
  DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(5));
  return done && model->valueForKeyPath("greeting").stringValue() == "hello" ? 0 : 1;
}
