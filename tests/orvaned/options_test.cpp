#include "options.hpp"

#include <gtest/gtest.h>

#include <initializer_list>
#include <stdexcept>

namespace {

using orvaned::Options;

std::optional<int> parse(std::initializer_list<const char*> arguments, Options& options) {
  std::vector<const char*> argv = {"orvaned"};
  argv.insert(argv.end(), arguments);
  return orvaned::parseOptions(static_cast<int>(argv.size()), argv.data(), options);
}

std::string refusalOf(const Options& options) {
  try {
    checkOptions(options);
    return "accepted";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

TEST(Options, HaveDefaults) {
  Options options;
  EXPECT_EQ(parse({"--queue", "orders", "--store", "/srv/streams"}, options), std::nullopt);
  EXPECT_EQ(options.queue, "orders");
  EXPECT_EQ(options.store, "/srv/streams");
  EXPECT_EQ(options.geometry.messages, 8U);
  EXPECT_EQ(options.geometry.messageSize, 1048968U);
  EXPECT_EQ(options.geometry.mode, 0600U);
  EXPECT_EQ(options.sync, orvaned::Sync::segment);
  EXPECT_EQ(options.logLevel, ox::Kind::info);
  EXPECT_FALSE(options.trace);
}

TEST(Options, SizesMayHaveAUnit) {
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--message-size=2MiB", "--shm-limit=512 kb"}, options),
            std::nullopt);
  EXPECT_EQ(options.geometry.messageSize, 2097152U);
  EXPECT_EQ(options.shmLimit, 512000U);
}

TEST(Options, LimitTheMemoryOfRings) {
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=."}, options), std::nullopt);
  EXPECT_EQ(options.ringLimit, 0U) << "a quarter of the memory";
  EXPECT_EQ(options.ringLimitPerUser, 0U) << "half of that";
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--ring-limit=2GiB", "--ring-limit-per-user=64 mb"},
                  options),
            std::nullopt);
  EXPECT_EQ(options.ringLimit, 2147483648U);
  EXPECT_EQ(options.ringLimitPerUser, 64000000U);
}

class WrongRingLimit : public testing::TestWithParam<const char*> {};

TEST_P(WrongRingLimit, IsAUsageError) {
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=.", GetParam()}, options), 2);
}

INSTANTIATE_TEST_SUITE_P(Of, WrongRingLimit,
                         testing::Values("--ring-limit=-1", "--ring-limit=much",
                                         "--ring-limit=", "--ring-limit=18446744073709551616",
                                         "--ring-limit-per-user=-1", "--ring-limit-per-user=1 loaf",
                                         "--ring-limit-per-user=18446744073709551616"));

TEST(Options, AreTakenFromTheCommandLine) {
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--messages=16", "--message-size=262248", "--mode=660",
                   "--log-level=warning", "--trace"},
                  options),
            std::nullopt);
  EXPECT_EQ(options.geometry.messages, 16U);
  EXPECT_EQ(options.geometry.messageSize, 262248U);
  EXPECT_EQ(options.geometry.mode, 0660U);
  EXPECT_EQ(options.logLevel, ox::Kind::warning);
  EXPECT_TRUE(options.trace);
}

TEST(Options, NameWhenToSync) {
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--sync=always"}, options), std::nullopt);
  EXPECT_EQ(options.sync, orvaned::Sync::always);
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--sync=none"}, options), std::nullopt);
  EXPECT_EQ(options.sync, orvaned::Sync::none);
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--sync=segment"}, options), std::nullopt);
  EXPECT_EQ(options.sync, orvaned::Sync::segment);
}

TEST(Options, CompressNothingByDefault) {
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=."}, options), std::nullopt);
  EXPECT_EQ(options.compressionLevel, 0);
}

TEST(Options, NameTheLevelOfCompression) {
  for (const auto& [text, level] : {std::pair("zstd", 3), std::pair("zstd:1", 1),
                                    std::pair("zstd:9", 9), std::pair("zstd:19", 19)}) {
    Options options;
    EXPECT_EQ(parse({"--queue=q", "--store=.", "--compress", text}, options), std::nullopt) << text;
    EXPECT_EQ(options.compressionLevel, level) << text;
  }
}

TEST(Options, ConfineWorkersByDefault) {
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=."}, options), std::nullopt);
  EXPECT_TRUE(options.confinement.capabilities);
  EXPECT_TRUE(options.confinement.landlock);
  EXPECT_TRUE(options.confinement.seccomp);
  EXPECT_EQ(options.workerUser, "");
}

TEST(Options, NameWhatWorkersAreNotConfinedBy) {
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--without=landlock"}, options), std::nullopt);
  EXPECT_TRUE(options.confinement.capabilities);
  EXPECT_FALSE(options.confinement.landlock);
  EXPECT_TRUE(options.confinement.seccomp);
  EXPECT_EQ(parse({"--without", "seccomp", "--without", "capset", "--queue=q", "--store=.",
                   "--worker-user", "nobody"},
                  options),
            std::nullopt);
  EXPECT_FALSE(options.confinement.capabilities);
  EXPECT_TRUE(options.confinement.landlock);
  EXPECT_FALSE(options.confinement.seccomp);
  EXPECT_EQ(options.workerUser, "nobody");
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--without=everything"}, options), 2);
}

TEST(Options, BoundTheMessageSize) {
  Options options;
  options.queue = "q";
  options.geometry.messageSize = 55;
  EXPECT_EQ(refusalOf(options), "--message-size 55 is too small: a record needs 56 and its data");
  options.geometry.messageSize = 56;
  EXPECT_EQ(refusalOf(options), "accepted");
  options.geometry.messageSize = 1073741824;
  EXPECT_EQ(refusalOf(options), "accepted");
  options.geometry.messageSize = 1073741825;
  EXPECT_EQ(refusalOf(options), "--message-size 1073741825 is too large: use at most 1073741824");
}

TEST(Options, AreCheckedWhenTheyAreRead) {
  Options refused;
  EXPECT_EQ(parse({"--queue=.q", "--store=."}, refused), 2);
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--message-size=55"}, refused), 2);
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--shm-limit=18446744073709551616"}, refused), 2);
  Options options;
  EXPECT_EQ(parse({"--queue=q", "--store=.", "--shm-limit=18446744073709551615"}, options),
            std::nullopt);
  EXPECT_EQ(options.shmLimit, 18446744073709551615U);
}

TEST(Options, CheckTheQueuesName) {
  Options options;
  options.queue = ".q";
  EXPECT_EQ(refusalOf(options), "the queue name begins with a dot");
}

}  // namespace
