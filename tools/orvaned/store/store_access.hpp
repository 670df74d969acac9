#pragma once

#include <memory>
#include <optional>
#include <string>

#include "store/output_file.hpp"
#include "store/stream_directory.hpp"
#include "store_format/stream_head.hpp"

namespace orvaned {

// Where the streams of a queue come from. It does not change as long as the queue exists.
struct StreamOrigin {
  std::string queue = {};
  std::string name = {};  // the first part of the streams' ids; empty: the queue's name
  std::optional<tool::Producer> producer = {};
  std::string label = {};
};

// Creates the files of one queue's streams in the store: LocalAccess does it itself, BrokeredAccess
// asks the broker of a confined process.
class StoreAccess {
 public:
  struct NewStream {
    tool::StreamHead head;
    std::unique_ptr<StreamDirectory> folder;  // null: the stream is only counted
  };

  virtual ~StoreAccess() = default;

  // Creates the folder of the next stream, and locks it for as long as it is in use. Throws
  // Ox_ErrnoException (orvane::kStoreFailed).
  virtual NewStream createStream() = 0;

  // The folder of the queue's file of records outside a stream; null: they are only counted.
  virtual std::unique_ptr<StreamDirectory> outside() = 0;
};

// Throws std::runtime_error if `directory` is not a folder that the server can write to. The folder
// is not created, because a mistyped path would fill the wrong disk. kNullStore is always accepted.
void checkWritable(const std::string& directory);

// The name of a stream's folder until it is locked.
std::string unnamedFolderOf(const std::string& name);

std::string outsideNameOf(const std::string& queue);

class LocalAccess : public StoreAccess {
 public:
  LocalAccess(std::string directory, StreamOrigin origin, Sync sync);

  NewStream createStream() override;
  std::unique_ptr<StreamDirectory> outside() override;

 private:
  std::unique_ptr<LocalDirectory> makeFolder(const std::string& name) const;

  const std::string directory;
  const StreamOrigin origin;
  const Sync sync;
  const std::string process;
};

}  // namespace orvaned
