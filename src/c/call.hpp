#pragma once

#include <cxxabi.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>

#include "orvane/orvane.h"
#include "orvane/stream.hpp"

namespace orvane::c {

// The last failure of the calls on a handle. It allocates nothing, so that it can tell of a lack of
// memory.
class Failure {
 public:
  int status() const { return number; }
  const char* message() const { return text; }
  Certainty certainty() const { return certain; }

  int set(int status, const char* message, Certainty certainty) noexcept {
    number = status;
    certain = certainty;
    const std::size_t length = std::min(std::strlen(message), sizeof text - 1);
    std::memmove(text, message, length);
    text[length] = '\0';
    return number;
  }

 private:
  int number = ORVANE_OK;
  Certainty certain = Certainty::notStored;
  char text[1024] = "";
};

constexpr char kNoMemory[] = "There is not enough memory";

// Makes a call and returns its status. No exception leaves it, except the one by which the C
// library ends a thread that is cancelled.
template <typename Call>
int statusOf(Failure& failure, const Call& call) {
  try {
    return call();
  } catch (const StreamError& e) {
    return failure.set(e.status(), e.what(), e.certainty());
  } catch (const Ox_ErrnoException& e) {
    return failure.set(e.status(), e.what(), Certainty::notStored);
  } catch (const std::bad_alloc&) {
    return failure.set(ORVANE_NO_MEMORY, kNoMemory, Certainty::unknown);
  } catch (const std::exception& e) {
    return failure.set(ORVANE_INTERNAL, e.what(), Certainty::unknown);
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return failure.set(ORVANE_INTERNAL, "An error of orvane itself", Certainty::unknown);
  }
}

// Copies the members of a struct that its program knows, and leaves its size.
template <typename Struct>
void copyKnown(const Struct& from, Struct* to) {
  constexpr std::size_t kFirst = sizeof to->size;
  if (to->size > kFirst) {
    const std::size_t known = std::min(to->size, sizeof from);
    std::memcpy(reinterpret_cast<char*>(to) + kFirst, reinterpret_cast<const char*>(&from) + kFirst,
                known - kFirst);
  }
}

}  // namespace orvane::c
