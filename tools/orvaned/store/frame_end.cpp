#include "store/frame_end.hpp"

#include "store_format/frame_reader.hpp"

namespace orvaned {
namespace {

// The magic word, a descriptor without a window, and 0 as the size of the content.
constexpr unsigned char kHeaderOfNothing[] = {0x28, 0xB5, 0x2F, 0xFD, 0x20, 0x00};

// A last block without data.
constexpr unsigned char kEnd[] = {0x01, 0x00, 0x00};

}  // namespace

std::uint64_t endFrame(StreamDirectory& folder, const std::string& name, Sync sync) {
  tool::FrameReader frame(folder.read(name), folder.pathOf(name));
  while (!frame.next().empty()) {
  }
  if (frame.isComplete()) {
    return frame.fileBytes();
  }
  OutputFile file(&folder, name, sync);
  file.resume(frame.wholeBytes());
  if (frame.wholeBytes() == 0) {
    file.append(kHeaderOfNothing);
  }
  file.append(kEnd);
  file.settle();
  return frame.wholeBytes() + file.bytes();
}

}  // namespace orvaned
