#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <new>
#include <string>
#include <vector>

#include "orvane/lease.hpp"
#include "orvane/ring_reader.hpp"
#include "replaced_calls.hpp"
#include "support/allocations.hpp"
#include "support/fake_server.hpp"
#include "support/throws.hpp"
#include "texts.hpp"

namespace orvane::test {
namespace {

// Taking a lease while a call fails; no descriptor may be left open.
testing::AssertionResult refuses(const char* call, int error, ox_status_t status,
                                 const std::string& message) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const std::size_t before = namesIn("/proc/self/fd").size();
  const testing::AssertionResult result = throwsErrno(status, message, [&] {
    failNext(call, error);
    Lease(server.path(), kLong);
  });
  server.end();
  return namesIn("/proc/self/fd").size() <= before
             ? result
             : testing::AssertionFailure() << "a descriptor was left open";
}

TEST(RingMemory, IsMadeBySystemsThatCannotForbidItsExecution) {
  failNext("memfd_create", EINVAL);
  EXPECT_NO_THROW(RingReader{kSmallestRing});
  EXPECT_EQ(replacedCalls().failing, "");
  constexpr unsigned int kUsual = MFD_CLOEXEC | MFD_ALLOW_SEALING;
  constexpr unsigned int kNoExec = 8;  // MFD_NOEXEC_SEAL, of Linux 6.3
  EXPECT_EQ(replacedCalls().memfdFlags,
            (std::vector<unsigned int>{kUsual | kNoExec, kUsual, kUsual | kNoExec}));
}

TEST(RingMemory, IsNotTriedAgainAfterAnotherError) {
  failNext("memfd_create", EMFILE);
  EXPECT_TRUE(throwsErrno(901, "Cannot allocate a ring's memory: Too many open files",
                          [] { RingReader{kSmallestRing}; }));
}

// The producer does not wake the reader when it reads an answer.
TEST(RingReaderWait, TakesFiveMillisecondsWhileAnErrorHasNoRoom) {
  RingReader ring(kSmallestRing);
  pvk_shm_response_t response;
  for (int i = 0; i < 16; ++i) {
    ring.answer(response);
  }
  response.assign(1003, "disk full");
  ring.answer(response);
  ring.wait();
  ASSERT_EQ(replacedCalls().pauses.size(), 1U);
  EXPECT_EQ(replacedCalls().pauses[0].tv_sec, 0);
  EXPECT_EQ(replacedCalls().pauses[0].tv_nsec, 5'000'000);
}

TEST(LeaseTaking, RejectsAPathBeforeItMakesASocket) {
  failNext("socket", EMFILE);
  EXPECT_TRUE(throwsErrno(
      900, "A socket's path has 1 to 107 bytes, none of them zero; this one has 0 bytes",
      [] { Lease("", kLong); }));
  EXPECT_EQ(replacedCalls().failing, "socket");
}

TEST(LeaseTaking, ReportsThatASocketCannotBeMade) {
  EXPECT_TRUE(refuses("socket", EMFILE, 900,
                      "Cannot make a socket to ask for a lease: Too many open files"));
}

TEST(LeaseTaking, ReportsThatItsWaitCannotBeLimited) {
  EXPECT_TRUE(refuses("setsockopt", ENOPROTOOPT, 900,
                      "Cannot limit the wait for a lease: Protocol not available"));
}

TEST(LeaseTaking, ReportsThatItCannotAsk) {
  EXPECT_TRUE(refuses("send", ENOBUFS, 901,
                      "Cannot ask the server for a lease: No buffer space available"));
}

TEST(LeaseTaking, ReportsThatItCannotWait) {
  EXPECT_TRUE(refuses("poll", ENOMEM, 901, "Cannot wait for the server: Cannot allocate memory"));
}

TEST(LeaseTaking, ReportsThatItCannotHear) {
  EXPECT_TRUE(refuses("recvmsg", ENOMEM, 901, "Cannot hear the server: Cannot allocate memory"));
}

TEST(LeaseTaking, ReportsThatItHasNoRoomForFiles) {
  replacedCalls().losesFiles = true;
  EXPECT_TRUE(refuses("", 0, 901,
                      "The server sent files that this process has no room for: raise its limit of "
                      "open files"));
}

// They may be the last descriptors that this process can have.
TEST(LeaseTaking, ClosesFilesThatAreNotAllBeforeItEndsTheLease) {
  FakeServer server;
  server.serve({.says = {"lease q"}, .files = {0, 1}});
  const std::size_t before = namesIn("/proc/self/fd").size();
  std::size_t atShutdown = 0;
  replacedCalls().losesFiles = true;
  replacedCalls().beforeShutdown = [&] {
    server.awaitScript();
    atShutdown = namesIn("/proc/self/fd").size();
  };
  EXPECT_ANY_THROW(Lease(server.path(), kLong));
  EXPECT_EQ(atShutdown, before + 2) << "its end and the server's";
}

TEST(LeaseTaking, LeavesNoSocketOpenWhenMemoryRunsOut) {
  FakeServer server;
  server.serve({.says = {"lease " + std::string(500, 'q')}});
  const std::size_t before = namesIn("/proc/self/fd").size();
  {
    const Allocations noName(
        [](std::size_t size) -> void* { return size > 500 ? throw std::bad_alloc() : nullptr; });
    EXPECT_THROW(Lease(server.path(), kLong), std::bad_alloc);
  }
  server.end();
  EXPECT_EQ(namesIn("/proc/self/fd").size(), before);
}

TEST(LeaseTaking, HearsAServerThatRefusedAndEndedBeforeItWasAsked) {
  FakeServer server;
  server.serve({.says = {"refused 1004 the server is ending"}, .hears = false, .ends = true});
  replacedCalls().beforeSend = [&] { server.awaitScript(); };

  EXPECT_TRUE(throwsErrno(1004, "the server is ending", [&] { Lease(server.path(), kLong); }));
}

TEST(LeaseReceipt, IsWaitedForAgainAfterAFalseAlarm) {
  for (const int error : {EAGAIN, EINTR}) {
    FakeServer server;
    server.serve({.says = {"lease q", kShortReceipt}});
    Lease lease(server.path(), kLong);
    server.awaitScript();
    failNext("recvmsg", error);
    EXPECT_EQ(textOf(lease.receipt(kLong)), kShortReceipt);
  }
}

TEST(LeaseReceipt, EndsTheLeaseWhenItCannotBeHeard) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  Lease lease(server.path(), kLong);
  server.say(kShortReceipt);
  failNext("recvmsg", ENOMEM);

  EXPECT_TRUE(throwsErrno(901, "Cannot hear the server: Cannot allocate memory",
                          [&] { lease.receipt(kLong); }));

  EXPECT_FALSE(lease.alive());
}

TEST(LeaseAlive, IsSaidOfALeaseThatCannotBeLookedAt) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const Lease lease(server.path(), kLong);
  failNext("poll", ENOMEM);

  EXPECT_TRUE(lease.alive());

  server.end();
  EXPECT_FALSE(lease.alive());
}

}  // namespace
}  // namespace orvane::test
