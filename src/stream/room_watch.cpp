#include "stream/room_watch.hpp"

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <system_error>

#include "orvane/status.hpp"
#include "records/failure.hpp"

namespace orvane {

namespace {

constexpr int kLongestPauseMs = 10;

int orFail(int result) {
  if (result < 0) {
    fail(kLeaseLost,
         "Cannot make a descriptor for an event loop: ", std::generic_category().message(errno));
  }
  return result;
}

ring::File newEvent() {
  return ring::File(orFail(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
}

void set(const ring::File& event) {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(event.get(), &one, sizeof one);
}

void clear(const ring::File& event) {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t size = read(event.get(), &count, sizeof count);
}

void add(const ring::File& epoll, int fd) {
  epoll_event event = {};
  event.events = EPOLLIN | EPOLLRDHUP;
  orFail(epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event));
}

// Blocks all signals in a thread that is started meanwhile: they belong to the program's threads.
class WithoutSignals {
 public:
  WithoutSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
  }
  ~WithoutSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  WithoutSignals(const WithoutSignals&) = delete;
  WithoutSignals& operator=(const WithoutSignals&) = delete;

 private:
  sigset_t before = {};
};

}  // namespace

RoomWatch::RoomWatch(int connection, const ring::Producer* producer)
    : producer(producer),
      both(orFail(epoll_create1(EPOLL_CLOEXEC))),
      room(newEvent()),
      ended(newEvent()) {
  add(both, connection);
  add(both, room.get());
}

RoomWatch::~RoomWatch() {
  endThread();
}

void RoomWatch::begin(std::uint64_t wanted) {
  end();
  if (producer == nullptr) {
    return;
  }
  hasBegun = true;
  const WithoutSignals blocked;
  try {
    thread = std::thread([this, wanted] { look(wanted); });
  } catch (const std::exception&) {
    set(room);  // without a thread, the caller has to look
  }
}

void RoomWatch::end() {
  if (hasBegun) {
    endThread();
    clear(room);
    hasBegun = false;
  }
}

void RoomWatch::endThread() {
  if (thread.joinable()) {
    set(ended);
    thread.join();
    clear(ended);
  }
}

void RoomWatch::forget() {
  if (thread.joinable()) {
    thread.detach();
  }
}

// It does not sleep on the ring, where only one thread of a producer may.
void RoomWatch::look(std::uint64_t wanted) const {
  for (int pause = 1; !producer->isReleasedUpTo(wanted);
       pause = std::min(2 * pause, kLongestPauseMs)) {
    pollfd end = {ended.get(), POLLIN, 0};
    if (poll(&end, 1, pause) > 0) {
      return;
    }
  }
  set(room);
}

}  // namespace orvane
