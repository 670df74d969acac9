#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <regex>

#include "orvane/store/stored_streams.hpp"
#include "shm/fd.hpp"
#include "support/eventually.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test::prune_command {
namespace {

namespace fs = std::filesystem;

// The streams below end in this order, in the year 2020 or later, and their files have about 500
// bytes each.
constexpr char kA[] = "a-20200101T000000-1_0";
constexpr char kB[] = "b-20200101T000000-1_0";
constexpr char kC[] = "c-20200101T000000-1_0";

class Prune : public StoredStreams {
 protected:
  Prune() {
    writeStream(kC, "closed", "2022-01-01T00:00:00.000Z");
    writeStream(kA, "closed", "2020-01-01T00:00:00.000Z");
    writeStream(kB, "stopped", "2021-01-01T00:00:00.000Z");
  }

  Ended prune(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "prune");
    arguments.push_back(store.path());
    return runOrvane(arguments);
  }

  // Removes these streams and nothing else.
  void expectRemoved(const std::vector<std::string>& arguments, const Names& ids) const {
    Names expected;
    std::string lines;
    for (const std::string& name : namesIn(store.path())) {
      if (std::count(ids.begin(), ids.end(), name) == 0) {
        expected.push_back(name);
      }
    }
    for (const std::string& id : ids) {
      lines += "removed " + id + " ";
    }
    const Ended ended = prune(arguments);
    EXPECT_EQ(ended.how, "exit 0");
    EXPECT_EQ(ended.err, "");
    EXPECT_EQ(namesIn(store.path()), expected);
    EXPECT_EQ(removedIn(ended.out), lines);
  }

  // "removed a-20200101T000000-1_0 (closed ...)" becomes "removed a-20200101T000000-1_0 ".
  static std::string removedIn(const std::string& out) {
    std::string lines;
    const std::regex line("removed ([abc]-[^ ]+) \\([^\n]*\n");
    for (auto at = std::sregex_iterator(out.begin(), out.end(), line); at != std::sregex_iterator();
         ++at) {
      lines += "removed " + (*at)[1].str() + " ";
    }
    return lines;
  }

  // The size of all files of these streams.
  std::uintmax_t bytesOf(const Names& ids) const {
    std::uintmax_t bytes = 0;
    for (const std::string& id : ids) {
      for (const std::string& name : namesIn(path(id))) {
        bytes += fs::file_size(path(id, name));
      }
    }
    return bytes;
  }
};

TEST_F(Prune, RemovesWhatEndedLongerAgo) {
  writeStream("d-20990101T000000-1_0", "closed", "2099-01-01T00:00:00.000Z");
  const Ended ended = prune({"--older-than", "30d"});
  EXPECT_EQ(ended.how, "exit 0");
  const std::string bytes = std::to_string(bytesOf({"d-20990101T000000-1_0"}));
  EXPECT_EQ(ended.out, "removed a-20200101T000000-1_0 (closed 2020-01-01T00:00:00.000Z, " + bytes +
                           " B)\n"
                           "removed b-20200101T000000-1_0 (stopped 2021-01-01T00:00:00.000Z, " +
                           std::to_string(std::stoi(bytes) + 2) +
                           " B)\n"
                           "removed c-20200101T000000-1_0 (closed 2022-01-01T00:00:00.000Z, " +
                           bytes + " B)\n" + "removed 3 streams, 1.40 kB\n");
  EXPECT_EQ(namesIn(store.path()), Names{"d-20990101T000000-1_0"});
}

TEST_F(Prune, RemovesNothingThatEndedLater) {
  const Ended ended = prune({"--older-than", "4000000d"});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "nothing to remove\n");
  EXPECT_EQ(namesIn(store.path()), (Names{kA, kB, kC}));
}

TEST_F(Prune, CountsTheAgeFromTheManifestsTimeInFormat1) {
  const std::string files = std::string(kHello) + kWorld + kNoOthers;
  for (const char* const id : {kA, kB, kC}) {
    write(id, "manifest",
          headOf(id, 1).append(files).append(
              endingOf(id, "records=2 bytes=11 segments=2", "closed", "")));
  }
  const auto now = fs::file_time_type::clock::now();
  fs::last_write_time(path(kB, "manifest"), now - std::chrono::hours(25));
  fs::last_write_time(path(kC, "manifest"), now - std::chrono::hours(23));
  expectRemoved({"--older-than", "1d"}, {kB});
}

TEST_F(Prune, RemovesTheOldestUntilTheRestFits) {
  const std::string two = std::to_string(bytesOf({kB, kC}));
  expectRemoved({"--keep-bytes", std::to_string(bytesOf({kA, kB, kC}))}, {});
  expectRemoved({"--keep-bytes", two}, {kA});
  expectRemoved({"--keep-bytes", std::to_string(std::stoi(two) - 1)}, {kB});
  expectRemoved({"--keep-bytes", "0"}, {kC});
}

TEST_F(Prune, CountsWhatItMayNotRemoveToo) {
  fs::remove(path(kC, "manifest"));
  write(kC, "manifest.part", headOf(kC));
  const std::string open = std::to_string(bytesOf({kC}));
  const Ended ended = prune({"--keep-bytes", std::to_string(std::stoi(open) - 1)});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(contains(ended.out, "\nremoved 2 streams, "));
  EXPECT_TRUE(ended.out.ends_with("\nnot enough may be removed: " + open + " B stay\n"));
  EXPECT_EQ(namesIn(store.path()), Names{kC});
}

TEST_F(Prune, RemovesTheOldestUntilEnoughIsFree) {
  expectRemoved({"--keep-free", "1"}, {});
  const Ended ended = prune({"--keep-free", "15EiB"});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(removedIn(ended.out),
            "removed a-20200101T000000-1_0 removed b-20200101T000000-1_0 "
            "removed c-20200101T000000-1_0 ");
  EXPECT_TRUE(contains(ended.out, "\nnot enough may be removed: only "));
  EXPECT_EQ(namesIn(store.path()), Names{});
}

TEST_F(Prune, MeetsEachLimit) {
  expectRemoved({"--older-than", "4000000d", "--keep-bytes", std::to_string(bytesOf({kB, kC})),
                 "--keep-free", "1"},
                {kA});
}

TEST_F(Prune, RemovesOnlyWhatEndedSo) {
  expectRemoved({"--older-than", "1d", "--end", "stopped"}, {kB});
  expectRemoved({"--older-than", "1d", "--end", "broken"}, {});
}

// A cluster may have what it has acknowledged in memory only, for a minute.
TEST_F(Prune, RemovesOnlyWhatAClusterHasHadForAWhile) {
  fs::create_directory(path(".forwarded"));
  writeFile(path(".forwarded", kA), "");
  writeFile(path(".forwarded", kB), "");
  const auto now = fs::file_time_type::clock::now();
  fs::last_write_time(path(".forwarded", kB), now - std::chrono::seconds(150));
  expectRemoved({"--older-than", "1d", "--forwarded"}, {kB});

  fs::last_write_time(path(".forwarded", kA), now - std::chrono::seconds(60));
  expectRemoved({"--keep-bytes", "0", "--forwarded"}, {});
  fs::last_write_time(path(".forwarded", kA), now + std::chrono::hours(1));
  expectRemoved({"--keep-bytes", "0", "--forwarded"}, {});
  fs::last_write_time(path(".forwarded", kA), now - std::chrono::hours(1));
  expectRemoved({"--keep-bytes", "0", "--forwarded"}, {kA});
}

TEST_F(Prune, NeedsALimitAlsoForWhatIsForwarded) {
  const Ended ended = prune({"--forwarded"});
  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_TRUE(contains(ended.err, "--older-than, --keep-bytes or --keep-free is required"));
}

TEST_F(Prune, OnlyTellsWithDryRun) {
  write(".d-20200101T000000-1_0.removed", "segment-000000", "hello");
  const Names before = namesIn(store.path());
  const Ended ended = prune({"--keep-bytes", std::to_string(bytesOf({kC})), "--dry-run"});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(matches(ended.out,
                      "would remove \\.d-20200101T000000-1_0\\.removed, the rest of a removed "
                      "stream\n"
                      "would remove a-20200101T000000-1_0 \\(closed [^\n]+\n"
                      "would remove b-20200101T000000-1_0 \\(stopped [^\n]+\n"
                      "would remove 2 streams, [0-9]+ B\n"));
  EXPECT_EQ(namesIn(store.path()), before);
}

TEST_F(Prune, WithJsonPrintsAnObjectForEachStream) {
  const std::string told =
      R"({"stream":"a-20200101T000000-1_0","end":"closed","ended":"2020-01-01T00:00:00.000Z",)"
      R"("bytes":11,"removed":)";
  const std::string limit = std::to_string(bytesOf({kB, kC}));
  EXPECT_EQ(prune({"--keep-bytes", limit, "--json", "--dry-run"}).out, told + "false}\n");
  EXPECT_EQ(prune({"--keep-bytes", limit, "--json"}).out, told + "true}\n");
  EXPECT_EQ(prune({"--keep-bytes", limit, "--json"}).out, "");
}

TEST_F(Prune, NeedsALimit) {
  for (const Names& arguments : {Names{}, Names{"--end", "closed"}, Names{"--dry-run"}}) {
    const Ended ended = prune(arguments);
    EXPECT_EQ(ended.how, "exit 2");
    EXPECT_EQ(ended.err,
              "orvane prune: --older-than, --keep-bytes or --keep-free is required "
              "(orvane prune --help shows the usage)\n");
  }
  EXPECT_EQ(namesIn(store.path()), (Names{kA, kB, kC}));
}

TEST_F(Prune, RefusesALimitThatIsNone) {
  const std::pair<Names, std::string> wrong[] = {
      {{"--older-than", "30"}, "--older-than: must be a duration, such as 45s, 30m, 2h or 7d"},
      {{"--keep-bytes", "much"}, "--keep-bytes: must be a number of bytes, such as 512KiB"},
      {{"--keep-free", ""}, "--keep-free: must be a number of bytes, such as 512KiB"},
      {{"--keep-bytes", "0", "--end", "open"},
       "--end: must be closed, stopped, cut-off or broken"}};
  for (const auto& [arguments, text] : wrong) {
    const Ended ended = prune(arguments);
    EXPECT_EQ(ended.how, "exit 2");
    EXPECT_EQ(ended.err, "orvane prune: " + text + " (orvane prune --help shows the usage)\n");
  }
}

TEST_F(Prune, TakesTheStoreOfTheEnvironment) {
  const Ended ended =
      runOrvane({"prune", "--keep-bytes", "0"}, {.environment = {"ORVANE_STORE=" + store.path()}});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(namesIn(store.path()), Names{});
}

TEST_F(Prune, LeavesAStreamAloneThatHasNotEnded) {
  fs::rename(path(kA, "manifest"), path(kA, "manifest.part"));
  fs::remove(path(kB, "manifest"));
  expectRemoved({"--keep-bytes", "0"}, {kC});
  EXPECT_EQ(namesIn(path(kA)), (Names{"manifest.part", "segment-000000", "segment-000001"}));
  EXPECT_EQ(namesIn(path(kB)), (Names{"segment-000000", "segment-000001"}));
}

TEST_F(Prune, LeavesAStreamAloneThatAProcessHasLocked) {
  const tool::Fd folder(open(path(kA).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(flock(folder.get(), LOCK_EX | LOCK_NB), 0);
  expectRemoved({"--keep-bytes", "0"}, {kB, kC});
  EXPECT_EQ(namesIn(path(kA)), (Names{"manifest", "segment-000000", "segment-000001"}));
}

TEST_F(Prune, LeavesEverythingElseInAStoreAlone) {
  write("notes", "one", "1");
  write(".d-20200101T000000-1_0.new", "one", "1");
  writeFile(path("orders-outside-records"), "records");
  writeFile(path(".e-20200101T000000-1_0.removed"), "a file of that name");
  const TempFolder elsewhere;
  fs::copy(path(kA), elsewhere.path(), fs::copy_options::recursive);
  fs::create_directory_symlink(elsewhere.path(), path("f-20200101T000000-1_0"));
  expectRemoved({"--keep-bytes", "0"}, {kA, kB, kC});
  EXPECT_EQ(namesIn(elsewhere.path()), (Names{"manifest", "segment-000000", "segment-000001"}));
}

TEST_F(Prune, RemovesTheRestOfAStreamWhoseRemovalWasInterrupted) {
  write(".d-20200101T000000-1_0.removed", "segment-000000", "hello");
  const Ended ended = prune({"--older-than", "4000000d"});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out,
            "removed .d-20200101T000000-1_0.removed, the rest of a removed stream\n"
            "nothing to remove\n");
  EXPECT_EQ(namesIn(store.path()), (Names{kA, kB, kC}));
}

TEST_F(Prune, KeepsAStreamWhoseManifestIsDamagedAndFails) {
  write(kA, "manifest", readFile(path(kA, "manifest")) + "more");
  const Ended ended = prune({"--keep-bytes", "0"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(removedIn(ended.out), "removed b-20200101T000000-1_0 removed c-20200101T000000-1_0 ");
  EXPECT_EQ(ended.err,
            "orvane prune: 1 stream stays because its manifest cannot be read, see orvane verify: "
            "a-20200101T000000-1_0\n");
  EXPECT_EQ(namesIn(store.path()), Names{kA});
}

// Of a long manifest only the ends are read first.
TEST_F(Prune, KeepsAStreamWhoseManifestIsDamagedInTheMiddle) {
  std::string lines = headOf(kA);
  for (int number = 0; number < 500; ++number) {
    lines += "segment number=" + std::to_string(number) +
             " records=0 bytes=0 algorithm=0 parameters=0,0,0 crc32=00000000 file=-\n";
  }
  lines += kNoOthers +
           endingOf(kA, "records=0 bytes=0 segments=0", "closed", "2020-01-01T00:00:00.000Z");
  std::string manifest = withChecksum(lines);
  ASSERT_GT(manifest.size(), 32768U);
  manifest.replace(manifest.find("number=250"), 10, "number=251");
  write(kA, "manifest", manifest);
  fs::remove(path(kB, "manifest"));
  write(kB, "manifest", "");
  const Ended ended = prune({"--keep-bytes", "0"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "orvane prune: 2 streams stay because their manifests cannot be read, see orvane "
            "verify: b-20200101T000000-1_0, ...\n");
  EXPECT_EQ(namesIn(store.path()), (Names{kA, kB}));

  write(kA, "manifest", withChecksum(lines));
  prune({"--keep-bytes", "0"});
  EXPECT_EQ(namesIn(store.path()), Names{kB});
}

TEST_F(Prune, GoesOnWhenAStreamCannotBeRemoved) {
  writeFile(path(std::string(".") + kA + ".removed"), "a file of that name");
  const Ended ended = prune({"--keep-bytes", "0"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane prune: File exists: cannot remove " + path(kA) + "\n");
  EXPECT_EQ(removedIn(ended.out), "removed b-20200101T000000-1_0 removed c-20200101T000000-1_0 ");
  EXPECT_EQ(namesIn(store.path()), (Names{std::string(".") + kA + ".removed", kA}));
}

TEST_F(Prune, RefusesAStoreThatCannotBeRead) {
  const Ended ended = runOrvane({"prune", "--keep-bytes", "0", path("none")});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane prune: cannot read the store " + path("none") +
                           ": No such file or directory\n");
}

TEST(PruneWhileAServerRuns, RemovesFinishedStreamsOnlyAndTheServerGoesOn) {
  Server server;
  ASSERT_EQ(run(server.sendCommand({"-"}), "finished").how, "exit 0");
  Process open(server.sendCommand({"-"}));
  open.write(std::string(2000000, 'x'));
  ASSERT_TRUE(eventually([&] {
    return server.streams().size() == 2 &&
           fs::exists(server.streams().at(1) + "/segment-000000.part");
  }));
  const std::string unfinished = server.streams().at(1);

  const Ended ended = run({ORVANE_PATH, "prune", "--keep-bytes", "0", server.store()});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(server.streams(), std::vector<std::string>{unfinished});
  open.closeInput();
  EXPECT_EQ(open.wait().how, "exit 0");
  EXPECT_EQ(server.fact(0, "end"), "closed");
  EXPECT_EQ(server.content(0), std::string(2000000, 'x'));
  EXPECT_EQ(run(server.sendCommand({"-"}), "more").how, "exit 0");
}

}  // namespace
}  // namespace orvane::test::prune_command
