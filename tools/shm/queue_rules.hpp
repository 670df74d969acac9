#pragma once

#include <cstddef>
#include <string>

namespace tool {

constexpr std::size_t kMaxQueueName = 200;                     // bytes of a queue's name
constexpr std::size_t kMaxMessageSize = std::size_t{1} << 30;  // bytes of a queue's message

// Throws std::invalid_argument with the reason unless `name` is valid for a queue pair: it has
// letters, digits and _.- but no leading dot, at most kMaxQueueName bytes, and it is not the name
// of a response queue. So it is a plain file name in /dev/shm, with room for what is added to it.
void checkQueueName(const std::string& name);

// Checks a name that a user chooses. It must not look like the name of a leased queue either, since
// other servers finish the streams of a lease whose server is dead.
void checkFixedQueueName(const std::string& name);

// Returns the smallest size of a queue's message that holds `count` records of the largest size.
std::size_t messageSizeFor(std::size_t count);

// Returns the size of a queue's message that holds one record without data. A record does not fit
// into a smaller one.
std::size_t smallestMessageSize();

}  // namespace tool
