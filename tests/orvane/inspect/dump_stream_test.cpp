// orvane dump of a stored stream.

#include <gtest/gtest.h>

#include <filesystem>

#include "support/captured.hpp"
#include "support/manifest.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

// A stream with two segments, as a server stores it.
class DumpOfAStream : public testing::Test {
 protected:
  DumpOfAStream() {
    write("manifest", first + second + last);
    write("segment-000000", "hello");
    write("segment-000001", "world!");
  }

  void write(const std::string& name, const std::string& content) const {
    writeFile(folder.path() + "/" + name, content);
  }
  Ended dump(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> command = {ORVANE_PATH, "dump", folder.path()};
    command.insert(command.end(), options.begin(), options.end());
    return run(command);
  }
  void expectDamage(const std::string& line) const {
    const Ended ended = dump();
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out, first + "  segment-000000: whole\n" + second + line + last);
    EXPECT_EQ(ended.err, "orvane dump: 1 broken file in " + folder.path() + "\n");
  }

  const TempFolder folder;
  const std::string first =
      "format=1\nqueue=orders\nstream=20261121T023224-4711_0\n"
      "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3610a686 "
      "file=segment-000000\n";
  const std::string second =
      "segment number=1 records=1 bytes=6 algorithm=0 parameters=0,0,0 crc32=718498e8 "
      "file=segment-000001\n";
  const std::string last =
      "segment number=2 records=0 bytes=0 algorithm=0 parameters=0,0,0 crc32=00000000 file=-\n"
      "other-records=0 bytes=0 crc32=00000000\nskipped=0\n"
      "receipt stream=20261121T023224-4711_0 records=2 bytes=11 segments=2 end=closed\n"
      "records=2\nbytes=11\nend=closed\nreason=\n";
};

TEST_F(DumpOfAStream, PrintsTheManifestAndWhetherEachFileIsWhole) {
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out,
            first + "  segment-000000: whole\n" + second + "  segment-000001: whole\n" + last);
  EXPECT_EQ(ended.err, "");
}

TEST_F(DumpOfAStream, FindsAFileOfAnotherSize) {
  write("segment-000001", "world");
  expectDamage("  segment-000001: damaged: it has 5 bytes instead of 6\n");
}

TEST_F(DumpOfAStream, FindsAFileWithOtherBytes) {
  write("segment-000001", "World!");
  expectDamage("  segment-000001: damaged: its checksum is 76289dde instead of 718498e8\n");
}

TEST_F(DumpOfAStream, FindsThatAFileIsMissing) {
  std::filesystem::remove(folder.path() + "/segment-000001");
  expectDamage("  segment-000001: damaged: No such file or directory: cannot read " +
               folder.path() + "/segment-000001\n");
}

TEST_F(DumpOfAStream, ChecksOtherRecordsAndWhatADeadServerLeft) {
  write("other-records", textOf(kExample).substr(8, 48) + "hello");
  write("segment-000003.part", "hello");
  write("manifest",
        "format=1\n"
        "other-records=1 bytes=5 crc32=a95909f2\n"
        "unfinished file=segment-000003.part bytes=5 crc32=3610a686\n"
        "damaged file=segment-000001 reason=it has 8 bytes instead of 9\n");

  const Ended ended = dump();

  EXPECT_EQ(ended.how, "exit 0") << ended.out;
  EXPECT_EQ(ended.out,
            "format=1\n"
            "other-records=1 bytes=5 crc32=a95909f2\n"
            "  other-records: whole\n"
            "unfinished file=segment-000003.part bytes=5 crc32=3610a686\n"
            "  segment-000003.part: whole\n"
            "damaged file=segment-000001 reason=it has 8 bytes instead of 9\n"
            "[0]: type=1, len=5, crc=103547413 (2,1,5,0,0,0,0,0,0,2864434397)\n");
}

TEST_F(DumpOfAStream, ShowsWhatIsLeftOfOtherRecords) {
  const std::string record = textOf(kExample).substr(8, 48) + "hello";
  const std::string shown = "[0]: type=1, len=5, crc=103547413 (2,1,5,0,0,0,0,0,0,2864434397)\n";
  const std::string line = "other-records=1 bytes=5 crc32=a95909f2\n  other-records: damaged: ";
  write("manifest", "format=1\nother-records=1 bytes=5 crc32=a95909f2\n");
  write("other-records", record + "x");
  EXPECT_EQ(dump().out, "format=1\n" + line + "it has 54 bytes instead of 53\n" + shown +
                            "broken: 1 byte at byte 53 belong to no record\n");
  EXPECT_EQ(dump().err, "orvane dump: 1 broken file in " + folder.path() + "\n");

  std::filesystem::remove(folder.path() + "/other-records");
  EXPECT_EQ(dump().out, "format=1\n" + line + "No such file or directory: cannot read " +
                            folder.path() + "/other-records\n");
  EXPECT_EQ(dump().err, "orvane dump: 1 broken file in " + folder.path() + "\n");
}

TEST_F(DumpOfAStream, ReportsLinesThatMakeNoSense) {
  for (const std::string line :
       {"segment number=0 records=1", "other-records=1 bytes=x", "unfinished file=segment-000000",
        "unfinished file=../segment-000000 bytes=5 crc32=3610a686"}) {
    write("manifest", "format=1\n" + line + "\n");
    const Ended ended = dump();
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out, "format=1\n" + line + "\n  damaged: this line makes no sense\n");
  }
}

TEST_F(DumpOfAStream, WithJsonIsOneObjectWithTheFactsOfTheManifest) {
  const Ended ended = dump({"--json"});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out,
            "{\"stream\":null,\"queue\":null,\"folder\":\"" + folder.path() +
                R"(","manifest":{"format":1,"queue":"orders","stream":"20261121T023224-4711_0",)"
                R"("producer":null,"label":null,"begun":null,"skipped":0,"segments":2,)"
                R"("records":2,"bytes":11,"end":"closed","ended":null,"reason":"","crc32":null},)"
                R"("damaged":[],"lines":[],"files":[)"
                R"({"segment":0,"records":1,"bytes":5,"algorithm":0,"parameters":[0,0,0],)"
                R"("crc32":"3610a686","stored":null,"file":"segment-000000","fault":null},)"
                R"({"segment":1,"records":1,"bytes":6,"algorithm":0,"parameters":[0,0,0],)"
                R"("crc32":"718498e8","stored":null,"file":"segment-000001","fault":null},)"
                R"({"segment":2,"records":0,"bytes":0,"algorithm":0,"parameters":[0,0,0],)"
                R"("crc32":"00000000","stored":null,"file":null,"fault":null}]})"
                "\n");
}

TEST_F(DumpOfAStream, WithJsonNamesWhatIsDamaged) {
  write("segment-000001", "world");
  write("manifest",
        "format=1\nqueue=orders\n" + second + "segment number=0 records=1\nreason=\"\n");

  const Ended ended = dump({"--json"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(
      ended.out,
      "{\"stream\":null,\"queue\":null,\"folder\":\"" + folder.path() +
          R"(","manifest":{"format":1,"queue":"orders","stream":null,"producer":null,"label":null,)"
          R"("begun":null,"skipped":null,"segments":null,"records":null,"bytes":null,)"
          R"("end":null,"ended":null,"reason":"\"","crc32":null},"damaged":[],"lines":[],)"
          R"("files":[)"
          R"({"segment":1,"records":1,"bytes":6,"algorithm":0,"parameters":[0,0,0],)"
          R"("crc32":"718498e8","stored":null,"file":"segment-000001",)"
          R"("fault":"it has 5 bytes instead of 6"},)"
          R"({"line":"segment number=0 records=1","fault":"this line makes no sense"}]})"
          "\n");
  EXPECT_EQ(ended.err, "orvane dump: 2 broken files in " + folder.path() + "\n");
}

TEST_F(DumpOfAStream, WithJsonHasWhatADeadServerLeft) {
  write("other-records", textOf(kExample).substr(8, 48) + "hello");
  write("segment-000003.part", "hello");
  write("manifest",
        "format=1\n"
        "a line that is not understood\n"
        "later=format\n"
        "records=many\n"
        "other-records=1 bytes=5 crc32=a95909f2\n"
        "unfinished file=segment-000003.part bytes=5 crc32=3610a686\n"
        "damaged file=segment-000001 reason=it has 8 bytes instead of 9\n");

  const Ended ended = dump({"--json"});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(
      ended.out,
      "{\"stream\":null,\"queue\":null,\"folder\":\"" + folder.path() +
          R"(","manifest":{"format":1,"queue":null,"stream":null,"producer":null,"label":null,)"
          R"("begun":null,"skipped":null,"segments":null,"records":"many","bytes":null,)"
          R"("end":null,"ended":null,"reason":null,"crc32":null,"later":"format"},)"
          R"("damaged":[{"file":"segment-000001","fault":"it has 8 bytes instead of 9"}],)"
          R"("lines":["a line that is not understood"],"files":[)"
          R"({"records":1,"bytes":5,"crc32":"a95909f2","stored":null,"file":"other-records","fault":null},)"
          R"({"bytes":5,"crc32":"3610a686","stored":null,"file":"segment-000003.part","fault":null}]})"
          "\n"
          R"({"record":0,"type":1,"len":5,"seqNo":2,"segmentNo":0,"segmentDone":0,)"
          R"("segAlg":0,"segParam1":0,"segParam2":0,"segParam3":0,"crc":103547413})"
          "\n");
}

TEST_F(DumpOfAStream, WithJsonHasTheFactsOfFormat2) {
  write("manifest",
        "format=2\nqueue=orders\nstream=20261121T023224-4711_0\n"
        "producer=uid=1000 gid=100 pid=4712 executable=my%20backup\n"
        "label=app%20log\nbegun=2026-11-21T02:32:24.123Z\n" +
            second +
            "damaged file=segment-000000 reason=it%20has%208%20bytes%20instead%20of%209\n"
            "receipt stream=20261121T023224-4711_0 records=1 bytes=6 segments=1 end=broken\n"
            "records=1\nbytes=6\nend=broken\nended=2026-11-21T02:32:31.004Z\n"
            "reason=the%20server%20died\ncrc32=c3d75005\n");

  const Ended ended = dump({"--json"});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(ended.out,
            "{\"stream\":null,\"queue\":null,\"folder\":\"" + folder.path() +
                R"(","manifest":{"format":2,"queue":"orders","stream":"20261121T023224-4711_0",)"
                R"("producer":{"uid":1000,"gid":100,"pid":4712,"executable":"my backup"},)"
                R"("label":"app log","begun":"2026-11-21T02:32:24.123Z","skipped":null,)"
                R"("segments":1,"records":1,"bytes":6,"end":"broken",)"
                R"("ended":"2026-11-21T02:32:31.004Z","reason":"the server died",)"
                R"("crc32":"c3d75005"},"damaged":[{"file":"segment-000000",)"
                R"("fault":"it has 8 bytes instead of 9"}],"lines":[],"files":[)"
                R"({"segment":1,"records":1,"bytes":6,"algorithm":0,"parameters":[0,0,0],)"
                R"("crc32":"718498e8","stored":null,"file":"segment-000001","fault":null},)"
                R"({"file":"manifest","fault":null}]})"
                "\n");
}

TEST_F(DumpOfAStream, WithJsonHasNullForWhatIsNotKnownOfAProducer) {
  write("manifest",
        withChecksum("format=2\nqueue=orders\nstream=20261121T023224-4711_0\n"
                     "producer=uid=1000 gid=100 pid=0\nbegun=2026-11-21T02:32:24.123Z\n"));
  EXPECT_TRUE(contains(dump({"--json"}).out,
                       R"(,"producer":{"uid":1000,"gid":100,"pid":null,"executable":null},)"
                       R"("label":null,"begun":"2026-11-21T02:32:24.123Z",)"));
}

// A damaged manifest must not give a key another kind of value.
TEST_F(DumpOfAStream, WithJsonShowsTheLinesAsTheyAreThatNoServerWrites) {
  write("manifest",
        "format=2\nproducer=me\nlabel=a b\nreason=a b\nfiles=none\nend=closed\nend=broken\n"
        "=\nreas");

  const Ended ended = dump({"--json"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(
      ended.out,
      "{\"stream\":null,\"queue\":null,\"folder\":\"" + folder.path() +
          R"(","manifest":{"format":2,"queue":null,"stream":null,"producer":null,"label":null,)"
          R"("begun":null,"skipped":null,"segments":null,"records":null,"bytes":null,)"
          R"("end":"closed","ended":null,"reason":null,"crc32":null,"files":"none"},)"
          R"("damaged":[],)"
          R"("lines":["producer=me","label=a b","reason=a b","end=broken","=","reas"],)"
          R"("files":[{"file":"manifest","fault":"its last line is incomplete"}]})"
          "\n");
}

TEST_F(DumpOfAStream, WithJsonHasTheIdAndTheNameInIt) {
  const TempFolder store;
  const std::string id = "backups-app.log-20261121T023225-4720_3";
  std::filesystem::create_directory(store.path() + "/" + id);
  writeFile(store.path() + "/" + id + "/manifest",
            withChecksum("format=2\nqueue=orvane-4711_0\nstream=20261121T023225-4720_3\n"
                         "producer=uid=1000 gid=100 pid=4712\nlabel=app.log\n"));
  for (const std::string& path : {store.path() + "/" + id, store.path() + "/" + id + "/."}) {
    EXPECT_TRUE(startsWith(run({ORVANE_PATH, "dump", "--json", path}).out,
                           R"({"stream":"backups-app.log-20261121T023225-4720_3",)"
                           R"("queue":"backups","folder":)"));
  }
}

// A manifest's reason may name a file in any encoding.
TEST_F(DumpOfAStream, WithJsonReplacesWhatIsNoUtf8) {
  write("manifest", "format=1\nreason=caf\xe9 \xc3\xa9\n");
  EXPECT_TRUE(contains(dump({"--json"}).out, ",\"reason\":\"caf\xef\xbf\xbd \xc3\xa9\","));
}

TEST_F(DumpOfAStream, MayNameSeveral) {
  const TempFolder empty;
  write("segment-000001", "world");
  const std::string missing = empty.path() + "/missing";

  const Ended text = dump({empty.path(), missing, folder.path()});
  const Ended json = dump({empty.path(), missing, folder.path(), "--json"});

  const std::string shown = first + "  segment-000000: whole\n" + second +
                            "  segment-000001: damaged: it has 5 bytes instead of 6\n" + last;
  const std::string name = folder.path() + ":\n";
  EXPECT_EQ(text.how, "exit 1");
  EXPECT_EQ(text.out,
            name + shown + "\n" + empty.path() + ":\n\n" + missing + ":\n\n" + name + shown);
  const std::string broken = "1 broken file in " + folder.path();
  EXPECT_EQ(text.err, "orvane dump: " + broken + "; no stream is stored in " + empty.path() +
                          ": name a folder with a manifest, such as STORE/ID; cannot open " +
                          missing + ": No such file or directory; " + broken + "\n");
  EXPECT_EQ(json.err, text.err);
  EXPECT_EQ(json.out, dump({"--json"}).out + dump({"--json"}).out);
}

TEST_F(DumpOfAStream, ChecksAManifestOfFormat2) {
  const std::string lines = "format=2\nqueue=orders\n" + second;
  const std::string shown = lines + "  segment-000001: whole\n";
  write("manifest", withChecksum(lines));
  const std::string last = withChecksum(lines).substr(lines.size());
  Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(ended.out, shown + last + "  manifest: whole\n");
  EXPECT_TRUE(dump({"--json"}).out.ends_with(",{\"file\":\"manifest\",\"fault\":null}]}\n"));

  write("manifest", lines + "crc32=00000000\n");
  ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, shown +
                           "crc32=00000000\n  manifest: damaged: the checksum of its lines is " +
                           last.substr(6, 8) + " instead of 00000000\n");
  EXPECT_EQ(ended.err, "orvane dump: 1 broken file in " + folder.path() + "\n");
  EXPECT_TRUE(
      dump({"--json"})
          .out.ends_with(",{\"file\":\"manifest\",\"fault\":\"the checksum of its lines is " +
                         last.substr(6, 8) + " instead of 00000000\"}]}\n"));
}

TEST_F(DumpOfAStream, FindsAManifestThatIsCutOffOrHasNoFormat) {
  write("manifest", "format=1\nreas");
  Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "format=1\nreas\n  manifest: damaged: its last line is incomplete\n");
  write("manifest", "queue=orders\n");
  ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out,
            "queue=orders\n  manifest: damaged: its first line does not name its format\n");
}

TEST_F(DumpOfAStream, RefusesAFormatThatIsNotKnownByItsName) {
  write("manifest", "format=3\n" + second);
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "orvane dump: format 3 is not known: " + folder.path() +
                           "/manifest was written by another release: use that one to read it\n");
}

TEST_F(DumpOfAStream, NeedsAStreamThatHasEnded) {
  std::filesystem::rename(folder.path() + "/manifest", folder.path() + "/manifest.part");
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane dump: the stream in " + folder.path() +
                           " has not ended: orvaned is storing it, or died; the next orvaned with "
                           "this store finishes it then\n");
}

TEST_F(DumpOfAStream, NeedsAStream) {
  std::filesystem::remove(folder.path() + "/manifest");
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "orvane dump: no stream is stored in " + folder.path() +
                           ": name a folder with a manifest, such as STORE/ID\n");
}

TEST_F(DumpOfAStream, FollowsNoSymbolicLink) {
  const std::string elsewhere = folder.path() + "/elsewhere";
  writeFile(elsewhere, "world!");
  std::filesystem::remove(folder.path() + "/segment-000001");
  std::filesystem::create_symlink(elsewhere, folder.path() + "/segment-000001");
  expectDamage("  segment-000001: damaged: Too many levels of symbolic links: cannot read " +
               folder.path() + "/segment-000001\n");

  std::filesystem::rename(folder.path() + "/manifest", elsewhere);
  std::filesystem::create_symlink(elsewhere, folder.path() + "/manifest");
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane dump: Too many levels of symbolic links: cannot read " +
                           folder.path() + "/manifest\n");
}

TEST(DumpOfAStoredStream, FindsAllOfItWhole) {
  Server server;
  ASSERT_EQ(
      run(server.sendCommand({"--segment-size", "100000", "-"}), std::string(250000, 'x')).how,
      "exit 0");

  const Ended ended = run({ORVANE_PATH, "dump", server.streams().at(0)});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(contains(ended.out, "\n  segment-000000: whole\n"));
  EXPECT_TRUE(contains(ended.out, "\n  segment-000002: whole\n"));
  EXPECT_TRUE(contains(ended.out, "\nend=closed\n"));
}

}  // namespace
}  // namespace orvane::test
