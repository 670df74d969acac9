#pragma once

#include "ox/export.hpp"

// One message at a severity. `format` is a printf format; `code` reaches the sink unchanged.
// Any thread may call them; they never throw and leave errno as it was.
// A program that defines these functions itself (C linkage) replaces the platform's.
extern "C" {

OX_API void InfoA(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
OX_API void AuthA(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
OX_API void WarningA(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
OX_API void ErrorA(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
}
