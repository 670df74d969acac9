// What an output file does to the disk, call by call, and what its numbers hold.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "orvaned/store/file_calls.hpp"
#include "orvaned/store/output_file_members.hpp"
#include "store/output_file.hpp"
#include "support/limits.hpp"
#include "support/recording_sink.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using orvaned::OutputFile;
using orvaned::Sync;

using Calls = std::vector<std::string>;

constexpr std::uint64_t kGiB = 1 << 30;

// Zeros to read from, nearly 4 GiB of them, which take no memory.
class ManyZeros {
 public:
  ManyZeros()
      : bytes(mmap(nullptr, kSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
    if (bytes == MAP_FAILED) {
      throw std::runtime_error("mmap");
    }
    madvise(bytes, kSize, MADV_HUGEPAGE);  // fewer page faults, if the system has it
  }
  ~ManyZeros() { munmap(bytes, kSize); }
  ManyZeros(const ManyZeros&) = delete;
  ManyZeros& operator=(const ManyZeros&) = delete;

  OutputFile::Bytes all() const { return {static_cast<const unsigned char*>(bytes), kSize}; }

 private:
  static constexpr std::size_t kSize = 0xFFFFFFFF;
  void* const bytes;
};

class OutputFileCalls : public testing::Test {
 protected:
  // The calls since the last time.
  static Calls calls() { return std::exchange(fileCalls().made, {}); }

  TempFolder folder;
  RecordedDirectory directory{folder.path()};
  const std::string path = folder.path() + "/out";
};

TEST_F(OutputFileCalls, BuffersARecordOf8191Bytes) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(Bytes(191), Bytes(8000));
  EXPECT_EQ(calls(), Calls{});
  file.append(Bytes(192), Bytes(8000));
  EXPECT_EQ(calls(), (Calls{"append out", "write out 8191", "write out 192", "write out 8000"}));
}

TEST_F(OutputFileCalls, FillsItsBufferToTheLastByte) {
  OutputFile file(&directory, "out", Sync::segment);
  for (int i = 0; i < 16; ++i) {
    file.append(Bytes(4096));
  }
  EXPECT_EQ(calls(), Calls{});
  file.append(Bytes(1));
  EXPECT_EQ(calls(), (Calls{"append out", "write out 65536"}));
}

TEST_F(OutputFileCalls, EndsAFileInThisOrder) {
  for (const Sync sync : {Sync::segment, Sync::always}) {
    OutputFile file(&directory, "out", sync);
    file.append(bytesOf("data"));
    file.finish("final");
    EXPECT_EQ(calls(), (Calls{"append out", "write out 4", "fdatasync out", "close out",
                              "rename out final", "sync"}));
  }
}

TEST_F(OutputFileCalls, EndsAFileWithoutASyncWhenThatIsLeftToTheSystem) {
  OutputFile file(&directory, "out", Sync::none);
  file.append(bytesOf("data"));
  file.finish("final");
  EXPECT_EQ(calls(), (Calls{"append out", "write out 4", "close out", "rename out final"}));
}

TEST_F(OutputFileCalls, SyncsTheFoldersNamesOnceOnly) {
  OutputFile file(&directory, "out", Sync::always);
  file.flush();
  EXPECT_EQ(calls(), Calls{});
  file.append(bytesOf("data"));
  file.flush();
  EXPECT_EQ(calls(), (Calls{"append out", "write out 4", "fdatasync out", "sync"}));
  file.append(bytesOf("more"));
  file.flush();
  EXPECT_EQ(calls(), (Calls{"write out 4", "fdatasync out"}));
  file.flush();
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(OutputFileCalls, SyncsAgainWhatCouldNotBeSynced) {
  OutputFile file(&directory, "out", Sync::always);
  file.append(bytesOf("data"));
  failNext("fdatasync", EIO);
  EXPECT_TRUE(throwsErrno(1003, "Input/output error: cannot sync " + path, [&] { file.flush(); }));
  calls();
  failNext("sync", EIO);
  EXPECT_TRUE(
      throwsErrno(1003, "Input/output error: cannot sync " + folder.path(), [&] { file.flush(); }));
  EXPECT_EQ(calls(), (Calls{"fdatasync out", "sync"}));
  file.flush();
  EXPECT_EQ(calls(), Calls{"sync"});
}

TEST_F(OutputFileCalls, WritesBeforeItSyncs) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("data"));
  file.settle();
  EXPECT_EQ(calls(), (Calls{"append out", "write out 4", "fdatasync out"}));
  file.settle();
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(OutputFileCalls, SyncsWhatItContinuesWithoutNewData) {
  writeFile(path, "keep torn");
  OutputFile file(&directory, "out", Sync::segment);
  file.resume(5);
  file.finish("final");
  EXPECT_EQ(calls(), (Calls{"append out", "truncate out 5", "fdatasync out", "close out",
                            "rename out final", "sync"}));
}

TEST_F(OutputFileCalls, SaysThatItCouldNotBeClosedBeforeItGetsItsFinalName) {
  OutputFile file(&directory, "out", Sync::none);
  file.append(bytesOf("data"));
  failNext("close", EDQUOT);
  EXPECT_TRUE(throwsErrno(1003, "Disk quota exceeded: cannot write " + path,
                          [&] { file.finish("final"); }));
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"out"});
}

TEST_F(OutputFileCalls, NoticesThatItsNameGoesWhileItIsWritten) {
  OutputFile file(&directory, "out", Sync::always);
  file.append(bytesOf("data"));
  fileCalls().duringWrite = [this] { std::filesystem::remove(path); };
  EXPECT_TRUE(
      throwsErrno(1003, "No such file or directory: cannot write " + path, [&] { file.flush(); }));
  EXPECT_EQ(calls(), (Calls{"append out", "write out 4"})) << "a lost file is not worth a sync";
}

TEST_F(OutputFileCalls, GoesOnAfterASignalAndAfterAShortWrite) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("data"));
  failNext("write", EINTR);
  fileCalls().nextWrite = 3;
  file.flush();
  EXPECT_EQ(calls(), (Calls{"append out", "write out 4", "write out 4", "write out 1"}));
  EXPECT_EQ(readFile(path), "data");
}

TEST_F(OutputFileCalls, GoesOnAfterAWriteThatTookNothing) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("data"));
  fileCalls().nextWrite = 0;
  file.flush();
  EXPECT_EQ(calls(), (Calls{"append out", "write out 4", "write out 4"}));
  EXPECT_EQ(readFile(path), "data");
}

TEST_F(OutputFileCalls, TakesAFailedFirstRecordForNoFile) {
  OutputFile file(&directory, "out", Sync::segment);
  failNext("write", ENOSPC);
  EXPECT_TRUE(throwsErrno(1003, "No space left on device: cannot write " + path,
                          [&] { file.append(Bytes(10000)); }));
  EXPECT_EQ(calls(), (Calls{"append out", "write out 10000", "close out", "remove out"}));
  file.finish("final");
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(OutputFileCalls, LogsThatAFailedRecordCannotBeTakenBack) {
  OutputFile file(&directory, "out", Sync::segment);
  RecordingSink sink;
  fileCalls().duringWrite = [this] { std::filesystem::remove(path); };
  failNext("write", ENOSPC);
  EXPECT_TRUE(throwsErrno(1003, "No space left on device: cannot write " + path,
                          [&] { file.append(Bytes(10000)); }));
  EXPECT_EQ(sink.take(),
            (std::vector<Line>{{ox::Kind::error, 1003,
                                "store::takeBack: cannot take half a record back: No such file or "
                                "directory: cannot remove " +
                                    path}}));
  calls();
  file.finish("final");
  EXPECT_EQ(calls(), Calls{});
}

TEST_F(OutputFileCalls, BeginsAnewAfterARecordThatCouldNotBeTakenBack) {
  OutputFile file(&directory, "out", Sync::segment);
  fileCalls().duringWrite = [this] { std::filesystem::remove(path); };
  failNext("write", ENOSPC);
  EXPECT_ANY_THROW(file.append(Bytes(10000)));
  file.append(bytesOf("data"));
  file.flush();
  EXPECT_EQ(readFile(path), "data");
}

TEST_F(OutputFileCalls, CutsAResumedFileBackToItsLastWholeRecord) {
  writeFile(path, "keep torn");
  OutputFile file(&directory, "out", Sync::segment);
  file.resume(5);
  const FileSizeLimit limit(8);
  file.append(bytesOf("large"));
  EXPECT_TRUE(throwsErrno(1003, "File too large: cannot write " + path, [&] { file.flush(); }));
  EXPECT_EQ(readFile(path), "keep ");
}

TEST_F(OutputFileCalls, CutsALargeFileBackToItsLastWholeRecord) {
  writeFile(path, "");
  std::filesystem::resize_file(path, 5 * kGiB + 3);  // of which none is on the disk
  OutputFile file(&directory, "out", Sync::none);
  failNext("write", ENOSPC);
  EXPECT_ANY_THROW(file.append(Bytes(10000)));
  EXPECT_EQ(calls(), (Calls{"append out", "write out 10000", "truncate out 5368709123"}));

  file.resume(5 * kGiB + 1);
  failNext("write", ENOSPC);
  EXPECT_ANY_THROW(file.append(Bytes(10000)));
  EXPECT_EQ(calls(), (Calls{"append out", "close out", "truncate out 5368709121", "write out 10000",
                            "truncate out 5368709121"}));
}

TEST_F(OutputFileCalls, MakesTheDiskBeginAfter8MiB) {
  OutputFile file(&directory, "out", Sync::segment);
  file.append(Bytes(8388607));
  file.append(Bytes(1));
  file.flush();
  EXPECT_EQ(calls(), (Calls{"append out", "write out 8388607", "write out 1",
                            "sync_file_range out 0 8388608 2"}));
  file.append(Bytes(8388607));
  EXPECT_EQ(calls(), (Calls{"write out 8388607"}));
  file.append(Bytes(8192));
  EXPECT_EQ(calls(), (Calls{"write out 8192", "sync_file_range out 8388608 8396799 2"}));
}

TEST_F(OutputFileCalls, LeavesTheBeginToTheSystemWithoutASync) {
  OutputFile file(&directory, "out", Sync::none);
  file.append(Bytes(9000000));
  EXPECT_EQ(calls(), (Calls{"append out", "write out 9000000"}));
}

TEST_F(OutputFileCalls, MakesTheDiskBeginInALargeFileToo) {
  writeFile(path, "");
  std::filesystem::resize_file(path, 5 * kGiB);
  OutputFile file(&directory, "out", Sync::segment);
  file.append(Bytes(8192));
  EXPECT_EQ(calls(), (Calls{"append out", "write out 8192", "sync_file_range out 0 5368717312 2"}));
  file.append(Bytes(8192));
  EXPECT_EQ(calls(), (Calls{"write out 8192"}));
}

TEST_F(OutputFileCalls, CountsARecordOfMoreThan4GiB) {
  const ManyZeros zeros;
  OutputFile file(&directory, "out", Sync::segment);
  fileCalls().diskWithoutEnd = true;
  file.append(Bytes(48), zeros.all());
  EXPECT_EQ(file.bytes(), 4294967343U);
  EXPECT_EQ(calls(), (Calls{"append out", "write out 48", "write out 4294967295",
                            "sync_file_range out 0 4294967343 2"}));
}

TEST_F(OutputFileCalls, CountsARecordOfMoreThan4GiBInTheNullStore) {
  const ManyZeros zeros;
  OutputFile file(nullptr, "out", Sync::segment);
  file.append(Bytes(48), zeros.all());
  EXPECT_EQ(file.bytes(), 4294967343U);
}

TEST_F(OutputFileCalls, CountsMoreThan4294967295Records) {
  OutputFile file(&directory, "out", Sync::segment);
  bufferedRecordsOf(file) = 0xFFFFFFFF;
  file.append({});
  file.flush();
  EXPECT_EQ(file.records(), 0x100000000U);
  writtenRecordsOf(file) = 0x1FFFFFFFF;
  file.append(Bytes(8192));
  EXPECT_EQ(file.records(), 0x200000000U);
}

// While it lives, descriptor 0 is free, as in a process without standard input.
class WithoutStandardInput {
 public:
  WithoutStandardInput() : saved(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    close(STDIN_FILENO);
  }
  ~WithoutStandardInput() {
    if (saved >= 0) {
      dup2(saved, STDIN_FILENO);
      close(saved);
    }
  }
  WithoutStandardInput(const WithoutStandardInput&) = delete;
  WithoutStandardInput& operator=(const WithoutStandardInput&) = delete;

 private:
  const int saved;
};

TEST_F(OutputFileCalls, UsesDescriptorZeroLikeAnyOther) {
  const WithoutStandardInput closed;
  OutputFile file(&directory, "out", Sync::segment);
  file.append(bytesOf("data"));
  file.flush();
  ASSERT_EQ(fcntl(STDIN_FILENO, F_GETFD), FD_CLOEXEC) << "the file has the lowest number";
  file.append(bytesOf("more"));
  file.flush();
  EXPECT_EQ(calls(), (Calls{"append out", "write out 4", "write out 4"}));
  std::filesystem::remove(path);
  EXPECT_TRUE(
      throwsErrno(1003, "No such file or directory: cannot write " + path, [&] { file.flush(); }));
}

}  // namespace
}  // namespace orvane::test
