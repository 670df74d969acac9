#pragma once

#include <cstdint>

// A result code; 0 means success. Signed, because a server may answer with its own codes.
using ox_status_t = std::int32_t;
