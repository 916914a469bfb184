// The library's reverse-DNS identifier.
//
// It names the library everywhere: the error domain of the legacy model and the
// facade, the signpost subsystem, and the labels of the library's queues.
// Every place that names the library uses this one constant.
#pragma once

#include <string_view>

namespace brivet {

inline constexpr std::string_view kReverseDomain = "io.brivet.Brivet";

}  // namespace brivet
