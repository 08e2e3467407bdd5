#include "toolbox/BlobClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "platform/files/testing/TemporaryDirectory.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "toolbox/testing/messageMethods.h"

namespace parallel::toolbox {
namespace {

using digest::Digest;

class BlobClientTest : public testing::Test {
 protected:
  BlobClientTest() { holder_.set_key("job"); }

  std::shared_ptr<agent::spf::core::Service> makeService() {
    auto service = std::make_shared<agent::spf::core::Service>();
    blobs_.addTo(*service);
    return service;
  }
  std::string path(const std::string& name) const { return files_.file(name).string(); }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }
  std::string read(const std::string& name) const {
    std::ostringstream bytes;
    bytes << std::ifstream(path(name), std::ios::binary).rdbuf();
    return bytes.str();
  }
  static zksmessages::Blob named(const std::string& bytes) {
    zksmessages::Blob blob = LocalBlob::ofBytes(bytes).described();
    blob.clear_content();
    return blob;
  }

  files::testing::TemporaryDirectory files_;
  MemoryBlobs blobs_;
  Connection connection_{agent::spf::inprocess::connectInProcess(makeService()), "embedded"};
  SchedulerClient client_{connection_};
  BlobClient blobClient_{client_};
  zksmessages::BlobHolder holder_;
};

TEST_F(BlobClientTest, FilesAndBytesAreNamedByWhatIsInThem) {
  const std::string bytes(100'000, 'x');
  const LocalBlob file = LocalBlob::ofFile(write("in", bytes));
  EXPECT_EQ(file.digest(), Digest::of(bytes));
  EXPECT_EQ(file.nbytes(), bytes.size());
  EXPECT_EQ(file.digest(), LocalBlob::ofBytes(bytes).digest());
  EXPECT_FALSE(file.described().has_content());
  EXPECT_EQ(LocalBlob::ofFile(write("small", "abc")).described().content(), "abc");
}

TEST_F(BlobClientTest, OnlyWhatIsMissingIsPut) {
  blobs_.add("known");
  const std::string large(3'000'000, 'l');
  blobClient_.putMissing(holder_, {LocalBlob::ofBytes("known"), LocalBlob::ofFile(write("large", large)),
                                   LocalBlob::ofBytes("new"), LocalBlob::ofBytes("new")});
  EXPECT_EQ(blobs_.puts(), 2U);
  EXPECT_TRUE(blobs_.has(large));
  EXPECT_TRUE(blobs_.has("new"));
}

TEST_F(BlobClientTest, ACutPutGoesOnWhereItEnded) {
  const std::string bytes = "the beginning and the end";
  const LocalBlob blob = LocalBlob::ofFile(write("in", bytes));
  blobs_.addPart(std::string(blob.digest().bytes()), bytes.substr(0, 13));
  blobClient_.putMissing(holder_, {blob});
  EXPECT_TRUE(blobs_.has(bytes));
}

TEST_F(BlobClientTest, AFileThatShrankIsNotPut) {
  const LocalBlob blob = LocalBlob::ofFile(write("in", "some bytes"));
  write("in", "some");
  EXPECT_ANY_THROW(blobClient_.putMissing(holder_, {blob}));
  EXPECT_FALSE(blobs_.has("some bytes"));
  EXPECT_FALSE(blobs_.has("some"));
}

TEST_F(BlobClientTest, ABlobComesIntoAFile) {
  const std::string bytes(200'000, 'b');
  blobs_.add(bytes);
  blobClient_.getFile(named(bytes), path("out"));
  EXPECT_EQ(read("out"), bytes);
}

TEST_F(BlobClientTest, ContentInTheMessageIsNotAskedFor) {
  blobClient_.getFile(LocalBlob::ofBytes("here").described(), path("out"));
  EXPECT_EQ(read("out"), "here");
  EXPECT_EQ(blobs_.gets(), 0U);
}

TEST_F(BlobClientTest, OtherBytesAreAnErrorAndNoFile) {
  const std::string name = blobs_.add("right");
  blobs_.replace(name, "wrong");
  EXPECT_THAT([&] { blobClient_.getFile(named("right"), path("out")); },
              testing::ThrowsMessage<std::exception>(testing::HasSubstr("bytes whose SHA-256 is")));
  blobs_.replace(name, "righ");
  EXPECT_THAT([&] { blobClient_.getFile(named("right"), path("out")); },
              testing::ThrowsMessage<std::exception>(testing::HasSubstr("4 bytes, where 5 were told")));
  EXPECT_FALSE(std::filesystem::exists(path("out")));
}

}  // namespace
}  // namespace parallel::toolbox
