#include "brivet/testing/catalogue.h"

namespace brivet::testing {
namespace {

constexpr const char* kGenres[] = {"Drama", "Comedy", "Action", "Horror", "Documentary", "Family", "Thriller",
                                   "Romance"};

Object videoName(std::size_t i) { return Object("v" + std::to_string(i)); }

Object reference(std::size_t k, Dialect dialect) {
  Object path = Object::mutableArray({"videos", videoName(k)});
  if (dialect == Dialect::Legacy) return path;
  return Object::mutableDictionary({{"$type", "ref"}, {"value", path}});
}

Object list(std::size_t n, Dialect dialect) {
  std::vector<Object::Entry> items;
  items.reserve(n);
  for (std::size_t k = 0; k < n; ++k) items.emplace_back(Object(std::to_string(k)), reference(k, dialect));
  return Object::mutableDictionary({{"lists", Object::mutableDictionary({{"top", Object::mutableDictionary(
                                                                                     std::move(items))}})}});
}

}  // namespace

Object catalogueVideo(std::size_t i, Dialect dialect) {
  const std::string url = "https://img.example/" + std::to_string(i) + ".jpg";
  Object boxart = dialect == Dialect::Core
                      ? Object::mutableDictionary(
                            {{"$type", "atom"},
                             {"value", Object::mutableDictionary({{"url", url}, {"w", 150}, {"h", 200}})}})
                      : Object::mutableDictionary({{"$type", "leaf"}, {"url", url}, {"w", 150}, {"h", 200}});
  return Object::mutableDictionary({{"title", "Title " + std::to_string(i)},
                                    {"rating", static_cast<double>(i % 50) / 10.0},
                                    {"year", static_cast<std::int64_t>(1950 + i % 70)},
                                    {"genre", kGenres[i % 8]},
                                    {"boxart", std::move(boxart)}});
}

Object catalogueVideos(std::size_t first, std::size_t count, Dialect dialect) {
  std::vector<Object::Entry> videos;
  videos.reserve(count);
  for (std::size_t i = first; i < first + count; ++i) videos.emplace_back(videoName(i), catalogueVideo(i, dialect));
  return Object::mutableDictionary({{"videos", Object::mutableDictionary(std::move(videos))}});
}

Object catalogueResponse(std::size_t n, Dialect dialect) {
  Object response = list(n, dialect);
  response.asMutableDictionary()->setObject(catalogueVideos(0, n, dialect)["videos"], "videos");
  return response;
}

std::vector<std::string> catalogueRequestPaths(std::size_t n) {
  std::vector<std::string> paths;
  const std::string prefix = "lists.top.@range(0," + std::to_string(n == 0 ? 0 : n - 1) + ").";
  for (const char* field : {"title", "rating", "year", "genre", "boxart"}) paths.push_back(prefix + field);
  return paths;
}

Object catalogueDocument(std::size_t videos, std::size_t listItems, std::size_t errorEvery) {
  Object document = list(listItems, Dialect::Core);
  Object all = catalogueVideos(0, videos, Dialect::Core)["videos"];
  if (errorEvery > 0) {
    for (std::size_t i = 0; i < videos; i += errorEvery) {
      all[("v" + std::to_string(i))].setValueForKey(
          Object::mutableDictionary(
              {{"$type", "error"},
               {"value", Object::mutableDictionary({{"message", "rating unavailable"}, {"code", 503}})},
               {"$expires", -60000}}),
          "rating");
    }
  }
  document.asMutableDictionary()->setObject(all, "videos");
  return document;
}

}  // namespace brivet::testing
