#include "store/store.hpp"

#include <utility>

namespace orvaned {
namespace {

std::unique_ptr<StoreAccess> openStore(const std::string& directory, const std::string& queue,
                                       Sync sync) {
  checkWritable(directory);
  return std::make_unique<LocalAccess>(directory, StreamOrigin{.queue = queue}, sync);
}

}  // namespace

Store::Store(const std::string& directory, const std::string& queue, Sync sync,
             const Compression& compression)
    : Store(openStore(directory, queue, sync), queue, sync, compression) {}

Store::Store(std::unique_ptr<StoreAccess> access, const std::string& queue, Sync sync,
             const Compression& compression)
    : access(std::move(access)),
      queue(queue),
      sync(sync),
      compressor(compression.level > 0
                     ? std::make_unique<tool::Compressor>(compression.level, compression.working)
                     : nullptr) {}

std::unique_ptr<StreamFolder> Store::createStream() {
  StoreAccess::NewStream stream = access->createStream();
  return std::make_unique<StreamFolder>(std::move(stream.folder), stream.head, sync,
                                        compressor.get());
}

void Store::storeOutside(const orvane::ShmBatch::Entry& entry) {
  if (!outside) {
    outsideFolder = access->outside();
    outside = std::make_unique<OutputFile>(outsideFolder.get(), outsideNameOf(queue), sync);
  }
  appendRecord(*outside, entry);
}

void Store::flush() {
  // Closed after each batch, so that the next one notices if the file or the folder was removed.
  if (const auto file = std::move(outside)) {
    file->flush();
  }
}

}  // namespace orvaned
