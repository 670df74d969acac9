#pragma once

#include <memory>
#include <orvane/orvane.hpp>
#include <string>

#include "compression.hpp"
#include "store/output_file.hpp"
#include "store/store_access.hpp"
#include "store/stream_folder.hpp"
#include "store_format/zstd.hpp"

namespace orvaned {

// The streams of one queue on disk: a folder for each stream (stream_id.hpp), and a file
// QUEUE-outside-records for the records that came while no stream was open.
class Store {
 public:
  // This process creates the files. Throws like checkWritable().
  Store(const std::string& directory, const std::string& queue, Sync sync,
        const Compression& compression = {});

  // Throws tool::ZstdMissing if this program cannot compress.
  Store(std::unique_ptr<StoreAccess> access, const std::string& queue, Sync sync,
        const Compression& compression = {});

  // A new stream's folder. This and the next two functions throw Ox_ErrnoException
  // (orvane::kStoreFailed).
  std::unique_ptr<StreamFolder> createStream();

  void storeOutside(const orvane::ShmBatch::Entry& entry);

  // Passes to the system the records outside a stream that came since the last call; with
  // Sync::always, to the disk.
  void flush();

 private:
  const std::unique_ptr<StoreAccess> access;
  const std::string queue;
  const Sync sync;
  const std::unique_ptr<tool::Compressor> compressor;  // of one stream after the other; null: none
  std::unique_ptr<StreamDirectory> outsideFolder;
  std::unique_ptr<OutputFile> outside;
};

}  // namespace orvaned
