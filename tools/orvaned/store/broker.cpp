#include "store/broker.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "log.hpp"
#include "store/segment_finish.hpp"
#include "store_format/manifest_lines.hpp"

namespace orvaned {
namespace {

constexpr std::string_view kSegment = tool::kSegmentPrefix;
constexpr std::size_t kMostDigits = 20;

// One subject for all lines of the confined process, so that this broker limits them together. The
// log's own process knows the real subject.
constexpr char kSubject[] = "worker";

bool isSegment(std::string_view name) {
  if (!name.starts_with(kSegment)) {
    return false;
  }
  name.remove_prefix(kSegment.size());
  if (name.ends_with(tool::kCompressed)) {
    name.remove_suffix(std::string_view(tool::kCompressed).size());
  }
  return !name.empty() && name.size() <= kMostDigits &&
         name.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isFinalName(std::string_view name) {
  return name == tool::kManifest || isSegment(name);
}

// A file that is not finished yet, or that is never renamed.
bool isChangeable(std::string_view name) {
  if (name == tool::kOtherRecords) {
    return true;
  }
  const std::string_view unfinished = tool::kUnfinished;
  return name.ends_with(unfinished) && isFinalName(name.substr(0, name.size() - unfinished.size()));
}

bool isAllowed(const BrokerRequest& request) {
  switch (request.call) {
    case BrokerCall::read:
      return isChangeable(request.name) || isFinalName(request.name);
    case BrokerCall::rename:
      return isFinalName(request.other) && request.name == request.other + tool::kUnfinished;
    case BrokerCall::finishSegment:
      return isSegment(request.name);
    case BrokerCall::sync:
    case BrokerCall::names:
      return true;
    default:
      return isChangeable(request.name);
  }
}

std::uint64_t sizeOf(const tool::Fd& file) {
  struct stat status = {};
  return fstat(file.get(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

[[noreturn]] void refuse(const char* reason) {
  throw Ox_ErrnoException(orvane::kStoreFailed, std::string("the broker refuses: ") + reason, "");
}

}  // namespace

Broker::Broker(const Task& task, tool::Fd socket)
    : task(task), socket(std::move(socket)), access(task.store, task.origin, task.sync) {}

void Broker::run() {
  std::vector<unsigned char> packet(kLongestBrokerText);
  for (;;) {
    awaitRequest();
    const ssize_t size = recv(socket.get(), packet.data(), packet.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    }
    if (size <= 0) {
      return;
    }
    // Only a process that was taken over sends anything but a request.
    if (const auto request = parseRequest({packet.data(), static_cast<std::size_t>(size)})) {
      answer(*request);
    }
  }
}

void Broker::awaitRequest() {
  int time = -1;
  if (const auto due = limiter.nextDue()) {
    const auto left = *due - LogLimiter::Clock::now();
    time = static_cast<int>(
        std::max<std::int64_t>(std::chrono::ceil<std::chrono::milliseconds>(left).count(), 0));
  }
  pollfd request = {socket.get(), POLLIN, 0};
  if (poll(&request, 1, time) == 0) {
    writeDue();
  }
}

void Broker::answer(const BrokerRequest& request) {
  if (request.call == BrokerCall::log) {
    return log(request);
  }
  BrokerReply reply;
  reply.serial = request.serial;
  try {
    // The next segment's file can be created, and a compressed one can take the place of that.
    if (request.call != BrokerCall::append && request.call != BrokerCall::remove) {
      awaitFinish();
    }
    if (request.call == BrokerCall::finishSegment) {
      return startFinish(request);
    }
    perform(request, reply);
  } catch (const std::exception& e) {
    reply.error = EIO;
    reply.text = e.what();
  }
  sendReply(socket, reply);
}

void Broker::perform(const BrokerRequest& request, BrokerReply& reply) {
  switch (request.call) {
    case BrokerCall::checkStore:
      return checkWritable(task.store);
    case BrokerCall::createStream:
      return createStream(reply);
    case BrokerCall::nextUnfinished:
      return findUnfinished(reply);
    default:
      return performOnFile(request, reply);
  }
}

void Broker::performOnFile(const BrokerRequest& request, BrokerReply& reply) {
  StreamDirectory& folder = folderOf(request);
  switch (request.call) {
    case BrokerCall::append:
      reply.file = folder.append(request.name);
      if (request.area == BrokerArea::outside) {
        outside.size = sizeOf(reply.file);
      }
      return;
    case BrokerCall::read:
      reply.file = folder.read(request.name);
      return;
    case BrokerCall::truncate:
      return folder.truncate(request.name, request.number);
    case BrokerCall::remove:
      return folder.remove(request.name);
    case BrokerCall::rename:
      folder.rename(request.name, request.other);
      isConcluded = isConcluded || request.other == tool::kManifest;
      return;
    case BrokerCall::sync:
      return folder.sync();
    default:
      return listNames(request.number, reply);
  }
}

// In a thread, so that the confined process can store the next segment meanwhile.
void Broker::startFinish(const BrokerRequest& request) {
  const auto finish = [this, &folder = folderOf(request), request] {
    const FinishResult result = finishSegment(folder, request.name, request.other);
    BrokerReply reply;
    reply.serial = request.serial;
    reply.error = result.error.empty() ? 0 : EIO;
    reply.number = result.listed ? 1 : 0;
    reply.text = result.error;
    sendReply(socket, reply);
  };
  try {
    finishing = std::async(std::launch::async, finish);
  } catch (const std::system_error&) {
    finish();  // no room for another thread
  }
}

void Broker::awaitFinish() const {
  if (finishing.valid()) {
    finishing.wait();
  }
}

void Broker::createStream(BrokerReply& reply) {
  if (task.origin.queue.empty()) {
    refuse("this process has no queue");
  }
  open.reset();
  StoreAccess::NewStream stream = access.createStream();
  if (!stream.folder) {
    refuse("this store keeps nothing");
  }
  open = UnfinishedStream{std::move(stream.head), std::move(stream.folder)};
  isConcluded = false;
  describeOpen(reply);
}

// Lists as many names as fit into a reply.
void Broker::listNames(std::uint64_t from, BrokerReply& reply) {
  std::vector<std::string> names = open->folder->names();
  std::sort(names.begin(), names.end());
  reply.number = names.size();
  for (std::size_t i = from; i < names.size(); ++i) {
    if (reply.text.size() + names[i].size() + 1 > kLongestBrokerText) {
      return;
    }
    reply.text += names[i] + '/';
  }
}

void Broker::findUnfinished(BrokerReply& reply) {
  if (task.unfinished != nullptr) {
    open = task.unfinished->next();
    isConcluded = false;
  }
  if (open && !std::exchange(isConcluded, true)) {
    reply.number = 1;
    describeOpen(reply);
  }
}

void Broker::describeOpen(BrokerReply& reply) const {
  reply.text = textOf(open->head) + '\0' + open->folder->path();
  reply.file = tool::Fd(dup(open->folder->lockedFile()));
}

StreamDirectory& Broker::folderOf(const BrokerRequest& request) {
  if (request.area == BrokerArea::outside) {
    checkOutside(request);
    outside.folder = access.outside();
    if (!outside.folder) {
      refuse("this store keeps nothing");
    }
    return *outside.folder;
  }
  if (!open) {
    refuse("no stream is open");
  }
  if (!isAllowed(request)) {
    refuse("this process may not do that to this file");
  }
  return *open->folder;
}

// The file also holds records of earlier workers: it may grow, and lose only what was added since
// it was opened.
void Broker::checkOutside(const BrokerRequest& request) const {
  const bool isSync = request.call == BrokerCall::sync;
  const std::string& queue = task.origin.queue;
  const bool isItsFile = !queue.empty() && request.name == outsideNameOf(queue);
  const bool isKept = request.call == BrokerCall::append ||
                      (request.call == BrokerCall::truncate && request.number >= outside.size) ||
                      (request.call == BrokerCall::remove && outside.size == 0);
  if (!isSync && !(isItsFile && isKept)) {
    refuse("this process may not do that to the records outside a stream");
  }
}

// Adds the queue's name to a line that does not have it: the line may come from a process that was
// taken over.
void Broker::log(const BrokerRequest& request) {
  std::string line = request.other.substr(0, request.other.find('\0'));
  const std::string queue = "queue " + task.origin.queue;
  if (!task.origin.queue.empty() && line.find(queue) == std::string::npos) {
    const std::size_t function = line.find(": ");
    line.insert(function == std::string::npos ? 0 : function + 2, queue + ": ");
  }
  const std::uint64_t kind = request.number >> 32;
  if (kind > static_cast<std::uint64_t>(ox::Kind::leave)) {
    return;
  }
  const LogLine logged = {static_cast<ox::Kind>(kind), static_cast<std::int32_t>(request.number),
                          kSubject, line};
  writeDue();
  if (limiter.admit(logged, LogLimiter::Clock::now())) {
    logText(logged.kind, logged.code, logged.text.c_str());
  }
}

void Broker::writeDue() {
  for (const LogLine& line : limiter.due(LogLimiter::Clock::now())) {
    logText(line.kind, line.code, line.text.c_str());
  }
}

}  // namespace orvaned
