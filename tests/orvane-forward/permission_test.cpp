#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>

#include "orvane-forward/forwarding.hpp"
#include "support/eventually.hpp"
#include "support/text.hpp"

namespace orvane::test::permissions {
namespace {

namespace fs = std::filesystem;

// The permissions that docs/operations.md lists.
constexpr char kUsers[] = R"(
authorization: {
  users: [
    { user: admin, password: admin }
    { user: forward, password: secret, permissions: {
        publish: ["orvane.1.host.>", "$JS.API.STREAM.INFO.orvane"]
        subscribe: ["_INBOX.orvane.host.>"] } }
    { user: verify, password: secret, permissions: {
        publish: ["orvane.1.host.>", "$JS.API.STREAM.INFO.orvane", "$JS.API.STREAM.MSG.GET.orvane"]
        subscribe: ["_INBOX.orvane.host.>"] } }
    { user: reader, password: secret, permissions: {
        publish: ["$JS.API.STREAM.INFO.orvane", "$JS.API.STREAM.MSG.GET.orvane",
                  "$JS.API.CONSUMER.CREATE.orvane", "$JS.API.CONSUMER.DELETE.orvane.>", "$JS.FC.>"]
        subscribe: ["_INBOX.orvane.reader.>"] } }
  ]
}
)";

class Permission : public Forwarding {
 protected:
  Permission() : Forwarding(kUsers) { makeStream(""); }

  // A file with credentials that only its owner may read.
  std::string credentials(const std::string& content) const {
    std::string file = fetched.path() + "/credentials";
    writeFile(file, content);
    chmod(file.c_str(), 0600);
    return file;
  }
};

TEST_F(Permission, ToPublishOnTheHostsSubjectsIsEnoughToForward) {
  writeStream(kFirst);
  const Ended ended = forwardAll({"--creds", credentials("forward:secret\n")});
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(messages(), 3);
}

TEST_F(Permission, OfOneHostIsNoneForAnother) {
  writeStream(kFirst);
  std::vector<std::string> command =
      forwardCommand({"--once", "--timeout", "60", "--creds", credentials("forward:secret\n")});
  command[6] = "other";
  const Ended ended = run(command);
  EXPECT_EQ(ended.how, "exit 2") << ended.err;
  EXPECT_TRUE(contains(ended.err, "the servers refuse what this user does: "));
  EXPECT_EQ(messages(), 0);
}

TEST_F(Permission, ToReadIsNeededToVerify) {
  writeStream(kFirst);
  EXPECT_EQ(forwardAll({"--verify", "--creds", credentials("forward:secret")}).how, "exit 2");
  const Ended ended = forwardAll({"--verify", "--creds", credentials("verify:secret")});
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
}

TEST_F(Permission, OfAReaderIsEnoughToListAndFetch) {
  writeStream(kFirst);
  ASSERT_EQ(forwardAll({"--creds", credentials("forward:secret")}).how, "exit 0");
  const std::string file = credentials("reader:secret");

  const Ended listed = list({"--creds", file});
  EXPECT_EQ(listed.how, "exit 0") << listed.err;
  EXPECT_TRUE(contains(listed.out, kFirstName));
  const Ended ended = fetch(kFirstName, fetched.path() + "/stream", {"--creds", file});
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  expectSame(kFirst, fetched.path() + "/stream");
}

TEST_F(Permission, IsRefusedToWrongCredentials) {
  const Ended ended = forwardAll({"--creds", credentials("forward:wrong")});
  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_TRUE(contains(ended.err, "the servers refuse the credentials"));
  EXPECT_FALSE(contains(ended.err, "wrong\n"));
  EXPECT_EQ(list({"--creds", credentials("reader:wrong")}).err,
            "orvane streams: the servers refuse the credentials\n");
}

TEST_F(Permission, ThatIsRevokedEndsTheProgram) {
  Process forward(forwardCommand({"--creds", credentials("forward:secret")}));
  ASSERT_TRUE(eventually([&] { return contains(forward.errorOutput(), "can be used"); }));
  nats.configure("authorization: { users: [ { user: admin, password: admin } ] }");
  nats.reload();
  writeStream(kFirst);
  const Ended ended = forward.wait();

  EXPECT_EQ(ended.how, "exit 2") << ended.err;
  EXPECT_FALSE(isMarked(kFirst));
  EXPECT_FALSE(contains(ended.err, "secret"));
}

TEST_F(Permission, IsInAFileThatNobodyElseMayRead) {
  const std::string file = credentials("forward:secret");
  chmod(file.c_str(), 0640);
  const Ended ended = forwardAll({"--creds", file});
  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_TRUE(contains(ended.err, "others may read " + file));

  EXPECT_TRUE(contains(forwardAll({"--creds", credentials("no password")}).err,
                       "no credentials are in " + file));
  fs::remove(file);
  EXPECT_TRUE(contains(forwardAll({"--creds", file}).err,
                       "No such file or directory: cannot read " + file));
}

// Several groups of machines share servers without sharing a stream.
constexpr char kAccounts[] = R"(
accounts: {
  one: { jetstream: enabled, users: [ { user: one, password: secret } ] }
  two: { jetstream: enabled, users: [ { user: two, password: secret } ] }
}
)";

class Account : public Forwarding {
 protected:
  Account() : Forwarding(kAccounts) {}

  std::vector<std::string> as(const std::string& user) const {
    const std::string file = fetched.path() + "/" + user;
    writeFile(file, user + ":secret\n");
    chmod(file.c_str(), 0600);
    return {"--creds", file};
  }
};

TEST_F(Account, HasAStreamOfItsOwn) {
  writeStream(kFirst);
  ASSERT_EQ(forwardAll(as("one")).how, "exit 0");
  fs::remove_all(path(kFirst));
  writeStream(kSecond);
  ASSERT_EQ(forwardAll(as("two")).how, "exit 0");

  const std::string ofOne = list(as("one")).out;
  EXPECT_TRUE(contains(ofOne, kFirst)) << ofOne;
  EXPECT_FALSE(contains(ofOne, kSecond)) << ofOne;
  const std::string ofTwo = list(as("two")).out;
  EXPECT_FALSE(contains(ofTwo, kFirst)) << ofTwo;
  EXPECT_TRUE(contains(ofTwo, kSecond)) << ofTwo;
}

// Makes an authority and the certificates of a server and a client that it signs.
constexpr char kCertificates[] = R"(
set -e
cd "$1"
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj /CN=authority
for name in server client; do
  openssl req -newkey rsa:2048 -nodes -keyout $name.key -out $name.csr -subj /CN=$name
  printf 'subjectAltName=IP:127.0.0.1\n' > $name.ext
  openssl x509 -req -in $name.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out $name.pem \
    -days 2 -extfile $name.ext
done
chmod 600 client.key
)";

TEST(Encryption, NeedsTheCertificatesOfBothSides) {
  const TempFolder folder;
  const std::string& at = folder.path();
  const Ended made = run({"/bin/sh", "-c", kCertificates, "sh", at});
  ASSERT_EQ(made.how, "exit 0") << made.err;
  std::filesystem::create_directory(at + "/store");
  const NatsServer nats("tls { cert_file: \"" + at + "/server.pem\", key_file: \"" + at +
                        "/server.key\", ca_file: \"" + at + "/ca.pem\", verify: true }");
  const std::vector<std::string> command = {ORVANE_FORWARD_PATH, "--store", at + "/store", "--nats",
                                            nats.url(),          "--once",  "--timeout",   "60"};
  std::vector<std::string> encrypted = command;
  encrypted.insert(encrypted.end(), {"--tls-ca", at + "/ca.pem", "--tls-cert", at + "/client.pem",
                                     "--tls-key", at + "/client.key"});

  EXPECT_EQ(run(encrypted).how, "exit 0");
  const Ended plain = run(command);
  EXPECT_EQ(plain.how, "exit 2") << plain.err;
}

}  // namespace
}  // namespace orvane::test::permissions
