// The bundled sample: a small catalogue shaped like the benchmark workload, and
// the function that adds to its list.
//
// videos.v<i> (i from 0 to 23) has a title, a rating, a year, a genre and a
// boxart atom; lists.top.0 to lists.top.9 refer to videos v0 to v9 and
// lists.top.length is 10.
//
// "lists.top.push" (arguments: a title, or a dictionary with "title" and
// optional "year" / "genre") creates the next video, appends a reference to it
// at lists.top.<length>, and answers the new reference and the list's length,
// invalidating the length the client has cached.
#pragma once

#include "brivet/core/values/json_graph.h"
#include "tools/server/json_graph_server.h"

namespace brivet::tools {

JSONGraph sampleCatalogue();
void registerSampleFunctions(JSONGraphServer& server);

}  // namespace brivet::tools
