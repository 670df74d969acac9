#pragma once

#include "common/fd.hpp"

namespace orvaned {

using tool::Fd;

}  // namespace orvaned
