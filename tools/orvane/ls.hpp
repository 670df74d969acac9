#pragma once

namespace tool {

// Prints the queues of this machine, as a table or as JSON. What this user may not know is "-", or
// null.
void listQueues(bool json);

}  // namespace tool
