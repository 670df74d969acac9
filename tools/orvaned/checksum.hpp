#pragma once

#include "common/checksum.hpp"

namespace orvaned {

using tool::checksumOf;

}  // namespace orvaned
