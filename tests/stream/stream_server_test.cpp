// A stream and the real server: what the store has is what finish() says.

#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "orvane/server_status.hpp"
#include "orvane/stream.hpp"
#include "support/await.hpp"
#include "support/child.hpp"
#include "support/eventually.hpp"
#include "support/lease_fixture.hpp"
#include "support/manifest.hpp"

namespace orvane::test {
namespace {

constexpr unsigned int kLong = 60;  // seconds

struct OverQueue {
  static constexpr Transport kTransport = Transport::queue;
};
struct OverRing {
  static constexpr Transport kTransport = Transport::ring;
};

template <typename Over>
class StreamAndServer : public LeaseTest {
 protected:
  StreamAndServer() { start(); }

  StreamOptions options(unsigned int timeout = kLong) const {
    StreamOptions options;
    options.socket = socket;
    options.label = "app.log";
    options.timeout = timeout;
    options.transport = Over::kTransport;
    return options;
  }

  // The only stream's folder; waits until it has its final name.
  std::string folderOfStream() const {
    Words names;
    EXPECT_TRUE(eventually([&] {
      names = namesIn(store.path());
      return names.size() == 1 && names[0][0] != '.';
    }));
    return store.path() + "/" + names.at(0);
  }
  std::string ending() const {
    const std::string path = folderOfStream() + "/manifest";
    if (!eventually([&] { return std::filesystem::exists(path); })) {
      return "it has not ended";
    }
    const std::string manifest = plainManifest(readFile(path));
    return manifest.substr(manifest.find("\nend=") + 1);
  }

  // Stops all processes of the server while they wait: one that is stopped inside a queue's lock
  // would end the stream.
  void stopServer() const {
    const pid_t worker = Over::kTransport == Transport::ring
                             ? server->workerOfRing()
                             : server->childWith("-" + std::to_string(server->process()) + "_");
    const auto isOutside = [worker] {
      const long call = systemCallOf(worker);
      return call == SYS_futex || call == SYS_poll || call == SYS_ppoll;
    };
    ASSERT_TRUE(eventually([&] {
      server->signalAll(SIGCONT);
      EXPECT_TRUE(eventually(isOutside));
      server->stopAll();
      return isOutside();
    }));
  }

  static std::string content(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      text[i] = static_cast<char>(i * 2654435761U >> 13);
    }
    return text;
  }
  static std::optional<StreamError> errorOf(const std::function<void()>& call) {
    try {
      call();
    } catch (const StreamError& e) {
      return e;
    }
    return std::nullopt;
  }
};
using Transports = testing::Types<OverQueue, OverRing>;
struct TransportName {
  template <typename Over>
  static std::string GetName(int /*index*/) {
    return Over::kTransport == Transport::queue ? "Queue" : "Ring";
  }
};
TYPED_TEST_SUITE(StreamAndServer, Transports, TransportName);

TYPED_TEST(StreamAndServer, StoreEachByteUnderItsLabel) {
  Stream stream(this->options());
  std::string first;
  for (const std::size_t size : {1U, 15U, 64U, 1000U, 131072U, 131073U, 5000000U}) {
    const std::string data = this->content(size);
    stream.write(data);
    first += data;
  }
  stream.endSegment();
  stream.write("second");
  const Receipt receipt = stream.finish();

  EXPECT_EQ(receipt.bytes, first.size() + 6);
  EXPECT_EQ(receipt.segments, 2U);
  const std::string folder = this->folderOfStream();
  EXPECT_NE(folder.find("-app.log-"), std::string::npos) << folder;
  EXPECT_TRUE(readFile(folder + "/segment-000000") == first);
  EXPECT_EQ(readFile(folder + "/segment-000001"), "second");
  EXPECT_EQ(this->ending(), "end=closed\nreason=\n");
}

TYPED_TEST(StreamAndServer, MarkAStreamThatWasDroppedAsStopped) {
  {
    Stream stream(this->options());
    stream.write("half");
  }
  EXPECT_EQ(this->ending(), "end=stopped\nreason=\n");
  EXPECT_EQ(readFile(this->folderOfStream() + "/segment-000000.part"), "half");
}

TYPED_TEST(StreamAndServer, MarkTheStreamOfADeadProcessAsCutOff) {
  Child child([this] {
    Stream stream(this->options());
    stream.write("half");
    stream.flush();
    _exit(0);
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
  EXPECT_EQ(this->ending(), "end=cut-off\nreason=its producer died or left\n");
}

TYPED_TEST(StreamAndServer, WaitForEachOtherAcrossAPause) {
  Stream stream(this->options(1));
  stream.write("x");
  stream.flush();
  this->folderOfStream();
  this->stopServer();
  std::string data = this->content(40000000);
  std::size_t taken = 0;
  std::optional<StreamError> error;
  error = this->errorOf([&] { stream.write(data); });
  ASSERT_TRUE(error) << "a stopped server takes nothing";
  EXPECT_EQ(error->status(), kStatusTimedOut);
  taken = error->taken();
  this->server->signalAll(SIGCONT);
  while (taken < data.size()) {
    error = this->errorOf([&] { stream.write(data.data() + taken, data.size() - taken); });
    taken = error ? taken + error->taken() : data.size();
  }
  std::optional<Receipt> receipt;
  EXPECT_TRUE(eventually([&] { return (receipt = stream.tryFinish()).has_value(); }));
  EXPECT_EQ(receipt->bytes, data.size() + 1);
  EXPECT_TRUE(readFile(this->folderOfStream() + "/segment-000000") == "x" + data);
}

TYPED_TEST(StreamAndServer, SayThatNothingIsCertainWhileTheServerIsStopped) {
  Stream stream(this->options(1));
  stream.write("x");
  stream.flush();
  this->folderOfStream();
  this->stopServer();
  const auto error = this->errorOf([&] { stream.finish(); });
  this->server->signalAll(SIGCONT);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->certainty(), Certainty::unknown);
  std::optional<Receipt> receipt;
  EXPECT_TRUE(eventually([&] { return (receipt = stream.tryFinish()).has_value(); }));
  EXPECT_EQ(receipt->end, StreamEnd::closed);
}

TYPED_TEST(StreamAndServer, SayThatNothingIsCertainWhenTheServerWasKilled) {
  Stream stream(this->options());
  stream.write("x");
  stream.flush();
  this->folderOfStream();
  this->stopServer();
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  this->server->killAll();
  const auto error = this->errorOf([&] { stream.finish(); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->status(), kLeaseLost);
  EXPECT_EQ(error->certainty(), Certainty::unknown);
}

TYPED_TEST(StreamAndServer, SayThatADeadServersStreamIsNotStored) {
  Stream stream(this->options());
  stream.write("x");
  stream.flush();
  this->folderOfStream();
  this->stopServer();  // so that the supervisor cannot report its worker's death
  this->server->killAll();
  this->server->wait();
  const auto error = this->errorOf([&] {
    for (const std::string data = this->content(100000);;) {
      stream.write(data);
    }
  });
  ASSERT_TRUE(error);
  // Any other server that starts meanwhile answers in the queues of the dead one.
  EXPECT_TRUE(error->status() == kLeaseLost || error->status() == kWorkerDied) << error->status();
  EXPECT_EQ(error->certainty(), Certainty::notStored);
}

TYPED_TEST(StreamAndServer, SayThatAFullDiskHasNotStoredIt) {
  this->server.reset();
  this->server = std::make_unique<ServerProcess>(this->arguments(),
                                                 ServerProcess::Setup{.fileSizeLimit = 9 << 20});
  ASSERT_TRUE(this->server->says("serving leases at "));
  Stream stream(this->options());
  const auto error = this->errorOf([&] {
    stream.write(this->content(20000000));
    stream.finish();
  });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->status(), 1003);
  EXPECT_TRUE(error->message().starts_with("File too large: cannot write ")) << error->message();
  EXPECT_EQ(error->certainty(), Certainty::notStored);
  EXPECT_TRUE(this->ending().starts_with("end=broken\n")) << this->ending();
}

// The lease is automatic, as it is by default.
TEST(StreamByDefault, UsesARing) {
  const TempFolder folder;
  const TempFolder store;
  const std::string socket = folder.path() + "/socket";
  ServerProcess server({"--socket", socket, "--store", store.path(), "--sync", "none"});
  ASSERT_TRUE(server.says("serving leases at "));
  Stream stream({.socket = socket});
  EXPECT_EQ(stream.transport(), Transport::ring);
  stream.write("x");
  EXPECT_EQ(stream.finish().bytes, 1U);
}

}  // namespace
}  // namespace orvane::test
