#pragma once

#define ORVANE_API __attribute__((visibility("default")))

// For private members of an exported class.
#define ORVANE_LOCAL __attribute__((visibility("hidden")))
