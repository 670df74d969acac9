#pragma once

#include <cstdint>

// The number of an error; 0 means success. It is signed, because servers may define any number.
using ox_status_t = std::int32_t;
