#pragma once

#include "ox/export.hpp"

// Each function writes one line at its level. `format` is a printf format; the sink receives `code`
// unchanged. Any thread may call them; they never throw and do not change errno.
// A program that defines these functions itself (C linkage) replaces the platform's.
extern "C" {

OX_API void InfoA(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
OX_API void AuthA(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
OX_API void WarningA(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
OX_API void ErrorA(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
}
