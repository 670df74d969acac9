#include "support/waiting_thread.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace orvane::test {

namespace {

// Returns when the thread is inside the system call.
void awaitCall(pid_t thread, long number) {
  const std::string path = "/proc/" + std::to_string(thread) + "/syscall";
  const std::string call = std::to_string(number) + " ";
  for (std::string line; !line.starts_with(call); std::this_thread::yield()) {
    std::ifstream file(path);
    if (!std::getline(file, line)) {
      throw std::runtime_error(path + " cannot be read: the call has ended instead of waiting");
    }
  }
}

}  // namespace

void awaitSleep(pid_t thread) {
  awaitCall(thread, SYS_futex);
}

void WaitingThread::awaitWrite() const {
  awaitCall(id, SYS_write);
}

WaitingThread::WaitingThread(std::function<void()> threadCall) : call(std::move(threadCall)) {
  const int error = pthread_create(&thread, nullptr, run, this);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), "pthread_create");
  }
  while (id == 0) {
    std::this_thread::yield();
  }
}

WaitingThread::~WaitingThread() {
  returns();
}

bool WaitingThread::returns() {
  void* result = nullptr;
  if (!joined) {
    pthread_join(thread, &result);
    joined = true;
  }
  return result != PTHREAD_CANCELED;
}

void* WaitingThread::run(void* self) {
  auto* waiting = static_cast<WaitingThread*>(self);
  waiting->id = gettid();
  waiting->call();
  pthread_testcancel();
  return nullptr;
}

}  // namespace orvane::test
