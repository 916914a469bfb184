// Quickstart: the facade's legacy model, as applications import it.
//
//   brivet serve --port 8080 &
//   ./facade_quickstart http://127.0.0.1:8080/legacy/model.json
#include <iostream>
#include <string>

#include "brivet/adapters/kel_http_data_source.h"
#include "brivet/facade/kel_model.h"
#include "brivet/platform/dispatch_queue.h"

int main(int argc, char** argv) {
  using namespace brivet;
  KelHTTPDataSource::Options options;
  options.url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/legacy/model.json";

  // The model holds its data source weakly: keep both.
  const auto dataSource = KelHTTPDataSource::create(options);
  const std::shared_ptr<KelModel> model = KelBrivet::createModel(std::nullopt, std::nullopt);
  model->setDataSource(dataSource);

  // Completions run on the main queue.
  bool done = false;
  model->getKeyPaths({"lists.top.@range(0,2).title"}, std::nullopt, [&](Object /*result*/, std::optional<Error> error) {
    if (error) std::cerr << error->localizedDescription() << "\n";
    done = true;
  });
  DispatchQueue::main()->runUntil([&] { return done; }, std::chrono::seconds(10));
  for (const char* keyPath : {"lists.top.0.title", "lists.top.1.title", "lists.top.2.title"}) {
    std::cout << keyPath << " = " << model->valueForKeyPath(keyPath).description() << "\n";
  }

  // Save the cache; a later launch restores it before its first get.
  const Result<std::string> snapshot = model->serializeCacheWithKeyPaths(std::nullopt);
  if (snapshot.ok()) std::cout << "snapshot: " << snapshot.value().size() << " bytes\n";
  return done ? 0 : 1;
}
