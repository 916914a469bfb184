// The legacy model's exported constants.
//
// These spell the key-path syntax ("a.@range(0,9).b"), the keys of the
// dictionaries exchanged with a data source, the snapshot envelope and the
// signpost switch. Their values are part of the interface: applications and
// data sources compare against them. Plain compile-time values, usable from any
// thread.
#pragma once

#include <cstdint>
#include <string_view>

#include "brivet/platform/identifier.h"

namespace brivet {

inline constexpr std::string_view BRIVET_KEY_PATH_SEPARATOR = ".";
inline constexpr std::string_view BRIVET_PQL_PATH_SEPARATOR = ",";
inline constexpr std::string_view BRIVET_PQL_PATH_RANGE_FROM_KEY = "from";
inline constexpr std::string_view BRIVET_PQL_PATH_RANGE_TO_KEY = "to";
inline constexpr std::string_view BRIVET_PQL_PATH_RANGE_LENGTH_KEY = "length";
inline constexpr std::string_view BRIVET_NODE_VALUE_KEY = "value";
inline constexpr std::string_view BRIVET_NODE_INVALIDATED_KEY = "invalidated";
inline constexpr std::string_view BRIVET_NODE_PATHS_KEY = "paths";
inline constexpr std::string_view BRIVET_NODE_ERROR_KEY = "error";
inline constexpr std::string_view BRIVET_NODE_ERROR_MESSAGE_KEY = "message";
inline constexpr std::string_view BRIVET_NODE_ERROR_INNER_ERRORS_KEY = "innerErrors";
inline constexpr std::string_view BRIVET_NODE_TYPE_KEY = "$type";
inline constexpr std::string_view BRIVET_NODE_EXPIRES_KEY = "$expires";
inline constexpr std::string_view BRIVET_LEAF_NODE_VALUE = "leaf";
inline constexpr std::string_view BRIVET_NODE_PROFILES_KEY = "profilesList";
// A range fragment: "@range(" two non-negative decimal bounds ")", matched
// case-insensitively. The text is the regular expression exactly as published.
inline constexpr std::string_view BRIVET_MATCH_RANGE_FRAGMENT_REGEX = "\\@range\\((\\d+),(\\d+)\\)";
inline constexpr std::string_view BRIVET_KEY_PATH_WILDCARD = "@*";
inline constexpr std::string_view BRIVET_JSON_GRAPH_JSON_GRAPH_KEY = "jsonGraph";
inline constexpr std::string_view BRIVET_JSON_GRAPH_CACHE_VERSION_KEY = "$_version";
inline constexpr std::string_view BRIVET_SIGNPOST_ENV_VAR = "SIGNPOSTS_FOR_BRIVET";
inline constexpr std::string_view BRIVET_ERROR_DOMAIN = kReverseDomain;
// The identifier as a NUL-terminated C string (the view refers to a string literal).
inline constexpr const char* BRIVET_REVERSE_DOMAIN = kReverseDomain.data();
static_assert(kReverseDomain.data()[kReverseDomain.size()] == '\0');

// The code of every error the legacy model and the facade create.
inline constexpr std::int64_t BRIVET_ERROR_CODE = -999;
// The two special "$expires" values: already expired, and never expires.
inline constexpr std::int64_t BRIVET_EXPIRES_NOW = 0;
inline constexpr std::int64_t BRIVET_EXPIRES_NEVER = 1;

}  // namespace brivet
