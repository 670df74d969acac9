#include "subjects.hpp"

#include <gtest/gtest.h>

namespace forward {
namespace {

const StreamName kName = {"host.example", "orders", "orders-20261121T023224-4711_0"};

TEST(Token, KeepsLettersDigitsAndTwoMarks) {
  EXPECT_EQ(tokenOf("aZ09_-"), "aZ09_-");
  EXPECT_EQ(textIn("aZ09_-"), "aZ09_-");
}

TEST(Token, EscapesAllOtherBytes) {
  EXPECT_EQ(tokenOf("a.b"), "a%2Eb");
  EXPECT_EQ(tokenOf("*>% \t"), "%2A%3E%25%20%09");
  EXPECT_EQ(tokenOf("\xc3\xa9"), "%C3%A9");
  EXPECT_EQ(tokenOf(std::string(1, '\0')), "%00");
  EXPECT_EQ(tokenOf(""), "%");
}

TEST(Token, OfEachByteIsReadAgain) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = "a" + std::string(1, static_cast<char>(byte)) + "b";
    EXPECT_EQ(textIn(tokenOf(text)), text) << byte;
  }
  EXPECT_EQ(textIn("%"), "");
}

TEST(Token, HasOneFormOnly) {
  for (const char* const token : {"", "%2e", "%2", "a%", "%61", "a.b", "a b", "%G0", "%%"}) {
    EXPECT_EQ(textIn(token), std::nullopt) << token;
  }
}

TEST(Subject, OfAChunkSaysWhatItIs) {
  EXPECT_EQ(chunkSubject(kName, "segment-000000.part", 983040, 12),
            "orvane.1.host%2Eexample.orders.orders-20261121T023224-4711_0."
            "segment-000000%2Epart.983040-12");
  EXPECT_EQ(parseSubject(chunkSubject(kName, "other-records", 0, 48)),
            (ChunkName{kName, "other-records", 0, 48, false}));
}

TEST(Subject, OfTheManifestsEndIsShorter) {
  EXPECT_EQ(manifestSubject(kName),
            "orvane.1.host%2Eexample.orders.orders-20261121T023224-4711_0.manifest");
  EXPECT_EQ(parseSubject(manifestSubject(kName)), (ChunkName{kName, "manifest", 0, 0, true}));
}

TEST(Subject, OfAnotherFormIsNone) {
  for (const char* const subject :
       {"", "orvane.1.h.q.s", "orvane.1.h.q.s.segment-000000", "orvane.2.h.q.s.manifest",
        "other.1.h.q.s.manifest", "orvane.1.h.q.s.f.0-1.x", "orvane.1.h.q.s.f.0",
        "orvane.1.h.q.s.f.-1", "orvane.1.h.q.s.f.00-1", "orvane.1.h.q.s.f.0-1-2",
        "orvane.1.h.q.s.f.0-x", "orvane.1.h.q.s.f.0-18446744073709551616",
        "orvane.1..q.s.manifest"}) {
    EXPECT_EQ(parseSubject(subject), std::nullopt) << subject;
  }
}

TEST(StreamNameText, HasThreeParts) {
  EXPECT_EQ(parseStreamName("h/q/s"), (StreamName{"h", "q", "s"}));
  EXPECT_EQ(parseStreamName("h//s"), (StreamName{"h", "", "s"}));
  EXPECT_EQ(textOf(StreamName{"h", "q", "s"}), "h/q/s");
  for (const char* const text : {"", "h", "h/q", "h/q/", "/q/s", "h/q/s/x"}) {
    EXPECT_EQ(parseStreamName(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace forward
