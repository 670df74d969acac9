#pragma once

#include <cstddef>

#include "ox/export.hpp"

extern "C" {

// Copies the string `source` into the `size` bytes at `destination`, cutting it to size - 1
// characters; the rest is filled with zeros, so the result is always terminated and carries nothing
// that stood there before. The two may overlap. A size of 0 writes nothing.
OX_API void pvkstrcpy(char* destination, const char* source, std::size_t size);
}
