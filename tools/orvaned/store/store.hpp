#pragma once

#include <memory>
#include <orvane/orvane.hpp>
#include <string>

#include "store/output_file.hpp"
#include "store/store_access.hpp"
#include "store/stream_folder.hpp"

namespace orvaned {

// What one queue's streams leave on disk: a folder QUEUE-ID for each stream, and a file
// QUEUE-outside-records for the records that came while no stream was open.
class Store {
 public:
  // Its own process makes the files. Throws as checkWritable() does.
  Store(const std::string& directory, const std::string& queue, Sync sync);

  Store(std::unique_ptr<StoreAccess> storeAccess, const std::string& queue, Sync sync);

  // A new stream's folder. Throws Ox_ErrnoException (orvane::kStoreFailed), as the next two do.
  std::unique_ptr<StreamFolder> createStream();

  void storeOutside(const orvane::ShmBatch::Entry& entry);

  // Hands to the system what came from outside since the last call; with Sync::always, to the disk.
  void flush();

 private:
  const std::unique_ptr<StoreAccess> access;
  const std::string queue;
  const Sync sync;
  std::unique_ptr<StreamDirectory> outsideFolder;
  std::unique_ptr<OutputFile> outside;
};

}  // namespace orvaned
