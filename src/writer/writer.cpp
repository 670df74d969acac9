#include "orvane/writer.hpp"
#include "orvane/queue_name.hpp"
#include "orvane/timeout.hpp"
#include "ox/trace.hpp"
#include "queue/message_queue.hpp"
#include "writer/record_steps.hpp"

namespace orvane {

namespace ipc = boost::interprocess;

ShmWriter::ShmWriter(const std::string& name, const std::string& msgQueueName, unsigned int timeout,
                     unsigned int stopTimeout, bool perfBenchmarkEnabled)
    : ChannelWriter(name),
      msgQueueName(msgQueueName),
      timeout(timeout),
      stopTimeout(stopTimeout),  // may be 0, to send a stop without waiting
      perfBenchmarkEnabled(perfBenchmarkEnabled) {
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
  // As large as the queue's largest message, so that a full batch fits into one.
  batch = std::make_unique<ShmBatch>(sendQueue->get_max_msg_size());
}

void ShmWriter::open() {
  const AutoTrace scope("open");
  if (isOpen) {
    return;
  }
  RecordSteps::fillOpen(*this);
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
  RecordSteps::endWith(*this, kRecordClose, timeout, true);
  isOpen = false;
}

// It does not require an open writer and does not close it: an abort must be possible at any time,
// and the destructor's close afterwards still frees the stream at the server.
void ShmWriter::stop(bool useStopTimeout) {
  const AutoTrace scope("stop");
  RecordSteps::endWith(*this, kRecordStop, useStopTimeout ? stopTimeout : timeout, true);
}

ShmWriter::~ShmWriter() {
  const AutoTrace scope("~ShmWriter");
  if (isOpen) {
    RecordSteps::closeInDestructor(*this);
  }
  // The members are destroyed in reverse order: the batch, the response queue, the send queue. The
  // writer only detaches from the queues, which belong to the server.
}

}  // namespace orvane
