#include "tarninventory/src/localinventory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/fake/fake_platform.h"
#include "platform/file/file_util.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

class CountingTransport final : public HttpTransport {
 public:
  explicit CountingTransport(int& sent) : sent_(sent) {}
  HttpResult Send(const HttpRequest&) override {
    ++sent_;
    return {HttpResponse{200, {}, "ok"}, std::nullopt};
  }

 private:
  int& sent_;
};

TEST(LocalInventoryTest, WithoutNetworkKeepsToolsAndHostButSendsNothing) {
  int sent = 0;
  auto tools = std::make_unique<FakeToolRunner>();
  tools->Answer("/usr/bin/sw_vers", {"-productVersion"}, "14.4\n");
  auto host = std::make_unique<FakeHostInfo>();
  host->hostName = "office-mac.local";
  std::unique_ptr<Platform> offline = WithoutNetwork(std::make_unique<Platform>(
      std::move(tools), std::move(host), std::make_unique<CountingTransport>(sent)));

  EXPECT_EQ(offline->Tools().Run("/usr/bin/sw_vers", {"-productVersion"}, WaitPolicy::kBounded),
            "14.4\n");
  EXPECT_EQ(offline->Host().HostName(), "office-mac.local");
  HttpRequest request;
  request.url = "http://127.0.0.1:1/inventory";
  const HttpResult answer = offline->Http().Send(request);
  EXPECT_FALSE(answer.response);
  EXPECT_TRUE(answer.error);
  EXPECT_EQ(sent, 0);
}

TEST(LocalInventoryTest, DocumentNamesAreOnePlainFileName) {
  std::tm noon{};
  noon.tm_year = 124;
  noon.tm_mon = 1;
  noon.tm_mday = 3;
  noon.tm_hour = 12;
  noon.tm_min = 4;
  noon.tm_sec = 5;
  noon.tm_isdst = -1;
  const std::time_t when = std::mktime(&noon);
  EXPECT_EQ(LocalDocumentName("office-mac", when, "full.xml"), "office-mac-20240203-120405-full.xml");
  EXPECT_EQ(LocalDocumentName("../Alice's Mac/x", when, "diff.json"),
            "___Alice_s_Mac_x-20240203-120405-diff.json");
  EXPECT_EQ(LocalDocumentName("", when, "full.xml"), "computer-20240203-120405-full.xml");
  EXPECT_TRUE(IsPlainFileName(LocalDocumentName("..", when, "full.xml")));
}

TEST(LocalInventoryTest, DocumentsAreNewPrivateFilesAndNeverFollowALink) {
  const fs::path root = fs::temp_directory_path() / ("local-docs-" + std::to_string(getpid()));
  fs::remove_all(root);
  fs::create_directories(root);
  const fs::path folder = root / "out";

  // A missing folder is made, private.
  const auto written = WriteLocalDocument(folder.string(), "a.xml", "<doc/>");
  ASSERT_EQ(written, (folder / "a.xml").string());
  EXPECT_EQ(ReadWholeFile(*written), "<doc/>");
  struct stat status {};
  ASSERT_EQ(::stat(written->c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);

  // An existing file stays as it was.
  EXPECT_FALSE(WriteLocalDocument(folder.string(), "a.xml", "other"));
  EXPECT_EQ(ReadWholeFile(*written), "<doc/>");

  // A link, even to a missing file, is not followed.
  std::ofstream(root / "target") << "kept";
  fs::create_symlink(root / "target", folder / "b.xml");
  fs::create_symlink(root / "missing", folder / "c.xml");
  EXPECT_FALSE(WriteLocalDocument(folder.string(), "b.xml", "x"));
  EXPECT_FALSE(WriteLocalDocument(folder.string(), "c.xml", "x"));
  EXPECT_EQ(ReadWholeFile((root / "target").string()), "kept");
  EXPECT_FALSE(fs::exists(root / "missing"));
  fs::remove_all(root);
}

}  // namespace
}  // namespace tarn
