// iceoryx: messages are built in the shared memory from which they are read; nothing is copied.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/iceoryx_posh_types.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/popo/wait_set.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>
#include <stdexcept>

#include "links.hpp"

namespace bench {
namespace {

constexpr std::uint64_t kMessages = 8;

// The daemon that owns the shared memory; runs until this program ends.
class Daemon {
 public:
  Daemon() {
    std::array<int, 2> output = {};
    if (pipe(output.data()) != 0) {
      failWithErrno("cannot make a pipe");
    }
    pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      dup2(output[1], STDOUT_FILENO);
      dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
      execlp("iox-roudi", "iox-roudi", nullptr);
      _exit(127);
    }
    close(output[1]);
    std::FILE* const lines = fdopen(output[0], "r");
    std::array<char, 256> line = {};
    while (std::fgets(line.data(), line.size(), lines) != nullptr) {
      if (std::strstr(line.data(), "ready for clients") != nullptr) {
        return;
      }
    }
    throw std::runtime_error("iox-roudi did not start");
  }
  ~Daemon() {
    // It would fail, and leave its memory behind, before it has noticed that its clients ended.
    sleep(2);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }

 private:
  pid_t pid = -1;
};

class IceoryxLink : public Link {
 public:
  explicit IceoryxLink(std::size_t bytes) : capacity(bytes) {}

  void beSender() override {
    join();
    iox::popo::PublisherOptions options;
    options.subscriberTooSlowPolicy = iox::popo::ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER;
    publisher = std::make_unique<iox::popo::UntypedPublisher>(service(), options);
    while (!publisher->hasSubscribers()) {
      usleep(1000);
    }
    loan();
  }
  void beReceiver() override {
    join();
    iox::popo::SubscriberOptions options;
    options.queueCapacity = kMessages;
    options.queueFullPolicy = iox::popo::QueueFullPolicy::BLOCK_PRODUCER;
    subscriber = std::make_unique<iox::popo::UntypedSubscriber>(service(), options);
    waitSet = std::make_unique<iox::popo::WaitSet<>>();
    if (waitSet->attachState(*subscriber, iox::popo::SubscriberState::HAS_DATA).has_error()) {
      throw std::runtime_error("cannot wait for messages");
    }
  }

  void leave() override {
    publisher.reset();
    if (received != nullptr) {
      subscriber->release(received);
    }
    waitSet.reset();
    subscriber.reset();
    // The runtime would remove them itself if this process ended in any other way than _exit().
    for (const char* suffix : {"", ".lock"}) {
      std::remove(("/tmp/" + runtime + suffix).c_str());
    }
  }

  // The message's size goes first: a chunk is as large as it was asked for.
  unsigned char* room() override { return chunk + sizeof(std::uint64_t); }
  using Link::send;
  void send(std::size_t size) override {
    const std::uint64_t stored = size;
    std::memcpy(chunk, &stored, sizeof stored);
    publisher->publish(chunk);
    loan();
  }
  Bytes receive() override {
    if (received != nullptr) {
      subscriber->release(received);
      received = nullptr;
    }
    for (;;) {
      subscriber->take().and_then([this](const void* payload) { received = payload; });
      if (received != nullptr) {
        break;
      }
      waitSet->wait();
    }
    std::uint64_t size = 0;
    std::memcpy(&size, received, sizeof size);
    return {static_cast<const unsigned char*>(received) + sizeof size, size};
  }

 private:
  void join() {
    runtime = uniqueName();
    iox::log::LogManager::GetLogManager().SetDefaultLogLevel(
        iox::log::LogLevel::kOff, iox::log::LogLevelOutput::kHideLogLevel);
    iox::runtime::PoshRuntime::initRuntime(
        iox::RuntimeName_t(iox::cxx::TruncateToCapacity, runtime));
  }
  iox::capro::ServiceDescription service() const {
    return {"orvane", "bench", iox::capro::IdString_t(iox::cxx::TruncateToCapacity, name)};
  }
  void loan() {
    publisher->loan(static_cast<std::uint32_t>(sizeof(std::uint64_t) + capacity))
        .and_then([this](void* payload) { chunk = static_cast<unsigned char*>(payload); })
        .or_else([](auto&) { throw std::runtime_error("no room for a message"); });
  }

  const std::size_t capacity;
  const std::string name = uniqueName();
  std::string runtime;
  std::unique_ptr<iox::popo::UntypedPublisher> publisher;
  std::unique_ptr<iox::popo::UntypedSubscriber> subscriber;
  std::unique_ptr<iox::popo::WaitSet<>> waitSet;
  unsigned char* chunk = nullptr;
  const void* received = nullptr;
};

}  // namespace

std::unique_ptr<Link> makeIceoryx(std::size_t capacity) {
  static const Daemon daemon;
  return std::make_unique<IceoryxLink>(capacity);
}

}  // namespace bench
