#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "orvane/batch.hpp"
#include "orvane/export.hpp"
#include "orvane/records.hpp"

namespace orvane {

// The sizes that a ring may have, in bytes: powers of two. A record takes at most a quarter of its
// ring. A small ring is often faster, because it stays in the processors' caches.
constexpr std::uint64_t kSmallestRing = std::uint64_t{1} << 20;
constexpr std::uint64_t kLargestRing = std::uint64_t{256} << 20;
constexpr std::uint64_t kDefaultRing = std::uint64_t{8} << 20;

// The server's end of a ring, for another server than orvaned.
//   RingReader ring(kDefaultRing);
//   ... send ring.producersFile() and ring.serversFile() with the reply "ring NAME BYTES" ...
//   for (;;) {
//     const RingReader::Batch batch = ring.receive();
//     if (batch.data == nullptr) {
//       ring.wait();
//       continue;
//     }
//     ... store the records of BatchView(batch.data, batch.size) ...
//     ring.answer(response);
//   }
//
// It makes the ring's memory and owns it. The producer is not trusted: it may write anything at any
// time. So receive() copies each batch once, and checks all that the producer wrote around it. For
// a server that needs no copy there is receiveInPlace(). One thread uses a ring at a time.
class ORVANE_API RingReader {
 public:
  struct Batch {
    const unsigned char* data;  // null: there is none
    std::size_t size;
  };

  // Makes a ring of `bytes` bytes, with all its memory; the private copy of a batch takes at most a
  // quarter more. Throws kStatusInvalidArgument for another size than described above, or
  // kLeaseLost with the system's reason if there is not enough memory.
  explicit RingReader(std::uint64_t bytes);
  ~RingReader();
  RingReader(const RingReader&) = delete;
  RingReader& operator=(const RingReader&) = delete;

  // The two files for the producer, in this order. They are sealed: nobody can change their size,
  // and the producer can only read the server's.
  int producersFile() const;
  int serversFile() const;

  // Returns the next batch; it is valid until the next call. Does not block. The previous one must
  // have been answered. While an error that was answered does not fit, because the producer reads
  // no answers, there is no next batch. Throws kStatusCorruptMagic if the producer broke the ring's
  // rules: end its lease then.
  Batch receive();

  // Begins to read the next batch where it is, without a copy; instead of receive(), and under the
  // same conditions. Returns false if there is none.
  //   if (ring.receiveInPlace()) {
  //     for (ShmBatch::Entry entry(nullptr); ring.next(entry);) {
  //       ... read the bytes at entry.data, each of them once ...
  //     }
  //     ring.answer(response);
  //   }
  bool receiveInPlace();

  // Reads the next record of this batch into `entry`; returns false after the last one. The header
  // is a private copy that was checked. The data, which is valid until answer(), is still the
  // producer's to change: what is checked or summed first and used later must be copied before.
  // Throws as BatchView's constructor does if this is not a valid batch, and leaves `entry` as it
  // was; records before the mistake have been returned by then. The batch can still be answered.
  bool next(ShmBatch::Entry& entry);

  // Answers the batch and gives its room back. The answer may be lost if its status is 0 and the
  // producer reads none.
  void answer(const pvk_shm_response_t& response);

  // Waits for a batch, at most about 0.1 s: it looks for up to 50 us, and then sleeps.
  void wait();

  // The producer's waits for room or for an answer since the ring was made, as it says.
  struct Waits {
    std::uint64_t nanoseconds;
    std::uint64_t sleeps;
  };
  Waits producersWaits() const;

  // Returns the bytes that the producer has handed over and that are not answered yet; at most the
  // ring's size, whatever the producer wrote.
  std::uint64_t waiting() const;

 private:
  struct ORVANE_LOCAL State;

  std::unique_ptr<State> state;
};

}  // namespace orvane
