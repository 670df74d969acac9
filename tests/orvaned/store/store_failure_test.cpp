// A store that fails is answered with its path and its cause, and the server goes on.

#include <gtest/gtest.h>

#include <filesystem>

#include "support/limits.hpp"
#include "support/served.hpp"

namespace orvane::test::store_failure {
namespace {

using Answers = std::vector<Answer>;
using Names = std::vector<std::string>;

const Record kOpen{.type = 0, .seqNo = 0};
const Record kData{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("data")};
const Record kLater{.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("more")};
const Record kEnd{.type = 2, .seqNo = 4, .segmentDone = 0};
const Record kClose{.type = 3, .seqNo = 5};

class StoreFailureTest : public testing::Test {
 protected:
  // Serves whole streams again?
  void expectService(const std::string& id) {
    EXPECT_EQ(served.ask({kOpen, kData, kEnd, kClose}),
              (Answers{{0, "receipt stream=" + id + " records=1 bytes=4 segments=1 end=closed"}}));
  }

  Served served;
};

TEST_F(StoreFailureTest, AFullDiskIsToldInTheAnswerToItsBatch) {
  served.ask({kOpen, kData});
  {
    FileSizeLimit full(6);
    const Answers answers = served.ask({kLater});
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].status, 1003);
    EXPECT_TRUE(answers[0].text.starts_with("File too large: cannot write STORE/QUEUE-RUN_0/"))
        << answers[0];
  }
  EXPECT_EQ(served.file(0, "segment-000000.part"), "data");
  served.ask({kClose});
  expectService("RUN_1");
}

TEST_F(StoreFailureTest, TheManifestTellsWhatIsStoredAndWhatWentWrong) {
  served.ask({kOpen, {.type = 1, .seqNo = 2, .data = bytesOf(std::string(600, 'x'))}});
  {
    FileSizeLimit full(800);
    served.ask({{.type = 1, .seqNo = 3, .data = bytesOf(std::string(600, 'y'))}});
  }
  EXPECT_EQ(served.file(0, "segment-000000.part"), std::string(600, 'x'));
  EXPECT_EQ(served.manifest(0),
            "format=2\n"
            "queue=QUEUE\n"
            "stream=RUN_0\n"
            "begun=TIME\n"
            "segment number=0 records=1 bytes=600 algorithm=0 parameters=0,0,0 "
            "crc32=df9f14d2 file=segment-000000.part\n"
            "other-records=0 bytes=0 crc32=00000000\n"
            "skipped=0\n"
            "receipt stream=RUN_0 records=1 bytes=600 segments=1 end=broken\n"
            "records=1\n"
            "bytes=600\n"
            "end=broken\n"
            "reason=File too large: cannot write STORE/QUEUE-RUN_0/segment-000000.part\n");
}

TEST_F(StoreFailureTest, AManifestThatCannotBeWrittenIsNeverHalfThere) {
  served.ask({kOpen, kData});
  {
    FileSizeLimit full(230);  // its last lines do not fit
    const Answers answers = served.ask({kEnd, kClose});
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].status, 1003);
  }
  EXPECT_EQ(served.filesOf(0), (Names{"manifest.part", "segment-000000"}));
}

TEST_F(StoreFailureTest, AManifestThatCannotGetItsNameIsNotContinued) {
  served.ask({kOpen, {.type = 7, .data = bytesOf("other")}});
  std::filesystem::create_directory(served.pathOf(0) + "/manifest");
  const Answers answers = served.ask({kClose});
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_TRUE(answers[0].text.starts_with("Is a directory: cannot rename STORE/")) << answers[0];
  EXPECT_EQ(readFile(served.pathOf(0) + "/manifest.part").find("\nend="),
            readFile(served.pathOf(0) + "/manifest.part").rfind("\nend="));
  served.ask({kClose});
  EXPECT_EQ(served.ask({kClose}),
            (Answers{{0, "receipt stream=RUN_0 records=1 bytes=5 segments=0 end=broken"}}));
}

TEST_F(StoreFailureTest, AStopWhoseDataCannotBeWrittenIsAnError) {
  served.ask({kOpen, {.type = 1, .seqNo = 2, .data = bytesOf(std::string(600, 'x'))}});
  {
    FileSizeLimit full(800);
    const Answers answers = served.ask(
        {{.type = 1, .seqNo = 3, .data = bytesOf(std::string(600, 'y'))}, {.type = 4, .seqNo = 4}});
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_TRUE(answers[0].text.starts_with("File too large: cannot write STORE/")) << answers[0];
  }
  EXPECT_EQ(served.file(0, "segment-000000.part"), std::string(600, 'x'));
  EXPECT_NE(served.manifest(0).find("end=broken\n"), std::string::npos);
}

TEST_F(StoreFailureTest, AFailedCloseIsNoSuccessLater) {
  served.ask({kOpen, kData});
  {
    FileSizeLimit full(230);
    served.ask({kEnd, kClose});
  }
  EXPECT_EQ(served.ask({kClose})[0].status, 1003);
  EXPECT_EQ(served.ask({kClose}),
            (Answers{{0, "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=broken"}}));
}

TEST_F(StoreFailureTest, ASegmentThatCannotBeListedDoesNotGetItsName) {
  served.ask({kOpen, kData});
  {
    FileSizeLimit full(80);  // the manifest's first lines are there
    const Answers answers = served.ask({kEnd});
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_TRUE(answers[0].text.starts_with("File too large: cannot write STORE/")) << answers[0];
  }
  EXPECT_EQ(served.filesOf(0), (Names{"manifest.part", "segment-000000.part"}));
}

TEST_F(StoreFailureTest, AStreamsFolderThatVanishedIsNoticedAtTheNextBatch) {
  served.ask({kOpen, kData});
  const std::string folder = served.pathOf(0);
  std::filesystem::remove_all(folder);
  const Answers answers = served.ask({kLater});
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].status, 1003);
  EXPECT_TRUE(
      answers[0].text.starts_with("No such file or directory: cannot write STORE/QUEUE-RUN_0/"))
      << answers[0];
  served.ask({kClose});
  EXPECT_EQ(served.ask({kClose})[0].text.substr(0, 20), "receipt stream=RUN_0");
  expectService("RUN_1");
}

TEST_F(StoreFailureTest, AFolderThatVanishedBetweenSegmentsIsNoticedWithoutData) {
  served.ask({kOpen, kData, kEnd});
  std::filesystem::remove_all(served.pathOf(0));
  const Answers answers = served.ask({});
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_TRUE(
      answers[0].text.starts_with("No such file or directory: cannot write STORE/QUEUE-RUN_0/"))
      << answers[0];
}

TEST_F(StoreFailureTest, ASegmentsFileThatVanishedIsNoticedAtTheNextBatch) {
  served.ask({kOpen, kData});
  std::filesystem::remove(served.pathOf(0) + "/segment-000000.part");
  EXPECT_EQ(served.ask({kLater})[0].status, 1003);
  EXPECT_EQ(served.filesOf(0), Names{"manifest"});
  EXPECT_NE(served.manifest(0).find("\nend=broken\nreason=No such file or directory: "
                                    "cannot write STORE/QUEUE-RUN_0/segment-000000.part\n"),
            std::string::npos)
      << served.manifest(0);
}

TEST_F(StoreFailureTest, PermissionLostInMidStreamIsToldAtTheSegmentsEnd) {
  served.ask({kOpen, kData});
  std::filesystem::permissions(served.pathOf(0), std::filesystem::perms(0500));
  {
    WithoutPrivileges user;
    const Answers answers = served.ask({kEnd});
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].status, 1003);
    EXPECT_TRUE(answers[0].text.starts_with("Permission denied: cannot rename STORE/QUEUE-RUN_0/"))
        << answers[0];
  }
  EXPECT_EQ(served.file(0, "segment-000000.part"), "data");
  std::filesystem::permissions(served.pathOf(0), std::filesystem::perms(0700));
  served.ask({kClose});
  expectService("RUN_1");
}

TEST_F(StoreFailureTest, AFullDiskInOneStreamDoesNotHurtTheNext) {
  served.ask({kOpen, kData});
  {
    FileSizeLimit full(6);
    served.ask({kLater});
    EXPECT_EQ(served.ask({kEnd})[0].status, 1003);
  }
  expectService("RUN_1");
}

TEST_F(StoreFailureTest, AStoreThatVanishedBreaksTheStreamAtItsOpen) {
  std::filesystem::remove_all(served.store());
  const Answer gone{1003, "No such file or directory: cannot create STORE/QUEUE-RUN_0"};
  EXPECT_EQ(served.ask({kOpen}), Answers{gone});
  EXPECT_EQ(served.ask({kData}), Answers{gone});
  EXPECT_EQ(served.ask({kClose}), Answers{gone});
  EXPECT_EQ(served.ask({kClose}), (Answers{{0, ""}}));
  std::filesystem::create_directory(served.store());
  expectService("RUN_1");
}

TEST_F(StoreFailureTest, AFailedOpenEarnsNoEarlierReceipt) {
  expectService("RUN_0");
  std::filesystem::remove_all(served.store());
  served.ask({kOpen});
  served.ask({kClose});
  EXPECT_EQ(served.ask({kClose}), (Answers{{0, ""}}));
}

TEST_F(StoreFailureTest, AStoreThatCannotBeWrittenIsRefusedAtTheStart) {
  const orvane::test::TempFolder folder;
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0555));
  const WithoutPrivileges user;
  try {
    const orvaned::Store store(folder.path(), "q", orvaned::Sync::segment);
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), "cannot store into " + folder.path() +
                            ": Permission denied: --store needs a folder that exists and that the "
                            "server can write to");
  }
}

TEST_F(StoreFailureTest, LostPermissionIsToldAsSuch) {
  std::filesystem::permissions(served.store(), std::filesystem::perms(0555));
  {
    WithoutPrivileges user;
    EXPECT_EQ(served.ask({kOpen}),
              (Answers{{1003, "Permission denied: cannot create STORE/QUEUE-RUN_0"}}));
  }
  std::filesystem::permissions(served.store(), std::filesystem::perms(0755));
  expectService("RUN_1");
}

TEST_F(StoreFailureTest, AWriterIsServedAgainOnceItHasTakenItsErrors) {
  ShmWriter writer("stream", served.queue(), 5, 5, false);
  std::filesystem::remove_all(served.store());
  writer.open();
  served.worker().runOnce();
  std::filesystem::create_directory(served.store());
  EXPECT_THROW(writer.close(), Ox_ErrnoException);  // for the open
  served.worker().runOnce();
  EXPECT_THROW(writer.close(), Ox_ErrnoException);  // for the close
  served.worker().runOnce();
  writer.close();
  writer.open();
  writer.close();
  EXPECT_EQ(served.serve().back(),
            (Answer{0, "receipt stream=RUN_1 records=0 bytes=0 segments=0 end=closed"}));
}

TEST_F(StoreFailureTest, RecordsOutsideThatCannotBeKeptAreToldEachTime) {
  writeFile(served.store() + "/" + served.queue() + "-outside-records", "old");
  {
    FileSizeLimit full(20);
    const Answer full1{1003, "File too large: cannot write STORE/QUEUE-outside-records"};
    EXPECT_EQ(served.ask({kData}), Answers{full1});
    EXPECT_EQ(served.ask({kData}), Answers{full1});
  }
  EXPECT_EQ(served.ask({}), (Answers{{0, ""}}));
  EXPECT_EQ(readFile(served.store() + "/" + served.queue() + "-outside-records"), "old");
}

TEST_F(StoreFailureTest, RecordsOutsideThatCannotBeKeptBreakNoStream) {
  std::filesystem::create_directory(served.store() + "/" + served.queue() + "-outside-records");
  EXPECT_EQ(served.ask({kData, kOpen}),
            (Answers{{1003, "Is a directory: cannot create STORE/QUEUE-outside-records"}}));
  EXPECT_EQ(served.ask({kData, kClose}),
            (Answers{{0, "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=closed"}}));
}

TEST_F(StoreFailureTest, AnEarlierStreamThatCannotBeCutOffIsLoggedNotAnswered) {
  served.ask({kOpen, kData});
  std::filesystem::remove_all(served.pathOf(0));
  served.log();
  EXPECT_EQ(served.ask({kOpen}), (Answers{{0, ""}}));
  const std::vector<Line> expected = {
      {ox::Kind::error, 1003,
       "worker::abandonStream: queue QUEUE: No such file or directory: cannot write "
       "STORE/QUEUE-RUN_0/manifest.part"},
      {ox::Kind::info, 0,
       "worker::concludeStream: queue QUEUE: receipt stream=RUN_0 records=0 bytes=0 segments=0 "
       "end=cut-off"},
      {ox::Kind::info, 0, "worker::open: queue QUEUE: stream RUN_1 begins"}};
  EXPECT_EQ(served.log(), expected);
  EXPECT_EQ(served.ask({kData, kClose}),
            (Answers{{0, "receipt stream=RUN_1 records=1 bytes=4 segments=1 end=closed"}}));
}

}  // namespace
}  // namespace orvane::test::store_failure
