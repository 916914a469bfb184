#include "tools/server/sample_catalogue.h"

#include <string>
#include <vector>

#include "brivet/core/values/graph_builders.h"

namespace brivet::tools {
namespace {

constexpr const char* kTitles[] = {
    "The Quiet Harbour", "Northern Lights", "A Year of Rain",  "Paper Moons",       "The Last Orchard",
    "Glass Mountains",   "Small Hours",     "River of Salt",   "Borrowed Time",     "The Lantern Keeper",
    "Iron Meadow",       "Summer Static",   "The Long Way",    "Echoes of Home",    "Cold Comfort",
    "Halfway There",     "The Ninth Wave",  "Lighthouse",      "Velvet Thunder",    "Far From Shore",
    "The Cartographer",  "Midnight Tram",   "Wild Geese",      "Under the Bridge",
};
constexpr const char* kGenres[] = {"Drama", "Comedy", "Action", "Horror", "Documentary", "Family", "Thriller",
                                   "Romance"};
constexpr std::size_t kVideos = sizeof kTitles / sizeof kTitles[0];
constexpr std::size_t kListLength = 10;

Object video(std::size_t i, const std::string& title, std::int64_t year, const std::string& genre) {
  return Object::dictionary(
      {{"title", title},
       {"rating", static_cast<double>(i % 50) / 10.0},
       {"year", year},
       {"genre", genre},
       {"boxart", leaf::atom(Object::dictionary(
                      {{"url", "https://img.example/" + std::to_string(i) + ".jpg"}, {"w", 150}, {"h", 200}}))}});
}

}  // namespace

JSONGraph sampleCatalogue() {
  std::vector<Object::Entry> videos;
  for (std::size_t i = 0; i < kVideos; ++i) {
    videos.emplace_back(Object("v" + std::to_string(i)),
                        video(i, kTitles[i], static_cast<std::int64_t>(1950 + i * 3 % 70), kGenres[i % 8]));
  }
  std::vector<Object::Entry> top;
  for (std::size_t k = 0; k < kListLength; ++k) {
    top.emplace_back(Object(std::to_string(k)), leaf::ref("videos", "v" + std::to_string(k)));
  }
  top.emplace_back(Object("length"), Object(static_cast<std::int64_t>(kListLength)));
  return JSONGraph::fromAny(Object::dictionary({{"lists", Object::dictionary({{"top", Object::dictionary(top)}})},
                                                {"videos", Object::dictionary(videos)}}));
}

void registerSampleFunctions(JSONGraphServer& server) {
  server.registerFunction(
      "lists.top.push",
      [](const JSONGraph& document, const Object& arguments) -> Result<JSONGraphServer::CallResult, std::string> {
        const Object first = arguments[0];
        std::string title;
        std::int64_t year = 2026;
        std::string genre = "Drama";
        if (first.isString()) {
          title = first.stringValue();
        } else if (first.isDictionary() && first["title"].isString()) {
          title = first["title"].stringValue();
          if (const Number* n = first["year"].asNumber()) year = n->int64Value();
          if (first["genre"].isString()) genre = first["genre"].stringValue();
        } else {
          return Failure{std::string("lists.top.push takes a title")};
        }
        // The list's length and the next free video name, as the document stands.
        std::int64_t length = 0;
        if (auto lists = document.find("lists"); lists && lists->isObject()) {
          if (auto topList = lists->find("top"); topList && topList->isObject()) {
            if (auto stored = topList->find("length"); stored && stored->isLeaf()) {
              const Object n = stored->toAnyType();
              if (const Number* number = n.asNumber()) length = number->int64Value();
            }
          }
        }
        std::size_t next = 0;
        if (auto videos = document.find("videos"); videos && videos->isObject()) next = videos->size();
        while (document.find("videos") && document.find("videos")->find("v" + std::to_string(next))) ++next;
        const std::string name = "v" + std::to_string(next);
        const std::string index = std::to_string(length);
        JSONGraphServer::CallResult result;
        result.jsonGraph = JSONGraph::fromAny(Object::dictionary(
            {{"lists", Object::dictionary({{"top", Object::dictionary({{index, leaf::ref("videos", name)},
                                                                        {"length", length + 1}})}})},
             {"videos", Object::dictionary({{name, video(next, title, year, genre)}})}}));
        result.paths = Object::array({Object::array({"lists", "top", index}), Object::array({"lists", "top", "length"})});
        result.invalidated = Object::array({Object::array({"lists", "top", "length"})});
        return result;
      });
}

}  // namespace brivet::tools
