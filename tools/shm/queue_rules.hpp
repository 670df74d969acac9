#pragma once

#include <cstddef>
#include <string>

namespace tool {

// Throws std::invalid_argument, saying what is wrong with the name, unless it is a name for a queue
// pair: letters, digits and _.- without a leading dot, at most 200 bytes, and not another pair's
// response queue's. So it is a plain file name in /dev/shm, with room for what is added to it.
void checkQueueName(const std::string& name);

// The same for a name that its users choose: nobody's queue may look as if a server had leased it,
// since other servers finish the streams of a lease whose server is dead.
void checkFixedQueueName(const std::string& name);

// The size of a queue message that holds `count` records of the largest size, with nothing to
// spare.
std::size_t messageSizeFor(std::size_t count);

// The size of a queue message that holds one record without data: below it, none can pass.
std::size_t smallestMessageSize();

}  // namespace tool
