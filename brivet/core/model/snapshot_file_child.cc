// The child process of SnapshotFileTest: saves the cache of an offline core
// model to one file again and again, each time with a newer "generation", until
// it is killed. Before each save it writes one byte to standard output, so the
// test knows how many saves have begun and can kill it in the middle of one.
//
//   brivet_snapshot_file_child FILE
#include <unistd.h>

#include <cstdio>

#include "brivet/core/model/tov_model.h"
#include "brivet/platform/file.h"
#include "brivet/testing/catalogue.h"

int main(int argc, char** argv) {
  using namespace brivet;
  if (argc != 2) {
    std::fprintf(stderr, "usage: brivet_snapshot_file_child FILE\n");
    return 2;
  }
  const std::string path = argv[1];
  auto model = TovBrivet::createTovModelWithUrl(std::nullopt, nullptr);
  // A few megabytes of snapshot, so that a save takes long enough to be cut.
  model->mergeJSONDictionaryIntoModel(testing::catalogueVideos(0, 5000, testing::Dialect::Core));
  for (std::int64_t generation = 1;; ++generation) {
    model->mergeJSONDictionaryIntoModel(Object::dictionary({{Object("generation"), Object::integer(generation)}}));
    Result<std::string> text = model->serializeCacheWithKeyPaths(std::nullopt);
    if (!text.ok()) return 1;
    const char started = 's';
    if (::write(STDOUT_FILENO, &started, 1) != 1) return 1;
    if (!writeFileAtomically(path, text.value()).ok()) return 1;
  }
}
