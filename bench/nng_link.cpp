// nng: PUSH to PULL over its abstract Unix sockets. Batches are built in the message that is sent.
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>

#include <stdexcept>

#include "links.hpp"

namespace bench {
namespace {

constexpr int kMessages = 8;  // that wait on the sender's side

void require(int error, const char* what) {
  if (error != 0) {
    throw std::runtime_error(std::string(what) + ": " + nng_strerror(error));
  }
}

class NngLink : public Link {
 public:
  explicit NngLink(std::size_t bytes) : capacity(bytes) {}
  // In a process that will fork, nothing of nng may be called.
  ~NngLink() override {
    if (socket.id > 0) {
      nng_msg_free(message);
      nng_close(socket);
    }
  }

  void beSender() override {
    require(nng_push0_open(&socket), "cannot make a socket");
    nng_socket_set_int(socket, NNG_OPT_SENDBUF, kMessages);
    nng_socket_set_ms(socket, NNG_OPT_RECONNMINT, 1);
    require(nng_dial(socket, address.c_str(), nullptr, NNG_FLAG_NONBLOCK), "cannot connect");
    require(nng_msg_alloc(&message, capacity), "cannot make a message");
  }
  void beReceiver() override {
    require(nng_pull0_open(&socket), "cannot make a socket");
    nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, 0);
    require(nng_listen(socket, address.c_str(), nullptr, 0), "cannot listen");
  }

  unsigned char* room() override { return static_cast<unsigned char*>(nng_msg_body(message)); }
  using Link::send;
  void send(std::size_t size) override {
    nng_msg_chop(message, capacity - size);
    require(nng_sendmsg(socket, message, 0), "cannot send");
    require(nng_msg_alloc(&message, capacity), "cannot make a message");
  }
  Bytes receive() override {
    nng_msg_free(message);
    message = nullptr;
    require(nng_recvmsg(socket, &message, 0), "cannot receive");
    return {room(), nng_msg_len(message)};
  }

 private:
  const std::size_t capacity;
  const std::string address = "abstract://" + uniqueName();
  nng_socket socket = NNG_SOCKET_INITIALIZER;
  nng_msg* message = nullptr;
};

}  // namespace

std::unique_ptr<Link> makeNng(std::size_t capacity) {
  return std::make_unique<NngLink>(capacity);
}

}  // namespace bench
