#pragma once

#include <cstdint>
#include <functional>
#include <vector>

// System calls that this executable replaces; by default each does what the system does.
namespace orvane::test::interposed {

// What SO_PEERPIDFD fails with, as where the kernel does not have it; 0: it does not fail.
void failPeerPidfd(int error);

// SO_PEERCRED gives the process number 0, and SO_PEERPIDFD no process: what a server sees of a
// producer in its own pid namespace.
void hideProducers(bool hidden);

// The next results of getrandom.
void nextRandomNumbers(std::vector<std::uint64_t> numbers);

// Runs before the next call of listen; once.
void beforeListen(std::function<void()> action);

// The next call of socket fails with this.
void failNextSocket(int error);

}  // namespace orvane::test::interposed
