#include "fetch/cluster_reader.hpp"

#include <algorithm>
#include <thread>

#include "subjects.hpp"

namespace forward {
namespace {

using namespace std::chrono_literals;

constexpr auto kPause = 200ms;
constexpr int kMostLooks = 15;
constexpr std::int64_t kSilenceMilliseconds = 3000;

struct SubscriptionDeleter {
  void operator()(natsSubscription* subscription) const {
    natsSubscription_Unsubscribe(subscription);
    natsSubscription_Destroy(subscription);
  }
};
struct ContextDeleter {
  void operator()(jsCtx* context) const { jsCtx_Destroy(context); }
};

using Subscription = std::unique_ptr<natsSubscription, SubscriptionDeleter>;
using Context = std::unique_ptr<jsCtx, ContextDeleter>;

// A consumer that keeps the order and notices gaps; it begins with the message of this number.
Subscription subscribe(const Context& context, const std::string& pattern, std::uint64_t first) {
  jsSubOptions options;
  jsSubOptions_Init(&options);
  options.Stream = kClusterStream;
  options.Ordered = true;
  options.Config.DeliverPolicy = js_DeliverByStartSequence;
  options.Config.OptStartSeq = first;
  natsSubscription* made = nullptr;
  js_SubscribeSync(&made, context.get(), pattern.c_str(), nullptr, &options, nullptr);
  return Subscription(made);
}

std::uint64_t numberOf(const Message& message) {
  jsMsgMetaData* data = nullptr;
  if (natsMsg_GetMetaData(&data, message.get()) != NATS_OK) {
    return 0;
  }
  const std::uint64_t number = data->Sequence.Stream;
  jsMsgMetaData_Destroy(data);
  return number;
}

}  // namespace

ClusterReader::ClusterReader(const tool::NatsOptions& options, std::chrono::seconds patience)
    : options(options), patience(patience) {
  connect();
}

void ClusterReader::connect() {
  while (!connection) {
    try {
      connection = std::make_unique<Connection>(options, "reader");
    } catch (const Refused&) {
      throw;
    } catch (const std::runtime_error& e) {
      pause(e.what());
    }
  }
}

void ClusterReader::pause(const std::string& reason) {
  if (connection) {
    connection->requirePermission();
  }
  if (Clock::now() - lastProgress > patience) {
    throw Unanswered("the cluster has not answered for " + std::to_string(patience.count()) +
                     " seconds: " + reason);
  }
  std::this_thread::sleep_for(kPause);
  if (connection && connection->hasEnded()) {
    connection.reset();
    connect();
  }
}

// The stream's leader answers, so what other servers have not received is not missing.
ClusterReader::Subjects ClusterReader::subjects(
    const std::string& pattern, const std::function<bool(const Subjects&)>& isEnough) {
  for (int look = 0;;) {
    std::string reason;
    const auto found = Cluster(*connection).subjects(pattern, reason);
    if (found) {
      progress();
      if (isEnough(*found) || ++look == kMostLooks) {
        return *found;
      }
    }
    pause(reason);
  }
}

Message ClusterReader::stored(const std::string& subject) {
  for (;;) {
    natsStatus status = NATS_OK;
    Message message = Cluster(*connection).stored(subject, status);
    if (message) {
      progress();
      return message;
    }
    pause("no server has " + subject);
  }
}

void ClusterReader::read(
    const std::string& pattern, const std::function<bool()>& mayWait,
    const std::function<bool(const std::string& subject, const Message&)>& use) {
  std::uint64_t next = 1;
  for (bool isOver = false; !isOver;) {
    if (readSome(pattern, next, isOver, use) || isOver) {
      continue;
    }
    if (!mayWait()) {
      next = 1;  // what is missing may come before what was read
    } else if (connection->isConnected()) {
      progress();
    }
    pause("messages of " + pattern + " are missing");
  }
}

// Reads until nothing more comes for a while. Returns whether anything has come.
bool ClusterReader::readSome(const std::string& pattern, std::uint64_t& next, bool& isOver,
                             const std::function<bool(const std::string&, const Message&)>& use) {
  jsCtx* made = nullptr;
  natsConnection_JetStream(&made, connection->get(), nullptr);
  const Context context(made);
  const Subscription subscription = subscribe(context, pattern, next);
  bool hasRead = false;
  while (subscription && !isOver) {
    natsMsg* received = nullptr;
    if (natsSubscription_NextMsg(&received, subscription.get(), kSilenceMilliseconds) != NATS_OK) {
      break;
    }
    const Message message(received);
    next = std::max(next, numberOf(message) + 1);
    hasRead = true;
    progress();
    isOver = !use(natsMsg_GetSubject(message.get()), message);
  }
  return hasRead;
}

}  // namespace forward
