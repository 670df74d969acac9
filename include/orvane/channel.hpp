#pragma once

#include <string>

#include "orvane/export.hpp"
#include "orvane/records.hpp"

namespace orvane {

// One end of a stream, and the base of ChannelWriter; programs use ShmWriter. A channel has one
// owner, and one thread uses it at a time.
//
// The order of the virtual functions, here and below, is part of the binary interface: close, the
// destructor, open, setSegmentAlg, writeSegment, endSegment, stop.
class ORVANE_API Channel {
 public:
  // The channel is not open yet. `name` is for messages only, and may be empty.
  Channel(const std::string& name);  // NOLINT(google-explicit-constructor): callers convert
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Ends the stream; has no effect on a channel that is not open.
  virtual void close() = 0;
  virtual ~Channel();  // does not call close(): the derived class does

 protected:
  bool isOpen;  // false at first; the derived class sets it in open() and close()
  std::string name;
};

// The writing end of a stream. The comments in writer.hpp describe how ShmWriter implements each
// call: what it throws, and how long it may block.
class ORVANE_API ChannelWriter : public Channel {
 public:
  ChannelWriter(const std::string& name);  // NOLINT(google-explicit-constructor): callers convert

  void close() override = 0;
  ~ChannelWriter() override;

  // Starts a stream; has no effect on an open channel.
  virtual void open() = 0;

  // Sets the segment state and the three parameters of the following records.
  virtual void setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                             unsigned long param3) = 0;

  // Appends `length` bytes to the current segment.
  virtual void writeSegment(const unsigned char* data, unsigned long length) = 0;

  // Ends the current segment; the next data starts a new one.
  virtual void endSegment() = 0;

  // Aborts the stream. A separate timeout limits the wait if `useStopTimeout` is true.
  virtual void stop(bool useStopTimeout) = 0;
};

}  // namespace orvane
