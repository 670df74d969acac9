#pragma once

#include <cstdint>

// A result code; 0 means success. Signed, because a server may answer with codes of its own.
using ox_status_t = std::int32_t;
