// Coroutines: the same read as the core quickstart, awaited. The coroutine
// goes on on the main queue, where completions run; here main() runs that
// queue until the coroutine says it is done.
//
//   brivet serve --port 8080 &
//   ./coroutine_quickstart http://127.0.0.1:8080/model.json
#include <chrono>
#include <iostream>
#include <string>

#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_calls.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/coroutine.h"
#include "brivet/platform/dispatch_queue.h"

// [readme]
brivet::Detached showTitle(brivet::TovModel& model, int& exitCode, bool& done) {
  const auto title = co_await brivet::async::getValue<std::string>(model, "lists.top.0.title");
  // Here on the main queue, like every completion.
  if (title.ok()) std::cout << title.value() << "\n";
  if (!title.ok()) std::cerr << title.error().localizedDescription() << "\n";
  exitCode = title.ok() ? 0 : 1;
  done = true;
}
// [/readme]

int main(int argc, char** argv) {
  using namespace brivet;
  const std::string url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/model.json";
  const auto client = TovHTTPClient::create();
  const auto model = TovBrivet::createTovModelWithUrl(url, client);
  int exitCode = 1;
  bool done = false;
  showTitle(*model, exitCode, done);
  DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(10));
  return exitCode;
}
