// Quickstart: the core model over HTTP.
//
//   brivet serve --port 8080 &          # or any JSON Graph endpoint
//   ./core_quickstart http://127.0.0.1:8080/model.json
#include <iostream>
#include <string>

#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/dispatch_queue.h"
#include "brivet/platform/json.h"

int main(int argc, char** argv) {
  using namespace brivet;
  const std::string url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/model.json";

  // The model holds its HTTP client weakly: the application keeps it alive.
  const auto client = TovHTTPClient::create();
  const auto model = TovBrivet::createTovModelWithUrl(url, client);

  // Streams deliver on the main queue. An app's run loop drains it; a
  // command-line program runs it until the answer is in.
  bool done = false;
  const auto subscription = model->getWithKeyPaths({"lists.top.@range(0,2).title"})
                                ->progressively()  // what the cache holds first, then the rest
                                ->asStream()
                                .subscribeWithProgressBlock(
                                    [](const Object& value) {
                                      std::cout << writeJSON(value, JSONWritingOptions::PrettyPrinted).valueOr("")
                                                << "\n";
                                    },
                                    [&](const std::optional<Error>& error) {
                                      if (error) std::cerr << error->localizedDescription() << "\n";
                                      done = true;
                                    });
  DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(10));

  // Synchronous reads come from the cache alone.
  std::cout << "cached: " << model->valueForKeyPath("lists.top.0.title").description() << "\n";
  return done ? 0 : 1;
}
