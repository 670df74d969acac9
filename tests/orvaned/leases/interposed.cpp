#include "interposed.hpp"

#include <dlfcn.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <utility>

namespace orvane::test::interposed {
namespace {

int peerPidfdError = 0;
bool producersHidden = false;
std::deque<std::uint64_t> randomNumbers;
std::function<void()> listenAction;
int socketError = 0;

constexpr int kPeerPidfd = 77;

template <typename Function>
Function original(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void failPeerPidfd(int error) {
  peerPidfdError = error;
}
void hideProducers(bool hidden) {
  producersHidden = hidden;
}
void nextRandomNumbers(std::vector<std::uint64_t> numbers) {
  randomNumbers.assign(numbers.begin(), numbers.end());
}
void beforeListen(std::function<void()> action) {
  listenAction = std::move(action);
}
void failNextSocket(int error) {
  socketError = error;
}

}  // namespace orvane::test::interposed

using namespace orvane::test::interposed;

int getsockopt(int fd, int level, int name, void* value, socklen_t* size) noexcept {
  const bool isPidfd = level == SOL_SOCKET && name == kPeerPidfd;
  if (isPidfd && (peerPidfdError != 0 || producersHidden)) {
    errno = producersHidden ? ENODATA : peerPidfdError;
    return -1;
  }
  const int result = original<decltype(&getsockopt)>("getsockopt")(fd, level, name, value, size);
  if (producersHidden && level == SOL_SOCKET && name == SO_PEERCRED) {
    static_cast<ucred*>(value)->pid = 0;
  }
  return result;
}

ssize_t getrandom(void* buffer, std::size_t size, unsigned int flags) {
  if (!randomNumbers.empty() && size == sizeof(std::uint64_t)) {
    std::memcpy(buffer, &randomNumbers.front(), size);
    randomNumbers.pop_front();
    return static_cast<ssize_t>(size);
  }
  return original<decltype(&getrandom)>("getrandom")(buffer, size, flags);
}

int listen(int fd, int backlog) noexcept {
  if (listenAction) {
    std::exchange(listenAction, nullptr)();
  }
  return original<decltype(&listen)>("listen")(fd, backlog);
}

int socket(int domain, int type, int protocol) noexcept {
  if (socketError != 0) {
    errno = std::exchange(socketError, 0);
    return -1;
  }
  return original<decltype(&socket)>("socket")(domain, type, protocol);
}
