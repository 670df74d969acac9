#include "cluster.hpp"

#include <algorithm>
#include <array>
#include <memory>

#include "store_format/manifest_lines.hpp"

namespace forward {
namespace {

// Numbers of the cluster's errors.
constexpr int kStreamNotFound = 10059;
constexpr int kNoCluster = 10074;
constexpr int kStoreFailed = 10077;
constexpr std::array kLimits = {10002, 10023, 10028, 10047, 10053, 10122};
// 10077 is also the number of other failures to store.
constexpr std::string_view kKnown = "maximum messages per subject exceeded";
constexpr int kMostReplicas = 3;

struct ContextDeleter {
  void operator()(jsCtx* context) const { jsCtx_Destroy(context); }
};
using Context = std::unique_ptr<jsCtx, ContextDeleter>;

Json parse(std::string_view text) {
  return Json::parse(text, nullptr, false);
}

int errorIn(const Json& answer) {
  const auto error = answer.find("error");
  return error == answer.end() ? 0 : error->value("err_code", error->value("code", 1));
}

std::string descriptionIn(const Json& answer) {
  const auto error = answer.find("error");
  return error == answer.end() ? "" : error->value("description", "");
}

std::string_view textOf(const Message& message) {
  const auto data = dataOf(message);
  return {reinterpret_cast<const char*>(data.data()), data.size()};
}

bool covers(const Json& settings) {
  const auto subjects = settings.find("subjects");
  return subjects != settings.end() && subjects->is_array() &&
         std::any_of(subjects->begin(), subjects->end(),
                     [](const Json& one) { return one == kAllSubjects || one == ">"; });
}

}  // namespace

Answer answerIn(std::string_view text) {
  const Json answer = parse(text);
  if (!answer.is_object()) {
    return Answer::unavailable;
  }
  const int error = errorIn(answer);
  if (error == 0) {
    if (answer.value("stream", "") != kClusterStream) {
      return Answer::unavailable;
    }
    return answer.value("duplicate", false) ? Answer::repeated : Answer::stored;
  }
  const std::string description = descriptionIn(answer);
  if (error == kStoreFailed && description == kKnown) {
    return Answer::known;
  }
  const bool isLimit = std::find(kLimits.begin(), kLimits.end(), error) != kLimits.end();
  return isLimit || error == kStoreFailed ? Answer::full : Answer::unavailable;
}

std::string reasonIn(std::string_view text) {
  const Json answer = parse(text);
  return answer.is_object() ? descriptionIn(answer) : "the answer is no JSON";
}

Json settingsFor(int replicas) {
  return {{"name", kClusterStream},
          {"description", "Streams of orvane"},
          {"subjects", Json::array({kAllSubjects})},
          {"retention", "limits"},
          {"storage", "file"},
          {"num_replicas", replicas},
          {"max_msgs_per_subject", 1},
          {"discard", "new"},
          {"discard_new_per_subject", true},
          {"allow_direct", true},
          {"max_consumers", -1},
          {"max_msgs", -1},
          {"max_bytes", -1},
          {"max_age", 0},
          {"max_msg_size", -1}};
}

std::string faultOf(const Json& settings, int replicas) {
  const auto differs = [&](const char* name, const Json& value) {
    return settings.value(name, Json()) != value;
  };
  if (!covers(settings)) {
    return std::string("its subjects lack ") + kAllSubjects;
  }
  if (differs("storage", "file")) {
    return "its storage is not file, so a restart would lose all";
  }
  if (differs("retention", "limits")) {
    return "its retention is not limits, so what is read would be removed";
  }
  if (differs("discard", "new") || !settings.value("discard_new_per_subject", false) ||
      differs("max_msgs_per_subject", 1)) {
    return "it needs max_msgs_per_subject 1, discard new and discard_new_per_subject, or what is "
           "stored could be replaced";
  }
  if (settings.value("allow_rollup_hdrs", false)) {
    return "it has allow_rollup_hdrs, so what is stored could be removed";
  }
  if (settings.value("no_ack", false)) {
    return "it has no_ack, so nobody would know what is stored";
  }
  if (settings.value("sealed", false)) {
    return "it is sealed, so nothing can be stored";
  }
  if (settings.value("num_replicas", 1) < replicas) {
    return "it has fewer than " + std::to_string(replicas) + " replicas";
  }
  return "";
}

// A server that has just started may not know yet that it has no such stream; the caller repeats.
std::optional<Json> Cluster::ask(const std::string& request, const Json& body,
                                 std::string& reason) const {
  const std::string text = body.empty() ? "" : body.dump();
  natsStatus status = NATS_OK;
  const Message message = connection.request(
      "$JS.API." + request, {}, {reinterpret_cast<const unsigned char*>(text.data()), text.size()},
      status);
  if (!message) {
    reason = status == NATS_NO_RESPONDERS
                 ? "JetStream does not answer: it is not enabled, or has no leader"
                 : std::string("no answer: ") + natsStatus_GetText(status);
    return std::nullopt;
  }
  Json answer = parse(textOf(message));
  if (!answer.is_object()) {
    reason = "the answer is no JSON";
    return std::nullopt;
  }
  reason = descriptionIn(answer);
  return answer;
}

ClusterState Cluster::state(int replicas) const {
  ClusterState state;
  const auto answer = ask(std::string("STREAM.INFO.") + kClusterStream, Json(), state.reason);
  if (!answer) {
    return state;
  }
  const int error = errorIn(*answer);
  if (error != 0) {
    state.is = error == kStreamNotFound ? ClusterState::Is::missing : ClusterState::Is::unavailable;
    return state;
  }
  const auto cluster = answer->find("cluster");
  if (cluster != answer->end() && cluster->contains("name") &&
      cluster->value("leader", "").empty()) {
    state.reason = "the stream has no leader";
    return state;
  }
  const Json settings = answer->value("config", Json::object());
  const std::int64_t limit = settings.value("max_msg_size", std::int64_t{-1});
  state.messageLimit = limit > 0 ? std::optional(static_cast<std::uint64_t>(limit)) : std::nullopt;
  state.fault = faultOf(settings, replicas);
  state.is = ClusterState::Is::ready;
  return state;
}

bool Cluster::make(int replicas) const {
  std::string reason;
  const std::string request = std::string("STREAM.CREATE.") + kClusterStream;
  auto answer = ask(request, settingsFor(replicas == 0 ? kMostReplicas : replicas), reason);
  if (answer && errorIn(*answer) == kNoCluster && replicas == 0) {
    answer = ask(request, settingsFor(1), reason);
  }
  if (answer && errorIn(*answer) == kNoCluster) {
    throw Refused("the stream " + std::string(kClusterStream) + " cannot be made: " + reason);
  }
  return answer && errorIn(*answer) == 0;
}

Answer Cluster::store(const Chunk& chunk, bool withId, std::string& reason) const {
  Connection::Headers headers = {{kOffsetHeader, std::to_string(chunk.offset)},
                                 {kChecksumHeader, tool::checksumText(chunk.checksum)}};
  if (chunk.isLast) {
    headers.emplace_back(kLastHeader, "1");
  }
  if (withId) {
    headers.emplace_back("Nats-Msg-Id", chunk.subject);
  }
  if (chunk.data.size() + kRoomForHeaders > connection.payloadLimit()) {
    return Answer::tooLarge;
  }
  natsStatus status = NATS_OK;
  const Message answer = connection.request(chunk.subject, headers, chunk.data, status);
  if (status == NATS_MAX_PAYLOAD) {
    return Answer::tooLarge;
  }
  reason = answer ? reasonIn(textOf(answer)) : natsStatus_GetText(status);
  return answer ? answerIn(textOf(answer)) : Answer::unavailable;
}

Message Cluster::stored(const std::string& subject, natsStatus& status) const {
  jsCtx* made = nullptr;
  status = natsConnection_JetStream(&made, connection.get(), nullptr);
  const Context context(made);
  natsMsg* found = nullptr;
  auto error = jsErrCode(0);
  if (status == NATS_OK) {
    status = js_GetLastMsg(&found, context.get(), kClusterStream, subject.c_str(), nullptr, &error);
  }
  if (error == JSNoMessageFoundErr) {
    status = NATS_OK;
  } else if (status != NATS_OK) {
    connection.requirePermission();
  }
  return Message(found);
}

std::optional<std::set<std::string>> Cluster::subjects(const std::string& pattern,
                                                       std::string& reason) const {
  std::set<std::string> found;
  for (std::size_t total = 1, offset = 0; offset < total;) {
    const auto answer = ask(std::string("STREAM.INFO.") + kClusterStream,
                            {{"subjects_filter", pattern}, {"offset", offset}}, reason);
    if (!answer || errorIn(*answer) != 0) {
      return std::nullopt;
    }
    const Json subjects = answer->value("state", Json::object()).value("subjects", Json::object());
    for (const auto& [subject, count] : subjects.items()) {
      found.insert(subject);
    }
    offset += std::max<std::size_t>(subjects.size(), 1);
    total = answer->value("total", std::size_t{0});
  }
  return found;
}

}  // namespace forward
