// ZeroMQ: PUSH to PULL over its ipc transport. Batches are built in the message that is sent.
#include <zmq.h>

#include <cstdlib>
#include <stdexcept>

#include "links.hpp"

namespace bench {
namespace {

constexpr int kMessages = 8;  // that wait on each side

[[noreturn]] void failWithZeroMq(const std::string& what) {
  throw std::runtime_error(what + ": " + zmq_strerror(zmq_errno()));
}

class ZeroMqLink : public Link {
 public:
  explicit ZeroMqLink(std::size_t bytes) : capacity(bytes) {}
  ~ZeroMqLink() override {
    if (context != nullptr) {
      zmq_msg_close(&message);
      zmq_close(socket);  // waits until everything was sent
      zmq_ctx_term(context);
    }
  }

  void beSender() override {
    open(ZMQ_PUSH);
    if (zmq_connect(socket, address.c_str()) != 0) {
      failWithZeroMq("cannot connect");
    }
    zmq_msg_init_size(&message, capacity);
  }
  void beReceiver() override {
    open(ZMQ_PULL);
    if (zmq_bind(socket, address.c_str()) != 0) {
      failWithZeroMq("cannot bind");
    }
    zmq_msg_init(&message);
  }

  unsigned char* room() override { return static_cast<unsigned char*>(zmq_msg_data(&message)); }
  using Link::send;
  void send(std::size_t size) override {
    if (size < capacity) {
      if (zmq_send(socket, room(), size, 0) < 0) {
        failWithZeroMq("cannot send");
      }
      return;
    }
    if (zmq_msg_send(&message, socket, 0) < 0) {
      failWithZeroMq("cannot send");
    }
    zmq_msg_init_size(&message, capacity);
  }
  Bytes receive() override {
    if (zmq_msg_recv(&message, socket, 0) < 0) {
      failWithZeroMq("cannot receive");
    }
    return {room(), zmq_msg_size(&message)};
  }

 private:
  void open(int type) {
    context = zmq_ctx_new();
    socket = zmq_socket(context, type);
    if (socket == nullptr) {
      failWithZeroMq("cannot make a socket");
    }
    zmq_setsockopt(socket, type == ZMQ_PUSH ? ZMQ_SNDHWM : ZMQ_RCVHWM, &kMessages,
                   sizeof kMessages);
  }

  const std::size_t capacity;
  const std::string address = "ipc://@" + uniqueName();
  void* context = nullptr;
  void* socket = nullptr;
  zmq_msg_t message = {};
};

}  // namespace

std::unique_ptr<Link> makeZeroMq(std::size_t capacity) {
  return std::make_unique<ZeroMqLink>(capacity);
}

}  // namespace bench
