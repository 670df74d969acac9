#include "ring/fork_count.hpp"

#include <pthread.h>

namespace orvane::ring {

std::atomic<unsigned int> forks{0};

namespace {

[[maybe_unused]] const int registered = pthread_atfork(nullptr, nullptr, [] { ++forks; });

}  // namespace

}  // namespace orvane::ring
