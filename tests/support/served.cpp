#include "support/served.hpp"

#include <unistd.h>

#include <algorithm>
#include <regex>
#include <stdexcept>

#include "support/manifest.hpp"

namespace orvane::test {
namespace {

using boost::interprocess::message_queue;
using boost::interprocess::open_only;

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

// Short, because paths with it must fit into an answer.
std::string shortQueueName() {
  static int counter = 0;
  return "orvane_test." + std::to_string(getpid()) + ".d" + std::to_string(counter++);
}

std::size_t nextStreamNumber() {
  return std::stoul(UniqueIdGenerator::getInstance().generateId("").substr(1)) + 1;
}

}  // namespace

Served::Served(std::size_t messageSize, std::size_t messages)
    : firstStream(nextStreamNumber()),
      name(shortQueueName()),
      responseName(queue() + "Response"),
      streamStore(store(), queue(), orvaned::Sync::none),
      pair(queue(), {messages, messageSize, 0600}),
      queueWorker(queue(), pair, streamStore),
      sendQueue(open_only, queue().c_str()),
      responseQueue(open_only, responseName.text().c_str()) {}

void Served::send(std::initializer_list<Record> records) {
  send(BatchBytes().records(records).bytes());
}

void Served::send(const Bytes& message) {
  const void* bytes = message.empty() ? static_cast<const void*>("") : message.data();
  if (!sendQueue.try_send(bytes, message.size(), 1)) {
    throw std::runtime_error("the send queue is full");
  }
}

std::vector<Answer> Served::serve() {
  while (queueWorker.runOnce()) {
  }
  return answers();
}

std::vector<Answer> Served::ask(std::initializer_list<Record> records) {
  send(records);
  return serve();
}

std::vector<Answer> Served::ask(const Bytes& message) {
  send(message);
  return serve();
}

std::vector<Answer> Served::answers() {
  std::vector<Answer> answers = takeAnswers(responseQueue);
  for (Answer& answer : answers) {
    answer.text = masked(answer.text);
  }
  return answers;
}

std::vector<std::string> Served::stored() const {
  std::vector<std::string> names = namesIn(store());
  for (std::string& stored : names) {
    stored = masked(stored);
  }
  std::sort(names.begin(), names.end());  // by the numbers that the tests see
  std::sort(names.begin(), names.end());  // as numbers of different lengths, they were not
  return names;
}

std::vector<std::string> Served::filesOf(std::size_t stream) const {
  return namesIn(pathOf(stream));
}

std::string Served::file(std::size_t stream, const std::string& fileName) const {
  return readFile(pathOf(stream) + "/" + fileName);
}

std::string Served::manifest(std::size_t stream) const {
  return masked(plainManifest(file(stream, "manifest")));
}

std::string Served::endOf(std::size_t stream) const {
  const std::string text = manifest(stream);
  return text.substr(text.find("\nend=") + 1);
}

std::string Served::pathOf(std::size_t stream) const {
  const std::string ending = "_" + std::to_string(firstStream + stream);
  for (const std::string& folder : namesIn(store())) {
    if (folder.ends_with(ending)) {
      return store() + "/" + folder;
    }
  }
  throw std::runtime_error("there is no stream " + ending);
}

std::vector<Line> Served::log() {
  std::vector<Line> lines = sink.take();
  for (Line& line : lines) {
    line.text = masked(line.text);
  }
  return lines;
}

std::string Served::masked(std::string text) const {
  static const std::regex id("[0-9]{8}T[0-9]{6}-" + std::to_string(getpid()) + "_([0-9]+)");
  replaceAll(text, store(), "STORE");
  replaceAll(text, queue(), "QUEUE");
  for (std::smatch found; std::regex_search(text, found, id);) {
    const std::size_t stream = std::stoul(found[1]) - firstStream;
    text = found.prefix().str() + "RUN_" + std::to_string(stream) + found.suffix().str();
  }
  return text;
}

}  // namespace orvane::test
