// orvane dump of a capture and of a batch, and examples/read_batches.py, which prints the same.

#include <gtest/gtest.h>

#include <queue/message_queue.hpp>
#include <sstream>

#include "support/captured.hpp"
#include "support/eventually.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

class Dump : public testing::Test {
 protected:
  Ended dump(const std::string& content, const std::vector<std::string>& options = {}) const {
    writeFile(file, content);
    std::vector<std::string> command = {ORVANE_PATH, "dump", file};
    command.insert(command.end(), options.begin(), options.end());
    return run(command);
  }

  // What the reader in Python prints of the same file.
  Ended readInPython() const { return run({PYTHON_PATH, READ_BATCHES_PATH, file}); }

  // Of a capture with one message that is no batch. The Python reader has its own words for it.
  void expectBroken(const Bytes& message, const std::string& reason,
                    const std::string& pythonsReason) const {
    const std::string first = "message 0, queue orders, " + std::to_string(message.size()) +
                              (message.size() == 1 ? " byte" : " bytes") + "\nbroken: ";
    const Ended ended = dump(captured("orders", message));
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_TRUE(startsWith(ended.out, first + reason + "\n     0 "));
    EXPECT_EQ(ended.err, "orvane dump: 1 broken message in " + file + "\n");
    const Ended inPython = readInPython();
    EXPECT_EQ(inPython.how, "exit 1");
    EXPECT_EQ(inPython.out, first + pythonsReason + "\n");
  }

  const TempFolder folder;
  const std::string file = folder.path() + "/capture";
  const std::string example = textOf(kExample);
};

TEST_F(Dump, OfABatchPrintsTheLibrarysTexts) {
  const Ended ended = dump(example);
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, std::string("message 0, 109 bytes\n") + kExampleText);
  EXPECT_EQ(ended.err, "");
}

TEST_F(Dump, OfACaptureNamesTheQueueOfEachMessage) {
  const std::string content =
      captured("orders", kExample) + captured("other", BatchBytes().bytes());
  const std::string expected = std::string("message 0, queue orders, 109 bytes\n") + kExampleText +
                               "message 1, queue other, 8 bytes\n"
                               "ShmBatch: entries=0, bufferSize=8, used=8\n";
  const Ended ended = dump(content);
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, expected);

  EXPECT_EQ(run({ORVANE_PATH, "dump", "-"}, content).out, expected);
  EXPECT_EQ(readInPython().how, "exit 0");
  EXPECT_EQ(readInPython().out, expected);
}

TEST_F(Dump, IsWhatTheFormatsDescriptionShows) {
  const std::string description = readFile(FORMAT_PATH);
  EXPECT_TRUE(contains(description, dump(captured("orders", kExample)).out));
  // The description's table of the same bytes: an offset, the bytes, and words.
  Bytes shown;
  std::istringstream lines(description.substr(description.find("byte by byte")));
  for (std::string line; std::getline(lines, line);) {
    if (matches(line.substr(0, 8), " *[0-9]+  ")) {
      const Bytes more = hex(line.substr(8, line.find("    ", 8) - 8));
      shown.insert(shown.end(), more.begin(), more.end());
    }
  }
  EXPECT_EQ(shown, kExample);
}

TEST_F(Dump, WithJsonPrintsOneObjectALine) {
  const Ended ended = dump(captured("orders", kExample) + captured("o", BatchBytes().bytes()) +
                               captured("o", bytesOf("rub")) + "ish",
                           {"--json"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out,
            "{\"message\":0,\"queue\":\"orders\",\"bytes\":109,\"records\":["
            "{\"type\":1,\"len\":5,\"seqNo\":2,\"segmentNo\":0,\"segmentDone\":0,"
            "\"segAlg\":0,\"segParam1\":0,\"segParam2\":0,\"segParam3\":0,\"crc\":103547413},"
            "{\"type\":2,\"len\":0,\"seqNo\":3,\"segmentNo\":0,\"segmentDone\":0,"
            "\"segAlg\":0,\"segParam1\":0,\"segParam2\":0,\"segParam3\":0,\"crc\":null}]}\n"
            "{\"message\":1,\"queue\":\"o\",\"bytes\":8,\"records\":[]}\n"
            "{\"message\":2,\"queue\":\"o\",\"bytes\":3,\"broken\":\"Buffer size 3 is invalid "
            "because it is smaller than the minimum required buffer size of 8\",\"start\":"
            "\"727562\"}\n"
            "{\"stray\":3,\"offset\":176,\"start\":\"697368\"}\n");
  EXPECT_EQ(ended.err, "orvane dump: 2 broken messages in " + file + "\n");
  EXPECT_TRUE(startsWith(dump(example, {"--json"}).out, "{\"message\":0,\"queue\":null,"));
}

TEST_F(Dump, OfAFileOfRecordsPrintsEachOfThem) {
  const std::string records = example.substr(8);
  const Ended ended = dump(records);
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, std::string(kExampleText).substr(std::string(kExampleText).find('[')));
  EXPECT_EQ(ended.err, "");

  EXPECT_EQ(dump(records, {"--json"}).out,
            "{\"record\":0,\"type\":1,\"len\":5,\"seqNo\":2,\"segmentNo\":0,\"segmentDone\":0,"
            "\"segAlg\":0,\"segParam1\":0,\"segParam2\":0,\"segParam3\":0,\"crc\":103547413}\n"
            "{\"record\":1,\"type\":2,\"len\":0,\"seqNo\":3,\"segmentNo\":0,\"segmentDone\":0,"
            "\"segAlg\":0,\"segParam1\":0,\"segParam2\":0,\"segParam3\":0,\"crc\":null}\n");
}

// A full disk leaves no part of a record, but a killed server may.
TEST_F(Dump, OfAFileOfRecordsTellsWhatIsNoRecord) {
  const std::string record = example.substr(8, 53);
  const std::string shown = "[0]: type=1, len=5, crc=103547413 (2,1,5,0,0,0,0,0,0,2864434397)\n";
  for (const std::string& rest : {std::string("x"), record.substr(0, 47), record.substr(0, 52),
                                  std::string(48, 'x') + record}) {
    const std::string size = std::to_string(rest.size());
    std::string printed = shown;
    printed.append("broken: ").append(size).append(rest.size() == 1 ? " byte" : " bytes");
    printed.append(" at byte 53 belong to no record\n");
    const Ended ended = dump(record + rest);
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out, printed);
    EXPECT_EQ(ended.err, "orvane dump: 1 broken record in " + file + "\n");
    EXPECT_TRUE(dump(record + rest, {"--json"})
                    .out.ends_with("}\n{\"stray\":" + size + ",\"offset\":53}\n"));
  }
}

TEST_F(Dump, OfTheRecordsOutsideAStreamIsThatOfTheirTypes) {
  Server server;
  boost::interprocess::message_queue queue(boost::interprocess::open_only, server.queue().c_str());
  queue.send(kExample.data(), kExample.size(), 1);
  const std::string outside = server.store() + "/" + server.queue() + "-outside-records";
  ASSERT_TRUE(eventually(
      [&] { return namesIn(server.store()).size() == 1 && readFile(outside).size() == 101; }));
  EXPECT_EQ(run({ORVANE_PATH, "dump", outside}).out,
            std::string(kExampleText).substr(std::string(kExampleText).find('[')));
}

TEST_F(Dump, ShowsABrokenMessageAndGoesOn) {
  const Ended ended =
      dump(captured("orders", bytesOf("this is no batch!")) + captured("orders", kExample));
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, std::string("message 0, queue orders, 17 bytes\n"
                                   "broken: Could not deserialize ShmBatch::MetaData from buffer "
                                   "because the magic value 1952999795 is corrupt "
                                   "(expected=4278251025)\n"
                                   "     0  74 68 69 73 20 69 73 20 6e 6f 20 62 61 74 63 68\n"
                                   "    16  21\n"
                                   "message 1, queue orders, 109 bytes\n") +
                           kExampleText);
  EXPECT_EQ(ended.err, "orvane dump: 1 broken message in " + file + "\n");
}

TEST_F(Dump, ShowsTheFirst64BytesOfABrokenMessage) {
  const Ended ended = dump(captured("orders", Bytes(500, 0xab)));
  EXPECT_TRUE(ended.out.ends_with("\n    48  ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab ab\n"))
      << ended.out;
}

TEST_F(Dump, TellsWhatIsWrongWithABatch) {
  const Record record{.type = 1, .seqNo = 2, .data = bytesOf("hello")};
  const BatchBytes batch = BatchBytes().records({record});
  expectBroken(bytesOf("x"),
               "Buffer size 1 is invalid because it is smaller than the minimum required buffer "
               "size of 8",
               "it does not begin as a batch");
  expectBroken(BatchBytes(batch).put32(0, 1).bytes(),
               "Could not deserialize ShmBatch::MetaData from buffer because the magic value 1 is "
               "corrupt (expected=4278251025)",
               "it does not begin as a batch");
  expectBroken(BatchBytes(batch).put32(52, 1).bytes(),
               "Could not deserialize pvk_shm_message from buffer because the magic value 1 is "
               "corrupt (expected=2864434397)",
               "record 0 has no magic word at byte 52");
  expectBroken(BatchBytes(batch).put32(12, 6).bytes(),
               "Could not read batch entry 0 at offset 8 because its data needs 6 bytes but only 5 "
               "are there",
               "record 0 has 5 of 6 bytes of data");
  expectBroken(BatchBytes(batch).put32(4, 2).bytes(),
               "Could not read batch because its 2 entries need at least 96 bytes but only 53 are "
               "there",
               "record 1 has no room for a header at byte 61");
  expectBroken(BatchBytes(batch).append(bytesOf("more")).bytes(),
               "Could not read batch because 4 bytes are left over behind its 1 entries at offset "
               "61",
               "4 bytes are left over");
}

TEST_F(Dump, SkipsWhatBelongsToNoMessage) {
  // The third one is torn, as by a server that was killed while it wrote.
  const std::string content = captured("orders", kExample) + "stray" +
                              captured("orders", kExample) +
                              captured("orders", kExample).substr(0, 40);
  const std::string first = std::string("message 0, queue orders, 109 bytes\n") + kExampleText +
                            "broken: 5 bytes at byte 131 belong to no message\n";
  const std::string second = std::string("message 1, queue orders, 109 bytes\n") + kExampleText +
                             "broken: 40 bytes at byte 267 belong to no message\n";

  const Ended ended = dump(content);

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, first + "     0  73 74 72 61 79\n" + second +
                           "     0  4f 52 56 43 00 00 00 06 00 00 00 00 00 00 00 6d\n"
                           "    16  6f 72 64 65 72 73 ff 00 ee 11 00 00 00 02 00 00\n"
                           "    32  00 01 00 00 00 05 00 00\n");
  EXPECT_EQ(ended.err, "orvane dump: 2 broken messages in " + file + "\n");
  EXPECT_EQ(readInPython().how, "exit 1");
  EXPECT_EQ(readInPython().out, first + second);
}

// A message that a full disk or a kill cut short, at any byte, with whole ones after it.
// A message, a part of one, and three more.
std::string captureWith(const std::string& message, std::size_t torn) {
  std::string capture = message;
  capture.append(message, 0, torn);
  for (int whole = 0; whole < 3; ++whole) {
    capture.append(message);
  }
  return capture;
}

TEST_F(Dump, LosesNothingButTheMessageThatIsTorn) {
  const std::string whole = captured("orders", kExample);
  const std::string text = std::string(", queue orders, 109 bytes\n") + kExampleText;
  for (const std::size_t size : {5U, 15U, 16U, 18U, 22U, 40U, 130U}) {
    const Ended ended = dump(captureWith(whole, size));
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.err, "orvane dump: 1 broken message in " + file + "\n");
    std::string first = "message 0";
    first.append(text).append("broken: ").append(std::to_string(size));
    first.append(" bytes at byte 131 belong to no message\n");
    std::string rest;
    for (const char* message : {"message 1", "message 2", "message 3"}) {
      rest.append(message).append(text);
    }
    EXPECT_TRUE(startsWith(ended.out, first)) << size << ": " << ended.out;
    EXPECT_TRUE(ended.out.ends_with("\n" + rest)) << size << ": " << ended.out;
    EXPECT_EQ(readInPython().out, first + rest) << size;
  }
}

// A message may itself hold a capture, as a producer sends one: a batch is taken as it is.
TEST_F(Dump, TakesACaptureWithinABatchForData) {
  const std::string inner = captured("other", kExample) + captured("other", kExample);
  const Bytes batch = BatchBytes().records({{.type = 1, .data = bytesOf(inner)}}).bytes();
  const Ended ended = dump(captured("orders", batch) + "torn" + captured("orders", kExample));
  EXPECT_EQ(ended.err, "orvane dump: 1 broken message in " + file + "\n");
  EXPECT_TRUE(startsWith(ended.out, "message 0, queue orders, 316 bytes\n")) << ended.out;
  EXPECT_TRUE(
      ended.out.ends_with(std::string("message 1, queue orders, 109 bytes\n") + kExampleText))
      << ended.out;
}

TEST_F(Dump, ShowsAMessageThatIsNoBatchBetweenOthers) {
  const std::string whole = captured("orders", kExample);
  const Ended ended = dump(whole + captured("orders", bytesOf("rubbish!")) + whole);
  EXPECT_EQ(ended.err, "orvane dump: 1 broken message in " + file + "\n");
  EXPECT_TRUE(contains(ended.out, "message 1, queue orders, 8 bytes\n"));
  EXPECT_TRUE(contains(ended.out, "message 2, queue orders, 109 bytes\n"));
}

TEST_F(Dump, BelievesNoHeaderThatNoServerWrites) {
  const std::string good = captured("orders", kExample);
  const std::string longName = captured(std::string(201, 'q'), kExample);
  std::string longMessage = good;
  longMessage[10] = 1;
  std::string blankInName = good;
  blankInName[17] = ' ';
  for (const std::string& bad : {longName, longMessage, blankInName}) {
    const Ended ended = dump(bad + good);
    EXPECT_EQ(ended.how, "exit 1");
    const std::string first =
        "broken: " + std::to_string(bad.size()) + " bytes at byte 0 belong to no message\n";
    const std::string second = std::string("message 0, queue orders, 109 bytes\n") + kExampleText;
    EXPECT_TRUE(startsWith(ended.out, first));
    EXPECT_TRUE(ended.out.ends_with(second)) << ended.out;
    EXPECT_EQ(readInPython().out, first + second);
  }
}

TEST_F(Dump, OfAnEmptyCapturePrintsNothing) {
  const Ended ended = dump("");
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out + ended.err, "");
  EXPECT_EQ(readInPython().how, "exit 0");
  EXPECT_EQ(readInPython().out, "");
}

TEST_F(Dump, OfWhatARealServerCapturedIsWhatThePythonReaderPrints) {
  Server server({"--capture", file});
  EXPECT_EQ(run(server.sendCommand({"--segment-size", "100000", "-", ORVANE_PATH}), "data").how,
            "exit 0");

  const Ended ended = run({ORVANE_PATH, "dump", file});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "message 0, queue " + server.queue() +
                                        ", 56 bytes\n"
                                        "ShmBatch: entries=1, bufferSize=56, used=56\n"
                                        "[0]: type=0, len=0 (0,0,0,0,0,1,0,0,0,2864434397)\n"
                                        "message 1, queue "));
  EXPECT_TRUE(contains(ended.out, "[0]: type=1, len=4, crc=67109275 (2,1,4,0,0,0,0,0,0,"));
  EXPECT_EQ(readInPython().how, "exit 0");
  EXPECT_EQ(readInPython().out, ended.out);
}

TEST_F(Dump, EndsQuietlyWhenNobodyReadsOn) {
  std::string content;
  for (int i = 0; i < 5000; ++i) {
    content += captured("orders", kExample);
  }
  writeFile(file, content);

  const Ended ended = run(
      {"bash", "-c", R"("$0" dump "$1" | head -n 1; echo "${PIPESTATUS[0]}")", ORVANE_PATH, file});

  EXPECT_EQ(ended.out, "message 0, queue orders, 109 bytes\n141\n");
  EXPECT_EQ(ended.err, "");
}

TEST_F(Dump, ReportsOutputThatCannotBeWritten) {
  writeFile(file, example);
  const Ended ended = run({"bash", "-c", R"("$0" dump "$1" > /dev/full)", ORVANE_PATH, file});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane dump: cannot write all of it: No space left on device\n");
}

TEST_F(Dump, ReportsAMissingFile) {
  const Ended ended = run({ORVANE_PATH, "dump", file});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane dump: cannot open " + file + ": No such file or directory\n");
  EXPECT_EQ(run({ORVANE_PATH, "dump"}).how, "exit 2");
}

}  // namespace
}  // namespace orvane::test
