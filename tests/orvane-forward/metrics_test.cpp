#include "metrics.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/temp_folder.hpp"
#include "support/text.hpp"

namespace orvane::test::forward_metrics {
namespace {

TEST(ForwardMetrics, AreInTheFormatOfPrometheus) {
  forward::Metrics metrics;
  metrics.streams = 3;
  metrics.connected = true;
  const std::string text = textOf(metrics);
  EXPECT_TRUE(
      text.starts_with("# HELP orvane_forward_streams_total Streams that were forwarded.\n"
                       "# TYPE orvane_forward_streams_total counter\n"
                       "orvane_forward_streams_total 3\n"));
  EXPECT_TRUE(
      contains(text, "# TYPE orvane_forward_connected gauge\norvane_forward_connected 1\n"));
  EXPECT_TRUE(matches(text,
                      "(# HELP [a-z_]+ [A-Z1].*\\.\n"
                      "# TYPE [a-z_]+ (counter|gauge)\n"
                      "orvane_forward_[a-z_]+ [0-9]+\n)+"));
}

TEST(ForwardMetrics, ReplaceTheFileAtOnce) {
  const TempFolder folder;
  const std::string path = folder.path() + "/metrics";
  forward::Metrics metrics;
  EXPECT_EQ(writeMetrics(metrics, path), "");
  EXPECT_EQ(readFile(path), textOf(metrics));
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"metrics"});
}

// The collector is another user, whatever the service's mask is.
TEST(ForwardMetrics, MayBeReadByEverybody) {
  const TempFolder folder;
  const std::string path = folder.path() + "/metrics";
  const mode_t before = umask(0077);
  EXPECT_EQ(writeMetrics(forward::Metrics(), path), "");
  umask(before);
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644U);
}

TEST(ForwardMetrics, ThatCannotBeWrittenHaveAReason) {
  const TempFolder folder;
  const std::string path = folder.path() + "/none/metrics";
  EXPECT_EQ(writeMetrics(forward::Metrics(), path),
            "No such file or directory: cannot write " + path);
}

}  // namespace
}  // namespace orvane::test::forward_metrics
