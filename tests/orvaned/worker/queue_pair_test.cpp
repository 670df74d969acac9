#include "worker/queue_pair.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

#include "support/limits.hpp"
#include "support/queue_pair.hpp"
#include "support/served.hpp"

namespace {

using boost::interprocess::create_only;
using boost::interprocess::message_queue;
using boost::interprocess::open_only;
using orvane::pvk_shm_response_t;
using orvane::test::Answer;
using orvane::test::QueueName;
using orvane::test::takeAnswers;
using orvane::test::uniqueQueueName;
using orvaned::QueuePair;

class QueuePairTest : public testing::Test {
 protected:
  bool exists(const std::string& queue) const {
    return std::filesystem::exists("/dev/shm/" + queue);
  }
  mode_t modeOf(const std::string& queue) const {
    struct stat status = {};
    stat(("/dev/shm/" + queue).c_str(), &status);
    return status.st_mode & 07777;
  }
  std::string refusalOf(const orvaned::Geometry& geometry) const {
    try {
      QueuePair pair(name, geometry);
      return "created";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }
  static pvk_shm_response_t response(ox_status_t status, const std::string& text) {
    pvk_shm_response_t made;
    made.assign(status, text.c_str());
    return made;
  }

  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const std::string& name = nameGuard.text();
  const std::string& responseName = responseGuard.text();
};

TEST_F(QueuePairTest, HasTheGeometryOfItsOptions) {
  const QueuePair pair(name, {5, 2000, 0600});
  const message_queue send(open_only, name.c_str());
  const message_queue answers(open_only, responseName.c_str());
  EXPECT_EQ(send.get_max_msg(), 5U);
  EXPECT_EQ(send.get_max_msg_size(), 2000U);
  EXPECT_EQ(answers.get_max_msg(), 7U);
  EXPECT_EQ(answers.get_max_msg_size(), 132U);
}

TEST_F(QueuePairTest, GivesBothQueuesTheModeWhateverTheUmask) {
  const mode_t before = umask(0077);
  {
    const QueuePair pair(name, {8, 1024, 0660});
    EXPECT_EQ(modeOf(name), 0660U);
    EXPECT_EQ(modeOf(responseName), 0660U);
  }
  umask(before);
}

TEST_F(QueuePairTest, RemovesBothQueuesAtItsEnd) {
  {
    const QueuePair pair(name, {8, 1024, 0600});
    EXPECT_TRUE(exists(name));
    EXPECT_TRUE(exists(responseName));
  }
  EXPECT_FALSE(exists(name));
  EXPECT_FALSE(exists(responseName));
}

TEST_F(QueuePairTest, LeavesAStrangersSendQueueAlone) {
  message_queue queue(create_only, name.c_str(), 1, 100);
  EXPECT_EQ(refusalOf({8, 1024, 0600}), "the queue " + name +
                                            " is in use: take another name, or remove /dev/shm/" +
                                            name + " if its server is gone");
  EXPECT_TRUE(exists(name));
  EXPECT_EQ(queue.get_max_msg_size(), 100U);
  EXPECT_FALSE(exists(responseName));
}

TEST_F(QueuePairTest, LeavesAStrangersResponseQueueAlone) {
  message_queue queue(create_only, responseName.c_str(), 1, 100);
  EXPECT_EQ(refusalOf({8, 1024, 0600}), "the queue " + responseName +
                                            " is in use: take another name, or remove /dev/shm/" +
                                            responseName + " if its server is gone");
  EXPECT_TRUE(exists(responseName));
  EXPECT_FALSE(exists(name));
}

TEST_F(QueuePairTest, IsRefusedBeforeItFillsSharedMemory) {
  const std::string refusal = refusalOf({1000000000, 1048576, 0600});
  const std::string start = "the queues need 1048760000004832 bytes of /dev/shm, which has ";
  const std::string end = ": use fewer or smaller messages, or enlarge it";
  EXPECT_TRUE(refusal.starts_with(start) && refusal.ends_with(end)) << refusal;
  EXPECT_FALSE(exists(name));
  EXPECT_FALSE(exists(responseName));
}

TEST_F(QueuePairTest, LeavesNothingBehindWhenTheMemoryRunsOut) {
  {
    // Enough for the response queue, but not for the send queue.
    const orvane::test::FileSizeLimit limit(65536);
    EXPECT_EQ(refusalOf({8, 131128, 0600}), "cannot create /dev/shm/" + name + ": File too large");
  }
  EXPECT_FALSE(exists(name));
  EXPECT_FALSE(exists(responseName));
}

TEST_F(QueuePairTest, KnowsWhatItsQueuesNeed) {
  const QueuePair pair(name, {3, 1001, 0600});
  // 208 + 3 x (24 + 1008), and 208 + 5 x (24 + 136)
  EXPECT_EQ(std::filesystem::file_size("/dev/shm/" + name), 3304U);
  EXPECT_EQ(std::filesystem::file_size("/dev/shm/" + responseName), 1008U);
}

TEST_F(QueuePairTest, ReceivesMessagesInTheirOrder) {
  QueuePair pair(name, {8, 100, 0600});
  message_queue send(open_only, name.c_str());
  EXPECT_FALSE(pair.receive());
  send.send("first", 5, 1);
  send.send("", 0, 1);
  EXPECT_EQ(pair.waiting(), 2U);
  const auto first = pair.receive();
  ASSERT_TRUE(first);
  EXPECT_EQ(std::string(first->begin(), first->end()), "first");
  const auto second = pair.receive();
  ASSERT_TRUE(second);
  EXPECT_TRUE(second->empty());
  EXPECT_FALSE(pair.receive());
}

TEST_F(QueuePairTest, ErrorsOvertakeSuccesses) {
  QueuePair pair(name, {8, 100, 0600});
  message_queue answers(open_only, responseName.c_str());
  pair.answer(response(0, "first success"));
  pair.answer(response(1003, "first error"));
  pair.answer(response(0, "second success"));
  pair.answer(response(1001, "second error"));
  const std::vector<Answer> expected = {
      {1003, "first error"}, {1001, "second error"}, {0, "first success"}, {0, "second success"}};
  EXPECT_EQ(takeAnswers(answers), expected);
}

TEST_F(QueuePairTest, KeepsTheFirstErrorThatFindsNoRoom) {
  QueuePair pair(name, {1, 100, 0600});  // room for three answers
  message_queue answers(open_only, responseName.c_str());
  for (const char* text : {"one", "two", "three", "dropped"}) {
    pair.answer(response(0, text));
  }
  pair.answer(response(1003, "first error"));
  pair.answer(response(1001, "second error"));
  pair.postPending();
  const std::vector<Answer> successes = {{0, "one"}, {0, "two"}, {0, "three"}};
  EXPECT_EQ(takeAnswers(answers), successes);
  pair.postPending();
  pair.postPending();
  const std::vector<Answer> error = {{1003, "first error"}};
  EXPECT_EQ(takeAnswers(answers), error);
}

TEST_F(QueuePairTest, PostsAKeptErrorBeforeTheNextAnswer) {
  QueuePair pair(name, {1, 100, 0600});
  message_queue answers(open_only, responseName.c_str());
  for (const char* text : {"one", "two", "three"}) {
    pair.answer(response(1001, text));
  }
  pair.answer(response(1003, "kept"));
  takeAnswers(answers);
  pair.answer(response(1001, "later"));
  const std::vector<Answer> expected = {{1003, "kept"}, {1001, "later"}};
  EXPECT_EQ(takeAnswers(answers), expected);
}

TEST_F(QueuePairTest, DiscardsAnswersAndTheKeptError) {
  QueuePair pair(name, {1, 100, 0600});
  message_queue answers(open_only, responseName.c_str());
  for (int i = 0; i < 4; ++i) {
    pair.answer(response(1003, "error"));
  }
  pair.discardResponses();
  EXPECT_EQ(answers.get_num_msg(), 0U);
  pair.postPending();
  EXPECT_EQ(answers.get_num_msg(), 0U);
}

}  // namespace
