#include <pthread.h>

#include "orvane/queue_name.hpp"
#include "orvane/timeout.hpp"
#include "orvane/writer.hpp"
#include "ox/trace.hpp"
#include "queue/message_queue.hpp"

namespace orvane {

namespace ipc = boost::interprocess;

ShmWriter::ShmWriter(const std::string& streamName, const std::string& sendQueueName,
                     unsigned int timeoutSeconds, unsigned int stopTimeoutSeconds, bool benchmark)
    : ChannelWriter(streamName),
      msgQueueName(sendQueueName),
      timeout(timeoutSeconds),
      stopTimeout(stopTimeoutSeconds),  // any value, 0 too: a stop may be sent without waiting
      perfBenchmarkEnabled(benchmark),
      lastMessageType(kRecordStop),
      segmentFirstWrite(true),
      lastSegmentState(kOrvaneSegBounded),
      segAlg(kOrvaneSegBounded),
      segParam1(0),
      segParam2(0),
      segParam3(0) {
  const AutoTrace scope("ShmWriter");
  validateTimeout(timeout);
  if (TraceOn()) {
    __Trace("%s: opening send message queue", "ShmWriter");
  }
  sendQueue = std::make_unique<ipc::message_queue>(ipc::open_only, msgQueueName.c_str());
  const std::string responseName = getMessageQueueResponseName(msgQueueName);
  if (TraceOn()) {
    __Trace("%s: opening message response queue", "ShmWriter");
  }
  responseQueue = std::make_unique<ipc::message_queue>(ipc::open_only, responseName.c_str());
  if (TraceOn()) {
    __Trace("%s: creating shm batch buffer", "ShmWriter");
  }
  // As large as the largest message, so that a full batch always fits one.
  batch = std::make_unique<ShmBatch>(sendQueue->get_max_msg_size());
}

void ShmWriter::open() {
  const AutoTrace scope("open");
  if (isOpen) {
    return;
  }
  // segParam1 and segParam3 keep what the last record left there: deployed servers have always seen
  // them in a second stream's open record, and every later record sets all four fields anew.
  header.seqNo = 0;
  header.type = kRecordOpen;
  header.len = 0;
  header.segAlg = 0;
  header.segParam2 = 0;
  header.segmentDone = 1;
  header.segmentNo = 0;
  if (TraceOn()) {
    __Trace("ShmWriter:open: orvane msgQueueName is %s", msgQueueName.c_str());
  }
  write_data(&header, nullptr, timeout, true);
  header.seqNo += 1;
  isOpen = true;
}

void ShmWriter::close() {
  const AutoTrace scope("close");
  if (!isOpen) {
    return;
  }
  endWith(kRecordClose, timeout, true);
  isOpen = false;
}

// Neither asks whether the writer is open nor closes it: an abort must be possible at any moment,
// and the close that the destructor sends afterwards still frees the stream at the server.
void ShmWriter::stop(bool useStopTimeout) {
  const AutoTrace scope("stop");
  endWith(kRecordStop, useStopTimeout ? stopTimeout : timeout, true);
}

ShmWriter::~ShmWriter() {
  const AutoTrace scope("~ShmWriter");
  if (isOpen) {
    // A thread cancelled while it waits in here would unwind through a destructor, which ends the
    // process.
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    try {
      close();
    } catch (...) {
      // Nobody is left to tell.
    }
    pthread_setcancelstate(cancelState, nullptr);
  }
  // The members go in reverse order: the batch, then the response queue, then the send queue. Both
  // queues are only detached from; they are the server's.
}

}  // namespace orvane
