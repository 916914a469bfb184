// The one place RapidJSON is included, so every translation unit sees the same
// configuration (SIMD whitespace skipping where the target has it).
#pragma once

#if defined(__SSE4_2__)
#define RAPIDJSON_SSE42 1
#elif defined(__SSE2__)
#define RAPIDJSON_SSE2 1
#elif defined(__ARM_NEON)
#define RAPIDJSON_NEON 1
#endif
#define RAPIDJSON_HAS_STDSTRING 1

#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
