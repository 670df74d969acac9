#pragma once

#include <memory>
#include <string>

#include "store/output_file.hpp"
#include "store/stream_directory.hpp"

namespace orvaned {

// How one queue's streams get into the store: LocalAccess makes their folders itself,
// BrokeredAccess asks the broker of a confined process.
class StoreAccess {
 public:
  struct NewStream {
    std::string id;
    std::unique_ptr<StreamDirectory> folder;  // null: nothing is kept of it
  };

  virtual ~StoreAccess() = default;

  // Makes the folder of the next stream, and locks it for as long as it is in use. Throws
  // Ox_ErrnoException (orvane::kStoreFailed).
  virtual NewStream createStream() = 0;

  // Where the queue's file of records outside a stream is, and its name there; null: nothing is
  // kept of them.
  virtual std::unique_ptr<StreamDirectory> outside() = 0;
};

// Throws std::runtime_error unless `directory` is a folder that the server can write to. It is not
// created: a mistyped path would fill the wrong disk. kNullStore always can.
void checkWritable(const std::string& directory);

// What a stream's folder is called until it is locked.
std::string unnamedFolderOf(const std::string& name);

std::string outsideNameOf(const std::string& queue);

class LocalAccess : public StoreAccess {
 public:
  LocalAccess(std::string directory, std::string queue, Sync sync);

  NewStream createStream() override;
  std::unique_ptr<StreamDirectory> outside() override;

 private:
  std::unique_ptr<LocalDirectory> makeFolder(const std::string& name) const;

  const std::string directory;
  const std::string queue;
  const Sync sync;
  const std::string idPrefix;
};

}  // namespace orvaned
