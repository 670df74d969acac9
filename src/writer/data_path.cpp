#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstring>
#include <string_view>

#include "orvane/process_name.hpp"
#include "orvane/writer.hpp"
#include "ox/trace.hpp"
#include "queue/message_queue.hpp"
#include "records/batch_append.hpp"
#include "records/failure.hpp"
#include "writer/record_steps.hpp"

namespace orvane {

// Every record uses this function. With tracing off it makes only one call outside this library
// (TraceOn, which a program may replace): AutoTrace tests a flag inline, failures are not inline,
// and the record is copied to the batch without an Entry.
void ShmWriter::write_data(const pvk_shm_message_t* record, const unsigned char* data,
                           unsigned int sendTimeout, bool flush) {
  const AutoTrace scope("write_data");
  if (!RecordSteps::admit(*this, *record, sendTimeout)) {
    return;
  }
  if (batch->hasRoomFor(record->len)) [[likely]] {
    batch->append(*record, data);
    lastMessageType = record->type;
  } else {
    appendAfterFlush(*record, data, sendTimeout);
  }
  if (flush) {
    flush_shm_buffer(sendTimeout);
  }
}

// The caller may change its header while the flush waits, so the entry's copy is stored. Only this
// path makes a copy, since copying a header that was filled just before costs 5 to 9 ns. It uses
// none of the functions that write_data has inline, which would then not be inline there.
[[gnu::noinline, gnu::cold]] void ShmWriter::appendAfterFlush(const pvk_shm_message_t& record,
                                                              const unsigned char* data,
                                                              unsigned int sendTimeout) {
  const ShmBatch::Entry entry(record, data);
  flush_shm_buffer(sendTimeout);
  if (!batch->canStore(entry)) {
    fail(kStatusDoesNotFit, "Could not fit header (type=", entry.header.type, ") with data length ",
         entry.header.len, " into the batch, even after batch has been flushed");
  }
  batch->pushBack(entry);
  lastMessageType = entry.header.type;
}

void ShmWriter::flush_shm_buffer(unsigned int sendTimeout) {
  namespace posix_time = boost::posix_time;
  if (TraceOn()) {
    __Trace("%s: Sending shm batch of %u", "flush_shm_buffer", batch->getNumEntries());
  }
  const posix_time::ptime deadline =
      posix_time::second_clock::universal_time() + posix_time::seconds(sendTimeout);
  constexpr unsigned int kPriority = 1;
  if (!sendQueue->timed_send(batch->getRaw(), batch->getRawSize(), kPriority, deadline)) {
    fail(kStatusTimedOut, "Timed out after waiting ", sendTimeout, "s to send data to ",
         OrvanedProcessName, name.empty() ? "" : " on stream ", name);
  }
  batch->clear();

  boost::interprocess::message_queue::size_type received;
  unsigned int priority;
  if (!responseQueue->try_receive(&response, sizeof response, received, priority)) {
    return;
  }
  if (response.status != 0) {
    fail(response.status,
         std::string_view(response.text, strnlen(response.text, sizeof response.text)));
  }
}

}  // namespace orvane
