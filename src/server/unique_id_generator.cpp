#include "orvane/unique_id_generator.hpp"

#include <locale>
#include <sstream>

#include "orvane/auto_lock.hpp"

namespace orvane {

UniqueIdGenerator::UniqueIdGenerator() : mutex(), counter(0) {
  pthread_mutex_init(&mutex, nullptr);
}
UniqueIdGenerator::~UniqueIdGenerator() {
  pthread_mutex_destroy(&mutex);
}

UniqueIdGenerator& UniqueIdGenerator::getInstance() {
  // The compiler's own guard for `instance` is missing when this library is built with
  // -fno-threadsafe-statics.
  static pthread_mutex_t singletonLock = PTHREAD_MUTEX_INITIALIZER;
  const AutoLock lock(singletonLock);
  static UniqueIdGenerator instance;
  return instance;
}

std::string UniqueIdGenerator::generateId(const std::string& prefix) {
  std::ostringstream id;                 // made before the lock is taken, to hold it shortly
  id.exceptions(std::ios_base::badbit);  // or an id would be cut short when memory runs out
  id.imbue(std::locale::classic());
  const AutoLock lock(mutex);
  id << prefix << "_" << counter;
  ++counter;
  return id.str();
}

}  // namespace orvane
