#pragma once

#include <string>

#include "orvane/export.hpp"
#include "orvane/records.hpp"

namespace orvane {

// A named endpoint of a stream.
//
// The order of the virtual functions, here and below, is part of the binary interface: close, the
// destructor, open, setSegmentAlg, writeSegment, endSegment, stop.
class ORVANE_API Channel {
 public:
  Channel(const std::string& name);  // NOLINT(google-explicit-constructor): callers convert
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  virtual void close() = 0;
  virtual ~Channel();

 protected:
  bool isOpen;
  std::string name;
};

// The writing end. ShmWriter says what each call does.
class ORVANE_API ChannelWriter : public Channel {
 public:
  ChannelWriter(const std::string& name);  // NOLINT(google-explicit-constructor): callers convert

  void close() override = 0;
  ~ChannelWriter() override;
  virtual void open() = 0;
  virtual void setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                             unsigned long param3) = 0;
  virtual void writeSegment(const unsigned char* data, unsigned long length) = 0;
  virtual void endSegment() = 0;
  virtual void stop(bool useStopTimeout) = 0;
};

}  // namespace orvane
