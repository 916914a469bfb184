// Quickstart: the facade's legacy model, as applications import it.
//
//   brivet serve --port 8080 &
//   ./facade_quickstart http://127.0.0.1:8080/legacy/model.json
#include <iostream>
#include <string>

#include "brivet/adapters/kel_http_data_source.h"
#include "brivet/facade/kel_calls.h"
#include "brivet/facade/kel_model.h"
#include "brivet/platform/main_queue_thread.h"

int main(int argc, char** argv) {
  using namespace brivet;
  const std::string url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/legacy/model.json";

  // [readme]
  MainQueueThread mainQueue;  // completions run on the main queue: run it on its own thread
  KelHTTPDataSource::Options options;
  options.url = url;
  const auto dataSource = KelHTTPDataSource::create(options);  // the model holds it weakly: keep it
  const std::shared_ptr<KelModel> model = KelBrivet::createModel(std::nullopt, std::nullopt);
  model->setDataSource(dataSource);

  const Result<std::string, Error> title = blocking::getValue<std::string>(*model, "lists.top.0.title");
  if (!title.ok()) {
    std::cerr << title.error().localizedDescription() << "\n";
    return 1;
  }
  std::cout << title.value() << "\n";
  // [/readme]

  // Save the cache; a later launch restores it before its first get.
  const Result<std::string> snapshot = model->serializeCacheWithKeyPaths(std::nullopt);
  if (snapshot.ok()) std::cout << "snapshot: " << snapshot.value().size() << " bytes\n";
  return 0;
}
