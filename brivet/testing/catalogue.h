// The catalogue workload shared by every benchmark (and handy in tests).
//
// Entity i lives at videos.v<i> with five fields: title "Title <i>", rating
// (i mod 50) / 10 (a double), year 1950 + (i mod 70), genre (one of eight), and
// boxart, an atom holding {"url": "https://img.example/<i>.jpg", "w": 150,
// "h": 200}. The list lists.top.<k> refers to videos.v<k>.
//
// Two dialects: the core's JSON Graph ({"$type": "ref", "value": [...]} and
// {"$type": "atom", "value": {...}}) and the legacy model's merge input
// (references as arrays of strings, boxart as a {"$type": "leaf", ...}
// dictionary). Everything is built as platform objects (mutable containers).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "brivet/platform/object.h"

namespace brivet::testing {

enum class Dialect { Core, Legacy };

// {"title": ..., "rating": ..., "year": ..., "genre": ..., "boxart": ...}
Object catalogueVideo(std::size_t i, Dialect dialect);
// {"videos": {"v<first>": ..., ...}}: `count` videos from `first`.
Object catalogueVideos(std::size_t first, std::size_t count, Dialect dialect);
// The response to the catalogue request: lists.top.0..n-1 and videos v0..v<n-1>.
Object catalogueResponse(std::size_t n, Dialect dialect);
// The five key paths "lists.top.@range(0,n-1).<field>".
std::vector<std::string> catalogueRequestPaths(std::size_t n);
// A JSON Graph document of `videos` videos, a list over the first `listItems`
// and, every `errorEvery` videos, a rating that is an error leaf (0: none).
Object catalogueDocument(std::size_t videos, std::size_t listItems, std::size_t errorEvery);

}  // namespace brivet::testing
