#include "reason.hpp"

#include <filesystem>
#include <new>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <stdexcept>
#include <system_error>
#include <typeinfo>

#include "store_format/zstd.hpp"

namespace tool {
namespace {

namespace ipc = boost::interprocess;

std::string reasonOf(const ipc::interprocess_exception& e) {
  switch (e.get_error_code()) {
    case ipc::timeout_when_locking_error:
      return "a process holds its lock for 2 s: it was stopped, or it died";
    case ipc::lock_error:
    case ipc::owner_dead_error:
    case ipc::not_recoverable:
      return "a process died inside it";
    case ipc::corrupted_error:
      return "it is not a queue, or the process that creates it was stopped, or it died";
    default:
      return e.get_native_error() != 0 ? std::generic_category().message(e.get_native_error())
                                       : "it is not a queue of this release of orvane";
  }
}

std::string reasonOf(const std::system_error& e) {
  const auto* file = dynamic_cast<const std::filesystem::filesystem_error*>(&e);
  const bool hasPath = file != nullptr && !file->path1().empty();
  return (hasPath ? file->path1().string() + ": " : "") + e.code().message();
}

}  // namespace

std::string reasonOf(const std::exception& e) {
  if (const auto* ours = dynamic_cast<const Ox_ErrnoException*>(&e)) {
    return ours->message();
  }
  if (const auto* queue = dynamic_cast<const ipc::interprocess_exception*>(&e)) {
    return reasonOf(*queue);
  }
  if (const auto* system = dynamic_cast<const std::system_error*>(&e)) {
    return reasonOf(*system);
  }
  if (dynamic_cast<const std::bad_alloc*>(&e) != nullptr) {
    return "there is not enough memory";
  }
  if (dynamic_cast<const ZstdMissing*>(&e) != nullptr) {
    return e.what();
  }
  // Only orvane throws this very class; the standard library throws classes that are derived.
  return typeid(e) == typeid(std::runtime_error) ? e.what()
                                                 : "an error of orvane itself: please report it";
}

}  // namespace tool
