// The annotation macros live in brivet/platform/thread_annotations.h.
#pragma once

#include "brivet/platform/thread_annotations.h"
