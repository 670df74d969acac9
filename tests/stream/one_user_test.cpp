// As in a debug build of the library, whatever this one is.
#undef NDEBUG
#include "stream/one_user.hpp"

#include <gtest/gtest.h>

namespace orvane::test {
namespace {

TEST(OneUserTest, MayUseAnObjectAgainAndAgain) {
  OneUser::Mark mark{};
  { const OneUser first(mark); }
  const OneUser second(mark);
}

TEST(OneUserTest, IsRefusedWhileAnotherThreadUsesTheObject) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        OneUser::Mark mark{};
        const OneUser first(mark);
        const OneUser second(mark);
      },
      "a stream must not be shared by threads");
}

}  // namespace
}  // namespace orvane::test
