// One title through each API: what each returns, and the one line that gets
// the plain string from it.
//
//   brivet serve --port 8080 &
//   ./shapes http://127.0.0.1:8080/model.json http://127.0.0.1:8080/legacy/model.json
#include <iostream>
#include <string>

#include "brivet/adapters/kel_http_data_source.h"
#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_calls.h"
#include "brivet/facade/kel_calls.h"
#include "brivet/platform/main_queue_thread.h"
#include "brivet/platform/typed_access.h"

int main(int argc, char** argv) {
  using namespace brivet;
  const std::string url = argc > 1 ? argv[1] : "http://127.0.0.1:8080/model.json";
  KelHTTPDataSource::Options options;
  options.url = argc > 2 ? argv[2] : "http://127.0.0.1:8080/legacy/model.json";
  MainQueueThread mainQueue;
  const auto client = TovHTTPClient::create();
  const auto core = TovBrivet::createTovModelWithUrl(url, client);
  const auto dataSource = KelHTTPDataSource::create(options);
  const std::shared_ptr<KelModel> facade = KelBrivet::createModel(std::nullopt, std::nullopt);
  facade->setDataSource(dataSource);
  const Result<Object, Error> coreAnswer = blocking::get(*core, {"lists.top.0.title"});
  const Result<Object, Error> facadeAnswer = blocking::get(*facade, {"lists.top.0.title"});
  if (!coreAnswer.ok() || !facadeAnswer.ok()) {
    std::cerr << (coreAnswer.ok() ? facadeAnswer : coreAnswer).error().localizedDescription() << "\n";
    return 1;
  }

  // [readme]
  // The core model's answer: the title inside the paths that were asked for.
  const Object& fromCore = coreAnswer.value();  // {"lists": {"top": {"0": {"title": "The Quiet Harbour"}}}}
  const std::string a = get<std::string>(fromCore, "lists", "top", 0, "title").value_or("");
  // The core model's synchronous read of its cache: the value alone.
  const Object cached = core->valueForKeyPath("lists.top.0.title");  // "The Quiet Harbour"
  const std::string b = as<std::string>(cached).value_or("");
  // The facade's answer: again the paths that were asked for.
  const Object& fromFacade = facadeAnswer.value();  // {"lists": {"top": {"0": {"title": "The Quiet Harbour"}}}}
  const std::string c = get<std::string>(fromFacade, "lists", "top", 0, "title").value_or("");
  // The facade's synchronous read: the cached value, or a wrapped leaf when the server sent one.
  const Object leaf = facade->valueForKeyPath("lists.top.0.title");  // "The Quiet Harbour"
  const std::string d = as<std::string>(leaf).value_or("");
  // [/readme]

  std::cout << fromCore.description() << "\n" << cached.description() << "\n"
            << fromFacade.description() << "\n" << leaf.description() << "\n";
  std::cout << a << "\n" << b << "\n" << c << "\n" << d << "\n";
  return !a.empty() && a == b && b == c && c == d ? 0 : 1;
}
