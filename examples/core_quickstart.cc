// Quickstart: the core model over HTTP.
//
//   brivet serve --port 8080 &          # or any JSON Graph endpoint
//   ./core_quickstart http://127.0.0.1:8080/model.json
#include <iostream>
#include <string>

#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_calls.h"
#include "brivet/core/model/tov_model.h"
#include "brivet/platform/main_queue_thread.h"
#include "brivet/platform/typed_access.h"

int main(int argc, char** argv) {
  using namespace brivet;
  const std::string url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/model.json";

  // [readme]
  MainQueueThread mainQueue;                    // answers arrive on the main queue: run it on its own thread
  const auto client = TovHTTPClient::create();  // the model holds its client weakly: keep it
  const auto model = TovBrivet::createTovModelWithUrl(url, client);

  const Result<Object, Error> top = blocking::get(*model, {"lists.top.@range(0,2).title"});
  if (!top.ok()) {
    std::cerr << top.error().localizedDescription() << "\n";
    return 1;
  }
  for (int i = 0; i <= 2; ++i) {
    std::cout << get<std::string>(top.value(), "lists", "top", i, "title").value_or("?") << "\n";
  }
  const Result<int, Error> year = blocking::getValue<int>(*model, "lists.top.0.year");  // checked at compile time
  std::cout << (year.ok() ? std::to_string(year.value()) : year.error().localizedDescription()) << "\n";
  // [/readme]
  return year.ok() ? 0 : 1;
}
