#include <cstddef>
#include <cstring>
#include <type_traits>

#include "orvane/records.hpp"
#include "ox/strings.hpp"

namespace orvane {

// A response is sent as its bytes in memory.
static_assert(sizeof(pvk_shm_response_t) == 132);
static_assert(offsetof(pvk_shm_response_t, status) == 0);
static_assert(offsetof(pvk_shm_response_t, text) == 4);
static_assert(std::is_trivially_copyable_v<pvk_shm_response_t>);

void pvk_shm_response_t::assign(ox_status_t newStatus, const char* newText) {
  status = newStatus;
  pvkstrcpy(text, newText, sizeof text);
}

bool operator==(const pvk_shm_response_t& a, const pvk_shm_response_t& b) {
  return a.status == b.status && std::strncmp(a.text, b.text, sizeof a.text) == 0;
}

bool operator!=(const pvk_shm_response_t& a, const pvk_shm_response_t& b) {
  return !(a == b);
}

}  // namespace orvane
