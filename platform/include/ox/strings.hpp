#pragma once

#include <cstddef>

#include "ox/export.hpp"

extern "C" {

// Copies the string `source` into the `size` bytes at `destination`, and cuts it to size - 1
// characters. The rest is filled with zeros, so the result is always terminated and no earlier
// bytes stay there. The two may overlap. With a size of 0, nothing is written.
OX_API void pvkstrcpy(char* destination, const char* source, std::size_t size);
}
