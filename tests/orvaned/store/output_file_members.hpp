#pragma once

#include <cstdint>

#include "store/output_file.hpp"

// Reaches an output file's private counters, which would take hours to count up. Explicit
// instantiation is the one place where the language does not check access.
namespace orvane::test {

template <class Name, typename Name::Pointer kMember>
struct OutputFileMember {
  friend typename Name::Pointer outputFileMember(Name) { return kMember; }
};

#define ORVANE_EXPOSE(MEMBER)                                                          \
  struct OutputFile_##MEMBER {                                                         \
    using Pointer = std::uint64_t orvaned::OutputFile::*;                              \
    friend Pointer outputFileMember(OutputFile_##MEMBER);                              \
  };                                                                                   \
  template struct OutputFileMember<OutputFile_##MEMBER, &orvaned::OutputFile::MEMBER>; \
  inline std::uint64_t& MEMBER##Of(orvaned::OutputFile& file) {                        \
    return file.*outputFileMember(OutputFile_##MEMBER{});                              \
  }

ORVANE_EXPOSE(bufferedRecords)
ORVANE_EXPOSE(writtenRecords)
#undef ORVANE_EXPOSE

}  // namespace orvane::test
