#include "supervisor/lease_limits.hpp"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "shm/shm_names.hpp"
#include "worker/queue_pair.hpp"

namespace orvaned {
namespace {

std::size_t memory() {
  return static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES)) *
         static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// If the size of /dev/shm is unknown, there is no limit here, and creating a pair may fail.
std::size_t shmLimit(const Options& options) {
  struct statvfs shm = {};
  if (options.shmLimit != 0 || statvfs(tool::kShmFolder, &shm) != 0) {
    return options.shmLimit != 0 ? options.shmLimit : SIZE_MAX;
  }
  return shm.f_blocks * shm.f_frsize / 2;
}

std::string noRoomInShm(const Options& options, const Pairs& pairs) {
  const auto queueLeases = std::count_if(pairs.begin(), pairs.end(), [](const PairProcesses& pair) {
    return pair.lease() != nullptr && pair.lease()->ringBytes() == 0;
  });
  const std::size_t bytes =
      (static_cast<std::size_t>(queueLeases) + 1) * bytesOfPair(options.geometry);
  const std::size_t limit = shmLimit(options);
  if (bytes <= limit) {
    return "";
  }
  return "the leases would take " + std::to_string(bytes) + " bytes of /dev/shm, of " +
         std::to_string(limit) +
         " that they may: end one, or start orvaned with a larger --shm-limit";
}

std::string noRoomForRing(const LeaseConnection& request, const Options& options,
                          const Pairs& pairs) {
  const uid_t user = request.producer().uid;
  std::size_t own = request.ringBytes();
  std::size_t all = own;
  for (const PairProcesses& pair : pairs) {
    if (const LeaseConnection* lease = pair.lease()) {
      all += lease->ringBytes();
      own += lease->producer().uid == user ? lease->ringBytes() : 0;
    }
  }
  const std::size_t limit = options.ringLimit != 0 ? options.ringLimit : memory() / 4;
  const std::size_t ownLimit = options.ringLimitPerUser != 0 ? options.ringLimitPerUser : limit / 2;
  const auto would = [](const std::string& whose, std::size_t bytes, std::size_t most,
                        const std::string& option) {
    return "the rings" + whose + " would take " + std::to_string(bytes) + " bytes, of " +
           std::to_string(most) + " that they may: end one, or start orvaned with a larger " +
           option;
  };
  if (own > ownLimit) {
    return would(" of user " + std::to_string(user), own, ownLimit, "--ring-limit-per-user");
  }
  return all > limit ? would("", all, limit, "--ring-limit") : "";
}

}  // namespace

std::string limitReachedBy(const ucred& producer, std::size_t pending, const Options& options,
                           const Pairs& pairs) {
  std::size_t own = pending;
  for (const PairProcesses& pair : pairs) {
    const LeaseConnection* lease = pair.lease();
    own += lease != nullptr && lease->producer().uid == producer.uid ? 1 : 0;
  }
  if (own < options.pairsPerUser) {
    return "";
  }
  return "user " + std::to_string(producer.uid) + " has " + std::to_string(own) +
         " leases, as many as it may: end one, or start orvaned with a larger --pairs-per-user";
}

std::string noRoomFor(const LeaseConnection& request, const Options& options, const Pairs& pairs) {
  return request.ringBytes() == 0 ? noRoomInShm(options, pairs)
                                  : noRoomForRing(request, options, pairs);
}

}  // namespace orvaned
