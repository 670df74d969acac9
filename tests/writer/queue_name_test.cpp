#include "orvane/queue_name.hpp"

#include <gtest/gtest.h>

#include "orvane/process_name.hpp"

namespace orvane::test {
namespace {

TEST(ResponseQueueName, IsTheSendQueuesNameAndResponse) {
  EXPECT_EQ(getMessageQueueResponseName("orders"), "ordersResponse");
  EXPECT_EQ(getMessageQueueResponseName(""), "Response");
  EXPECT_EQ(getMessageQueueResponseName("ordersResponse"), "ordersResponseResponse");
  EXPECT_EQ(getMessageQueueResponseName(" a.b_c/d "), " a.b_c/d Response");
}

TEST(ServerName, IsOrvaned) {
  EXPECT_STREQ(OrvanedProcessName, "orvaned");
}

}  // namespace
}  // namespace orvane::test
