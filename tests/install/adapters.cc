// brivet::adapters alone: the ready-made HTTP clients (libcurl comes with the package).
#include <cstdio>

#include "brivet/adapters/kel_http_data_source.h"
#include "brivet/adapters/tov_http_client.h"
#include "brivet/core/model/tov_model.h"

int main() {
  const auto client = brivet::TovHTTPClient::create();
  const auto model = brivet::TovBrivet::createTovModelWithUrl("http://127.0.0.1:1/model.json", client);
  brivet::KelHTTPDataSource::Options options;
  options.url = "http://127.0.0.1:1/legacy/model.json";
  const auto dataSource = brivet::KelHTTPDataSource::create(options);
  if (model == nullptr || dataSource == nullptr) return 1;
  if (brivet::HTTPTransport::urlProblem("http://example.com/model.json").has_value()) return 1;
  std::printf("clients ready\n");
  return 0;
}
