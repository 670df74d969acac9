#pragma once

#include <cstdint>
#include <orvane/orvane.hpp>
#include <string>

#include "json.hpp"

namespace tool {

// Prints each record of a file of records, in the text form of the library or as an object of JSON.
// Returns the number of places that hold no record: 1 if something else follows the records.
// Throws std::runtime_error if the file cannot be read.
std::uint64_t dumpRecords(const std::string& path, bool json);

// The form of a record in texts and in JSON, with the check value of its data.
std::string textOfRecord(const orvane::ShmBatch::Entry& entry);
Json jsonOfRecord(const orvane::ShmBatch::Entry& entry);

}  // namespace tool
