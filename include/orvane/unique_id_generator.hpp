#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>

#include "orvane/export.hpp"

namespace orvane {

// Makes ids that are unique within this process: a prefix, "_" and the next number.
//   std::string id = UniqueIdGenerator::getInstance().generateId("seg");  // "seg_0"
// All prefixes share one counter. An id contains no time, process or host. Any thread may call it.
class ORVANE_API UniqueIdGenerator {
 public:
  // Returns the process's only generator, which is made at the first call and destroyed at exit.
  static UniqueIdGenerator& getInstance();

  // Returns prefix + "_" + the counter in decimal, and adds one to the counter, which
  // continues with 0 after 4294967295. Blocks only while another thread makes an id.
  std::string generateId(const std::string& prefix);

  // Makes a second generator with its own counter, so both may make the same id. For ids that
  // are unique in the process, use getInstance().
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
