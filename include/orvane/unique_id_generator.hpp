#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>

#include "orvane/export.hpp"

namespace orvane {

// Hands out ids that are unique within this process: a prefix, "_" and the next number.
//   std::string id = UniqueIdGenerator::getInstance().generateId("seg");  // "seg_0"
// The numbers are shared by all prefixes and carry no time, process or host. Any thread may call
// it.
class ORVANE_API UniqueIdGenerator {
 public:
  // The process's one generator, built at the first call and destroyed at exit.
  static UniqueIdGenerator& getInstance();

  // prefix + "_" + the counter in decimal, which then counts one; after 4294967295 comes 0. Blocks
  // only while another thread draws an id.
  std::string generateId(const std::string& prefix);

  // A second, independent counter; what is meant to be unique uses getInstance().
  UniqueIdGenerator();
  ~UniqueIdGenerator();
  UniqueIdGenerator(const UniqueIdGenerator&) = delete;
  UniqueIdGenerator& operator=(const UniqueIdGenerator&) = delete;

 private:
  friend struct UniqueIdCounter;  // lets a test set the counter near its end

  pthread_mutex_t mutex;
  std::uint32_t counter;
};

}  // namespace orvane
