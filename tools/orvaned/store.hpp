#pragma once

#include <memory>
#include <orvane/orvane.hpp>
#include <string>

#include "output_file.hpp"
#include "stream_folder.hpp"

namespace orvaned {

// Throws std::runtime_error unless `directory` is a folder that the server can write to. It is not
// created: a mistyped path would fill the wrong disk. kNullStore always can.
void checkWritable(const std::string& directory);

// What one queue's streams leave on disk: a folder QUEUE-ID for each stream, and a file
// QUEUE-outside-records for the records that came while no stream was open.
class Store {
 public:
  // Throws as checkWritable() does.
  Store(std::string directory, std::string queue, Sync sync);

  // A new stream's folder. Throws Ox_ErrnoException (kStoreFailed), as the next two do.
  std::unique_ptr<StreamFolder> createStream();

  void storeOutside(const orvane::ShmBatch::Entry& entry);

  // Hands to the system what came from outside since the last call; with Sync::always, to the disk.
  void flush();

 private:
  std::string nextStreamId();

  const std::string directory;
  const std::string queue;
  const Sync sync;
  const std::string idPrefix;
  std::unique_ptr<OutputFile> outside;
};

}  // namespace orvaned
