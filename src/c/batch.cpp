#include <cstring>
#include <new>
#include <optional>

#include "c/call.hpp"
#include "orvane/batch_view.hpp"
#include "orvane/orvane.h"

struct orvane_batch {
  std::optional<orvane::BatchView> view;
  std::optional<orvane::BatchView::Iterator> next;
  orvane::c::Failure failure;
};

extern "C" {

int orvane_batch_open(const void* bytes, size_t size, orvane_batch** batch) {
  if (batch == nullptr) {
    return ORVANE_INVALID_ARGUMENT;
  }
  *batch = new (std::nothrow) orvane_batch;
  if (*batch == nullptr) {
    return ORVANE_NO_MEMORY;
  }
  return statusOf((*batch)->failure, [&] {
    if (bytes == nullptr && size > 0) {
      return (*batch)->failure.set(ORVANE_INVALID_ARGUMENT, "The pointer to the batch is NULL",
                                   orvane::Certainty::notStored);
    }
    (*batch)->view.emplace(static_cast<const unsigned char*>(bytes), size);
    (*batch)->next.emplace((*batch)->view->begin());
    return ORVANE_OK;
  });
}

size_t orvane_batch_count(const orvane_batch* batch) {
  return batch != nullptr && batch->view ? batch->view->size() : 0;
}

orvane_record* orvane_record_init(orvane_record* record, size_t size) {
  if (record != nullptr) {
    std::memset(record, 0, size);
    record->size = size;
  }
  return record;
}

int orvane_batch_next(orvane_batch* batch, orvane_record* record) {
  if (batch == nullptr || record == nullptr || !batch->view || *batch->next == batch->view->end()) {
    return 0;
  }
  const orvane::ShmBatch::Entry entry = **batch->next;
  ++*batch->next;
  const orvane::pvk_shm_message_t& header = entry.header;
  orvane_record whole = {};
  whole.type = header.type;
  whole.sequence = header.seqNo;
  whole.segment = header.segmentNo;
  whole.segment_done = header.segmentDone;
  whole.segment_state = header.segAlg;
  whole.parameters[0] = header.segParam1;
  whole.parameters[1] = header.segParam2;
  whole.parameters[2] = header.segParam3;
  whole.data = entry.data;
  whole.data_size = header.len;
  orvane::c::copyKnown(whole, record);
  return 1;
}

const char* orvane_batch_message(const orvane_batch* batch) {
  return batch != nullptr ? batch->failure.message() : orvane::c::kNoMemory;
}

void orvane_batch_close(orvane_batch* batch) {
  delete batch;
}

}  // extern "C"
