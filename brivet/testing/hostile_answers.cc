#include "brivet/testing/hostile_answers.h"

#include <functional>

namespace brivet::testing {
namespace {

// "a" holds two references back to itself and a value "t".
std::string cycle(AnswerDialect dialect) {
  if (dialect == AnswerDialect::Legacy) return R"("a": {"x": ["a"], "y": ["a"], "t": 1})";
  return R"("a": {"x": {"$type": "ref", "value": ["a"]}, "y": {"$type": "ref", "value": ["a"]}, "t": 1})";
}

// ["a", ["x", "y"] x levels, last]
std::string fanOutPath(int levels, const char* last) {
  std::string p = R"(["a")";
  for (int i = 0; i < levels; ++i) p += R"(,["x","y"])";
  return p + ",\"" + last + "\"]";
}

// As many paths as fit in `room` bytes, as a JSON array; `path(i)` writes the i-th.
std::string manyPaths(const std::function<std::string(std::size_t)>& path, std::size_t room) {
  std::string out = "[";
  for (std::size_t i = 0; out.size() < room; ++i) {
    if (i > 0) out += ',';
    out += path(i);
  }
  return out + "]";
}

// "big": {"0": {"v": 0}, ...} of about `bytes`.
std::string largeBranch(std::size_t bytes) {
  std::string out = R"("big": {)";
  for (std::size_t i = 0; out.size() < bytes; ++i) {
    if (i > 0) out += ',';
    out += "\"" + std::to_string(i) + "\":{\"v\":" + std::to_string(i) + "}";
  }
  return out + "}";
}

std::string rangeFrom(std::size_t i) {
  return R"(["big",{"from":)" + std::to_string(i) + R"(,"to":9223372036854775807},"v"])";
}

// A chain of `levels` nested "d" branches ending in {"t": 1}, and the path down it.
std::string deepChain(int levels) {
  std::string out = R"("d": )";
  for (int i = 1; i < levels; ++i) out += R"({"d": )";
  out += R"({"t": 1})";
  for (int i = 1; i < levels; ++i) out += "}";
  return out;
}

std::string deepPath(int levels) {
  std::string p = "[";
  for (int i = 0; i < levels; ++i) p += R"("d",)";
  return p + "\"t\"]";
}

// A thousand absent keys below "a", each followed by 500 more: every miss is a long path.
std::string longMissingPath(std::size_t) {
  std::string p = R"(["a", [)";
  for (int k = 0; k < 1000; ++k) p += (k > 0 ? ",\"m" : "\"m") + std::to_string(k) + "\"";
  p += "]";
  for (int k = 0; k < 500; ++k) p += R"(,"r")";
  return p + "]";
}

// About `bytes` of videos, and the path reading every field of every one of them.
std::string videos(AnswerDialect dialect, std::size_t bytes, std::string& paths) {
  std::string out = R"("videos": {)";
  std::size_t count = 0;
  for (; out.size() < bytes; ++count) {
    if (count > 0) out += ',';
    const std::string i = std::to_string(count);
    out += "\"" + i + R"(":{"title":"Title )" + i + R"(","rating":3.5,"year":1990,"genre":"Drama",)";
    const std::string image = R"("url":"https://img.example/)" + i + R"(.jpg","w":150,"h":200)";
    out += dialect == AnswerDialect::Legacy ? R"("boxart":{"$type":"leaf",)" + image + "}}"
                                            : R"("boxart":{"$type":"atom","value":{)" + image + "}}}";
  }
  paths = R"([["videos", {"from": 0, "to": )" + std::to_string(count == 0 ? 0 : count - 1) +
          R"(}, ["title", "rating", "year", "genre", "boxart"]]])";
  return out + "}";
}

}  // namespace

std::string hostileAnswer(HostileAnswer kind, AnswerDialect dialect, std::size_t bytes) {
  const std::string open = dialect == AnswerDialect::Legacy ? R"({"value": {)" : R"({"jsonGraph": {)";
  auto answer = [&](const std::string& graph, const std::string& paths, const char* under = "paths") {
    std::string out = open + graph + "}, ";
    if (std::string(under) != "paths") out += R"("paths": [], )";
    return out + "\"" + under + "\": " + paths + "}";
  };
  switch (kind) {
    case HostileAnswer::Benign: {
      std::string paths;
      const std::string graph = videos(dialect, bytes, paths);
      return answer(graph, paths);
    }
    case HostileAnswer::FanOutPaths:  // 2^500 walks per path
      return answer(cycle(dialect), manyPaths([](std::size_t) { return fanOutPath(500, "t"); }, bytes));
    case HostileAnswer::FanOutMisses:  // the same, every walk ending on a missing key
      return answer(cycle(dialect), manyPaths([](std::size_t) { return fanOutPath(500, "missing"); }, bytes));
    case HostileAnswer::LongMisses: return answer(cycle(dialect), manyPaths(longMissingPath, bytes));
    case HostileAnswer::RangesOverALargeBranch:
      return answer(largeBranch(bytes * 3 / 4), manyPaths(rangeFrom, bytes / 4));
    case HostileAnswer::InvalidatedRanges:
      return answer(largeBranch(bytes * 3 / 4), manyPaths(rangeFrom, bytes / 4), "invalidated");
    case HostileAnswer::InvalidatedFanOut:
      return answer(cycle(dialect), manyPaths([](std::size_t) { return fanOutPath(500, "t"); }, bytes),
                    "invalidated");
    case HostileAnswer::DeepPaths:  // a branch 500 levels deep, read to the bottom by every path
      return answer(deepChain(500), manyPaths([](std::size_t) { return deepPath(500); }, bytes));
  }
  return "{}";
}

}  // namespace brivet::testing
