// What orvane-forward and orvane fetch are compared with: the same chunks, published one after
// another with the client library alone, and read by its ordered consumer.
//   bare_cluster URL publish COUNT BYTES    bare_cluster URL read COUNT
// Prints the seconds that the chunks took.

#include <nats/nats.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kSubject[] = "orvane.1.bare.queue.stream.segment.";
constexpr std::int64_t kMilliseconds = 10000;

void require(natsStatus status) {
  if (status != NATS_OK) {
    std::fprintf(stderr, "bare_cluster: %s\n", natsStatus_GetText(status));
    std::exit(1);
  }
}

void publish(jsCtx* context, int count, int bytes) {
  std::vector<char> data(static_cast<std::size_t>(bytes));
  std::FILE* const random = std::fopen("/dev/urandom", "rb");
  const std::size_t size = random == nullptr ? 0 : std::fread(data.data(), 1, data.size(), random);
  if (size != data.size()) {
    std::exit(1);
  }
  std::fclose(random);
  for (int number = 0; number < count; ++number) {
    const std::string subject = kSubject + std::to_string(number);
    jsPubAck* answer = nullptr;
    require(js_Publish(&answer, context, subject.c_str(), data.data(), bytes, nullptr, nullptr));
    jsPubAck_Destroy(answer);
  }
}

void read(jsCtx* context, int count) {
  jsSubOptions options;
  jsSubOptions_Init(&options);
  options.Stream = "orvane";
  options.Ordered = true;
  natsSubscription* subscription = nullptr;
  const std::string pattern = std::string(kSubject) + "*";
  require(js_SubscribeSync(&subscription, context, pattern.c_str(), nullptr, &options, nullptr));
  for (int number = 0; number < count; ++number) {
    natsMsg* message = nullptr;
    require(natsSubscription_NextMsg(&message, subscription, kMilliseconds));
    natsMsg_Destroy(message);
  }
  natsSubscription_Destroy(subscription);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fputs("usage: bare_cluster URL publish COUNT BYTES | URL read COUNT\n", stderr);
    return 2;
  }
  natsConnection* connection = nullptr;
  jsCtx* context = nullptr;
  require(natsConnection_ConnectTo(&connection, argv[1]));
  require(natsConnection_JetStream(&context, connection, nullptr));
  const auto begin = Clock::now();
  if (std::string(argv[2]) == "publish" && argc > 4) {
    publish(context, std::atoi(argv[3]), std::atoi(argv[4]));
  } else {
    read(context, std::atoi(argv[3]));
  }
  std::printf("%.6f\n", std::chrono::duration<double>(Clock::now() - begin).count());
  jsCtx_Destroy(context);
  natsConnection_Destroy(connection);
  nats_Close();
}
