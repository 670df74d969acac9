#pragma once

#include <memory>
#include <orvane/orvane.hpp>
#include <string>

#include "store/output_file.hpp"
#include "store/store_access.hpp"
#include "store/stream_folder.hpp"

namespace orvaned {

// The streams of one queue on disk: a folder QUEUE-ID for each stream, and a file
// QUEUE-outside-records for the records that came while no stream was open.
class Store {
 public:
  // This process creates the files. Throws like checkWritable().
  Store(const std::string& directory, const std::string& queue, Sync sync);

  Store(std::unique_ptr<StoreAccess> access, const std::string& queue, Sync sync);

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
  std::unique_ptr<StreamDirectory> outsideFolder;
  std::unique_ptr<OutputFile> outside;
};

}  // namespace orvaned
