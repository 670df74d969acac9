#pragma once

#include <boost/interprocess/ipc/message_queue.hpp>
#include <string>

#include "support/child.hpp"

// What a peer does to a queue, in a child. Each attaches to the queue as any process would.
namespace orvane::test {

// Sends to the queue; the process gets the signal inside the queue's lock.
inline void sendAndRaise(const std::string& queueName, int signal) {
  boost::interprocess::message_queue queue(boost::interprocess::open_only, queueName.c_str());
  queue.try_send(pageThatRaises(signal), 1, 0);
}

// Takes a message of at most a page, likewise.
inline void receiveAndRaise(const std::string& queueName, int signal) {
  boost::interprocess::message_queue queue(boost::interprocess::open_only, queueName.c_str());
  boost::interprocess::message_queue::size_type size = 0;
  unsigned int priority = 0;
  queue.try_receive(pageThatRaises(signal), queue.get_max_msg_size(), size, priority);
}

}  // namespace orvane::test
