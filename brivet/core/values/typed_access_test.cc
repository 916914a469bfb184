#include "brivet/core/values/typed_access.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "brivet/core/values/graph_builders.h"
#include "brivet/platform/json.h"

namespace brivet {
namespace {

Object json(std::string_view text) { return parseJSON(text).value(); }

class CoreTypedAccessTest : public ::testing::Test {
 protected:
  // The catalogue's shape: a list of references, videos with fields and a boxart atom.
  const Object wire_ = Object::dictionary(
      {{"lists", Object::dictionary({{"top", Object::dictionary({{"0", leaf::ref("videos", "v0")}})}})},
       {"videos",
        Object::dictionary({{"v0", Object::dictionary({{"title", "Up"},
                                                        {"year", 2009},
                                                        {"rating", leaf::atom(4.5)},
                                                        {"tags", leaf::atom(std::vector<std::string>{"a", "b"})},
                                                        {"boxart", leaf::atom(json(R"({"url": "u", "w": 150})"))},
                                                        {"rights", leaf::error("no rights")},
                                                        {"gone", json(R"({"$type": "atom"})")}})}})}});
  const JSONGraph graph_ = JSONGraph::fromAny(wire_);
};

TEST_F(CoreTypedAccessTest, GraphsReadThroughTheirLeaves) {
  EXPECT_EQ(get<std::string>(graph_, "videos", "v0", "title"), "Up");
  EXPECT_EQ(get<double>(graph_, "videos", "v0", "rating"), 4.5);
  EXPECT_EQ(get<std::vector<std::string>>(graph_, "videos", "v0", "tags"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(get<int>(graph_, "videos", "v0", "boxart", "w"), 150);  // keys go on into an atom's value
  EXPECT_EQ(readAt<int>(graph_, "videos.v0.year").value(), 2009);
  EXPECT_EQ(read<std::string>(graph_, "videos", "v0", "rights").error().localizedDescription(),
            "videos.v0.rights: found an error leaf: no rights");
  // A graph alone does not follow references: the walk stops at the reference and says so.
  EXPECT_EQ(read<std::string>(graph_, "lists", "top", 0, "title").error().localizedDescription(),
            "lists.top.0: found a reference to videos.v0 (read it where references are followed)");
  EXPECT_EQ(read<std::string>(graph_, "videos", "v0", "rights", "x").error().localizedDescription(),
            "videos.v0.rights: found an error leaf: no rights");
  EXPECT_EQ(read<std::string>(graph_, "videos", "v0", "title", "x").error().localizedDescription(),
            "videos.v0.title.x: no value");
  EXPECT_NE(read<std::string>(graph_, "lists", "top", 0).error().localizedDescription().find("reference to videos.v0"),
            std::string::npos);
  EXPECT_EQ(read<int>(graph_, "videos", "v0", "gone").error().code(), static_cast<std::int64_t>(AccessErrorCode::NoValue));
  // A branch read as a whole reads as its platform form.
  EXPECT_EQ((get<std::map<std::string, Object>>(graph_, "videos", "v0")->size()), 7u);
}

TEST_F(CoreTypedAccessTest, ValuesReadAsTheirPlatformFormReads) {
  const Object answer = json(R"({"videos": {"v0": {"title": "Up", "year": 2009, "cast": ["A", "B"],
                                 "atom": {"$type": "atom", "value": [1, 2]}, "facade": {"value": 7}}}})");
  const JSONValue value = JSONValue::fromAny(answer);
  for (const char* field : {"title", "year", "cast", "atom", "facade"}) {
    const Object platform = answer["videos"]["v0"][field];
    EXPECT_EQ(get<std::string>(value, "videos", "v0", field), get<std::string>(answer, "videos", "v0", field)) << field;
    EXPECT_EQ(get<int>(value, "videos", "v0", field), get<int>(answer, "videos", "v0", field)) << field;
    EXPECT_EQ(get<std::vector<int>>(value, "videos", "v0", field), as<std::vector<int>>(platform)) << field;
    EXPECT_EQ(get<std::vector<std::string>>(value, "videos", "v0", field), as<std::vector<std::string>>(platform))
        << field;
  }
  EXPECT_EQ(get<std::string>(value, "videos", "v0", "cast", 1), "B");
  EXPECT_EQ(read<int>(value, "videos", "v0", "title").error().localizedDescription(),
            read<int>(answer, "videos", "v0", "title").error().localizedDescription());
  EXPECT_EQ(read<int>(value, "videos", "v1").error().localizedDescription(), "videos.v1: no value");
}

TEST_F(CoreTypedAccessTest, StringViewsLiveInTheHandleTheyCameFrom) {
  const JSONValue shortText = JSONPrimitive::string("Up");  // short enough to live in the handle
  const JSONValue longText = JSONPrimitive::string(std::string(100, 'x'));
  EXPECT_EQ(as<std::string_view>(shortText), "Up");
  EXPECT_EQ(as<std::string_view>(longText)->size(), 100u);
  const JSONValue number = JSONPrimitive::integer(1);
  EXPECT_FALSE(as<std::string_view>(number).has_value());
}

}  // namespace
}  // namespace brivet
