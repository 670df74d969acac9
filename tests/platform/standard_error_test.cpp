#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ox/log.hpp"
#include "ox/sink.hpp"
#include "ox/trace.hpp"
#include "support/recording_sink.hpp"

namespace orvane::test {
namespace {

// Standard error as a socket that keeps writes apart: what is taken is one text per write.
class WritesToStderr {
 public:
  WritesToStderr() : before(dup(STDERR_FILENO)) {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) {
      throw std::runtime_error("socketpair");
    }
    dup2(ends[1], STDERR_FILENO);
  }
  ~WritesToStderr() {
    dup2(before, STDERR_FILENO);
    for (int descriptor : {before, ends[0], ends[1]}) {
      ::close(descriptor);
    }
  }
  WritesToStderr(const WritesToStderr&) = delete;
  WritesToStderr& operator=(const WritesToStderr&) = delete;

  std::vector<std::string> take() {
    std::vector<std::string> writes;
    std::string buffer(1 << 18, '\0');
    for (;;) {
      const ssize_t size = recv(ends[0], buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (size < 0) {
        return writes;
      }
      writes.push_back(buffer.substr(0, static_cast<std::size_t>(size)));
    }
  }

 private:
  int before;
  int ends[2] = {-1, -1};
};

TEST(PlatformStderr, GetsOneWriteForEachLine) {
  WritesToStderr stderrWrites;
  InfoA(1, "first %s", "text");
  AuthA(2, "second");
  WarningA(-1, "third");
  ErrorA(4, "fourth");
  __Trace("fifth");
  EXPECT_EQ(
      stderrWrites.take(),
      (std::vector<std::string>{"info 1: first text\n", "auth 2: second\n", "warning -1: third\n",
                                "error 4: fourth\n", "trace: fifth\n"}));
}

TEST(PlatformStderr, GetsEntryAndExitOfATracedOperation) {
  WritesToStderr stderrWrites;
  ox::setTracing(true);
  { const AutoTrace scope("open"); }
  ox::setTracing(false);
  EXPECT_EQ(stderrWrites.take(), (std::vector<std::string>{"enter: open\n", "leave: open\n"}));
}

TEST(PlatformStderr, GetsLongLinesWholeInOneWrite) {
  WritesToStderr stderrWrites;
  for (std::size_t length : {1000U, 4095U, 4096U, 4097U, 100000U}) {
    const std::string text(length, 'x');
    InfoA(7, "%s", text.c_str());
    EXPECT_EQ(stderrWrites.take(), std::vector{"info 7: " + text + "\n"}) << length;
  }
}

TEST(PlatformStderr, GetsWholeLinesFromSeveralThreads) {
  WritesToStderr stderrWrites;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int line = 0; line < 10; ++line) {
        InfoA(7, "%s", std::string(300, 'x').c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(stderrWrites.take(),
            std::vector<std::string>(40, "info 7: " + std::string(300, 'x') + "\n"));
}

TEST(PlatformStderr, IsTheSinkAgainAfterANullSink) {
  WritesToStderr stderrWrites;
  RecordingSink sink;
  InfoA(1, "to the sink");
  EXPECT_EQ(stderrWrites.take(), std::vector<std::string>());
  ox::setSink(nullptr);
  InfoA(2, "to standard error");
  EXPECT_EQ(stderrWrites.take(), std::vector<std::string>{"info 2: to standard error\n"});
  EXPECT_EQ(sink.take(), (std::vector<Line>{{ox::Kind::info, 1, "to the sink"}}));
}

TEST(PlatformStderr, ThatIsClosedDisturbsNobody) {
  WritesToStderr stderrWrites;
  ::close(STDERR_FILENO);
  errno = EXDEV;
  EXPECT_NO_THROW(ErrorA(1, "nobody reads this"));
  EXPECT_EQ(errno, EXDEV);
}

}  // namespace
}  // namespace orvane::test
