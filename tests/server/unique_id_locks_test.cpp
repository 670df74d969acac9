#include <cxxabi.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "orvane/unique_id_generator.hpp"
#include "support/allocations.hpp"
#include "support/waiting_thread.hpp"

namespace {

// What a thread does while it records.
struct Recorded {
  std::array<const char*, 32> steps = {};
  std::size_t count = 0;
};
thread_local Recorded* recorded = nullptr;

void note(const char* step) {
  if (recorded != nullptr && recorded->count < recorded->steps.size()) {
    recorded->steps[recorded->count++] = step;
  }
}

// Called in the middle of each mutex's initialisation.
std::atomic<void (*)()> whileInitialising = nullptr;

// What is said on standard error when its mutex is destroyed.
const void* watchedGenerator = nullptr;

// The function that is replaced here.
template <typename Function>
Function* original(std::atomic<void*>& found, const char* name) {
  if (found == nullptr) {
    found = dlsym(RTLD_NEXT, name);
  }
  return reinterpret_cast<Function*>(found.load());
}

}  // namespace

// These take the place of the system's for everything that this executable loads.
#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static constinit std::atomic<void*> found = nullptr;
  note("lock");
  return original<int(pthread_mutex_t*)>(found, "pthread_mutex_lock")(mutex);
}

REPLACED int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static constinit std::atomic<void*> found = nullptr;
  note("unlock");
  return original<int(pthread_mutex_t*)>(found, "pthread_mutex_unlock")(mutex);
}

REPLACED int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* kind) noexcept {
  static constinit std::atomic<void*> found = nullptr;
  note(kind == nullptr ? "make the default mutex" : "make another mutex");
  if (whileInitialising != nullptr) {
    whileInitialising.exchange(nullptr)();
  }
  using Function = int(pthread_mutex_t*, const pthread_mutexattr_t*);
  return original<Function>(found, "pthread_mutex_init")(mutex, kind);
}

REPLACED int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
  static constinit std::atomic<void*> found = nullptr;
  if (mutex == watchedGenerator) {
    std::fputs("its mutex is destroyed", stderr);
  }
  return original<int(pthread_mutex_t*)>(found, "pthread_mutex_destroy")(mutex);
}

REPLACED int __cxa_guard_acquire(__cxxabiv1::__guard* guard) {
  static constinit std::atomic<void*> found = nullptr;
  note("guard");
  return original<int(__cxxabiv1::__guard*)>(found, "__cxa_guard_acquire")(guard);
}

// The constructor of std::locale, which that of every stream calls.
REPLACED void makeLocale(void* locale) noexcept __asm__("_ZNSt6localeC1Ev");
REPLACED void makeLocale(void* locale) noexcept {
  static constinit std::atomic<void*> found = nullptr;
  note("make a stream");
  original<void(void*)>(found, "_ZNSt6localeC1Ev")(locale);
}

namespace orvane {

struct UniqueIdCounter {
  static std::ptrdiff_t offset(const UniqueIdGenerator& ids) {
    return reinterpret_cast<const char*>(&ids.counter) - reinterpret_cast<const char*>(&ids.mutex);
  }
};

}  // namespace orvane

namespace orvane::test {
namespace {

using Steps = std::vector<std::string>;

// The steps of `call`, without repetitions.
template <typename Call>
Steps stepsOf(Call call) {
  Recorded steps;
  recorded = &steps;
  call();
  recorded = nullptr;
  Steps list;
  for (std::size_t i = 0; i < steps.count; ++i) {
    if (list.empty() || list.back() != steps.steps[i]) {
      list.emplace_back(steps.steps[i]);
    }
  }
  return list;
}

// Ends the process well if these are the steps; else it says what they were.
[[noreturn]] void exitUnlessEqual(const Steps& steps, const Steps& expected) {
  std::string all;
  for (const std::string& step : steps) {
    all += step + "; ";
  }
  const ssize_t written = write(STDERR_FILENO, all.data(), all.size());
  _exit(steps == expected && written >= 0 ? 0 : 1);
}

// Each in a separate process, where nothing has asked for the instance yet.
TEST(UniqueIdInstance, IsMadeUnderALockAndAGuard) {
  EXPECT_EXIT(exitUnlessEqual(stepsOf([] { UniqueIdGenerator::getInstance(); }),
                              {"lock", "guard", "make the default mutex", "unlock"}),
              testing::ExitedWithCode(0), "");
}

TEST(UniqueIdInstance, IsLookedUpUnderALockEveryTime) {
  EXPECT_EXIT(
      {
        UniqueIdGenerator::getInstance();
        exitUnlessEqual(stepsOf([] { UniqueIdGenerator::getInstance(); }), {"lock", "unlock"});
      },
      testing::ExitedWithCode(0), "");
}

TEST(UniqueIdInstance, IsDestroyedWhenTheProcessExits) {
  EXPECT_EXIT(
      {
        watchedGenerator = &UniqueIdGenerator::getInstance();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "its mutex is destroyed");
}

std::atomic<bool> instanceIsBeingMade = false;
std::atomic<bool> goOn = false;

// A second thread that asks while the first one makes the instance waits for the lock, and does not
// get as far as the guard.
TEST(UniqueIdInstance, IsAskedForByOneThreadAtATimeWhileItIsMade) {
  EXPECT_EXIT(
      {
        whileInitialising = [] {
          instanceIsBeingMade = true;
          while (!goOn) {
            std::this_thread::yield();
          }
        };
        std::thread first([] { UniqueIdGenerator::getInstance(); });
        while (!instanceIsBeingMade) {
          std::this_thread::yield();
        }
        Recorded steps;
        const WaitingThread second([&steps] {
          recorded = &steps;
          UniqueIdGenerator::getInstance();
        });
        second.awaitSleep();
        const bool waitsForTheLock = steps.count == 1 && std::strcmp(steps.steps[0], "lock") == 0;
        goOn = true;
        first.join();
        _exit(waitsForTheLock ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(UniqueIds, AreDrawnUnderTheLockAfterTheMakingOfTheStream) {
  UniqueIdGenerator ids;
  std::string id;
  EXPECT_EQ(stepsOf([&] { id = ids.generateId("a prefix that does not fit into a short string"); }),
            (Steps{"make a stream", "lock", "unlock"}));
  EXPECT_EQ(id, "a prefix that does not fit into a short string_0");
}

TEST(UniqueIds, HaveTheirMutexInFrontOfTheCounter) {
  const UniqueIdGenerator ids;
  EXPECT_EQ(UniqueIdCounter::offset(ids), ssize_t{sizeof(pthread_mutex_t)});
}

TEST(UniqueIds, KeepZeroBytesOfTheirPrefix) {
  UniqueIdGenerator ids;
  EXPECT_EQ(ids.generateId(std::string("a\0b", 3)), std::string("a\0b_0", 5));
}

TEST(UniqueIds, AreDrawnByOneThreadAtATime) {
  UniqueIdGenerator ids;
  std::atomic<bool> isDrawing = false;
  std::atomic<bool> mayGoOn = false;
  const std::string prefix(3000, 'p');
  std::string firstId;
  std::string secondId;
  std::thread first([&] {
    const Allocations stopping([&](std::size_t size) {
      while (size > 1000 && !mayGoOn) {
        isDrawing = true;
        std::this_thread::yield();
      }
      return nullptr;
    });
    firstId = ids.generateId(prefix);
  });
  while (!isDrawing) {
    std::this_thread::yield();
  }
  {
    const WaitingThread second([&] { secondId = ids.generateId("q"); });
    EXPECT_NO_THROW(second.awaitSleep()) << "it must wait for the first one";
    mayGoOn = true;
  }
  first.join();
  EXPECT_EQ(firstId, prefix + "_0");
  EXPECT_EQ(secondId, "q_1");
}

TEST(UniqueIds, UseTheirNumberUpWhenTheTextCannotBeMade) {
  UniqueIdGenerator ids;
  const std::string prefix(3000, 'p');
  int needed = 0;
  {
    const Allocations counting([&](std::size_t) {
      ++needed;
      return nullptr;
    });
    ids.generateId(prefix);
  }
  int left = needed;
  {
    // The last one is for the text that is returned.
    const Allocations failing(
        [&](std::size_t) -> void* { return --left == 0 ? throw std::bad_alloc() : nullptr; });
    EXPECT_THROW(ids.generateId(prefix), std::bad_alloc);
  }
  EXPECT_EQ(left, 0);
  EXPECT_EQ(ids.generateId("p"), "p_2");
}

}  // namespace
}  // namespace orvane::test
