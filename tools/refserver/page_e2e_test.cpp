// The pages as a browser shows them, after a full and a difference scan: headless
// Chromium dumps the computer page's DOM, then lays both pages out as a phone and as a
// desktop and takes screenshots, kept in the build directory for a person to look at
// (page-screenshots/ beside the test program).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/refserver/e2e_util.h"
#include "tools/refserver/headless_chromium.h"

namespace tarn::refserver::testing {
namespace {

using tarn::testing::AgentFolder;
using tarn::testing::ReadFileText;

constexpr const char* kChromium = "/usr/bin/chromium";

// Runs Chromium headless with the given arguments.
int RunChromium(const std::vector<std::string>& arguments, const std::filesystem::path& output) {
  std::vector<std::string> all = {kChromium,
                                  "--headless",
                                  "--no-sandbox",
                                  "--disable-gpu",
                                  "--disable-quic",
                                  "--no-first-run",
                                  "--disable-background-networking",
                                  "--disable-component-update",
                                  "--disable-sync",
                                  "--disable-dev-shm-usage"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return RunProgram(all, output);
}

// The recorded iMac, scanned in full and then with a difference, on a server of its own.
class PagesInChromium : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kChromium)) {
      GTEST_SKIP() << kChromium << " is missing: install the Debian package chromium "
                   << "(scripts/deps.sh does) to run this test";
    }
    server_ = std::make_unique<RunningServer>(dir_.path() / "db.sqlite");
    agent_ = std::make_unique<AgentFolder>("refserver-page");
    agent_->ServeAt(server_->port());
    Scan(*agent_, "assetscan", kMachine, "FullData");
    Scan(*agent_, "scheduled", kChangedMachine, "DiffData");
  }

  TempDir dir_;
  std::unique_ptr<RunningServer> server_;
  std::unique_ptr<AgentFolder> agent_;
};

// Where the screenshots are kept: beside the test program, in the build directory.
std::filesystem::path ScreenshotFolder() {
  const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                      "page-screenshots";
  std::filesystem::create_directories(folder);
  return folder;
}

TEST_F(PagesInChromium, TheComputerPageShowsItsClassesAndTheChangesOfTheDifferenceScan) {
  const JsonValue computer = OnlyComputer(*server_);
  const std::string url = server_->url() + "/computers/" + std::to_string(NumberAt(computer, "id"));
  const TempDir& dir = dir_;

  const auto profile = dir.path() / "profile";
  const auto dom = dir.path() / "dom.html";
  ASSERT_EQ(RunChromium({"--user-data-dir=" + profile.string(), "--dump-dom", url}, dom), 0);
  const std::string html = ReadFileText(dom);
  EXPECT_NE(html.find("<h1 id=\"computer\">" + StringAt(computer, "name") + "</h1>"),
            std::string::npos)
      << html.substr(0, 2000);
  // Every class with its name and instance count, as the server holds them.
  for (const JsonValue& entry : computer.at("classes")) {
    const std::string row = "<tr id=\"count-" + std::to_string(NumberAt(entry, "id")) +
                            "\"><td class=\"number\">" + std::to_string(NumberAt(entry, "id")) +
                            "</td><td><a href=\"#class-" + std::to_string(NumberAt(entry, "id")) +
                            "\">" + StringAt(entry, "name") +
                            "</a></td><td class=\"number\">" +
                            std::to_string(NumberAt(entry, "instanceCount")) + "</td></tr>";
    EXPECT_NE(html.find(row), std::string::npos) << row;
  }
  EXPECT_NE(html.find("Software added: zoom.us 4.0.20340.1024"), std::string::npos);
  EXPECT_NE(html.find("Software deleted: Skype 7.38"), std::string::npos);
  EXPECT_NE(html.find("Google Chrome 54.0.2840.71"), std::string::npos);
  EXPECT_NE(html.find("LogicalDisk deleted: /Volumes/BOOTCAMP"), std::string::npos);
  // The pictures: the volumes' bars, the memory slots, the changes per upload.
  EXPECT_NE(html.find("<rect class=\"used\""), std::string::npos);
  EXPECT_NE(html.find("class=\"slot filled\""), std::string::npos);
  EXPECT_NE(html.find("<svg id=\"change-chart\""), std::string::npos);
}

// Both pages at a phone's and a desktop's width: the document is exactly as wide as
// the viewport (nothing sticks out sideways; wide tables scroll inside their own box).
TEST_F(PagesInChromium, BothPagesFitAPhoneAndADesktopWithoutSidewaysScrolling) {
  const JsonValue computer = OnlyComputer(*server_);
  const std::string id = std::to_string(NumberAt(computer, "id"));
  struct Screen {
    int width;
    int height;
    bool mobile;
  };
  const Screen screens[] = {{390, 844, true}, {1366, 900, false}};
  const std::pair<std::string, std::string> pages[] = {{"list", "/"},
                                                       {"computer", "/computers/" + id}};
  const auto folder = ScreenshotFolder();
  HeadlessChromium browser(kChromium, dir_.path() / "profile");
  for (const Screen& screen : screens) {
    browser.SetViewport(screen.width, screen.height, screen.mobile);
    for (const auto& [name, path] : pages) {
      SCOPED_TRACE(name + " at " + std::to_string(screen.width) + " px");
      browser.Navigate(server_->url() + path);
      EXPECT_EQ(browser.Evaluate("String(window.innerWidth)"), std::to_string(screen.width));
      EXPECT_EQ(browser.Evaluate("String(document.documentElement.scrollWidth)"),
                std::to_string(screen.width));
      // Text stays at a readable size.
      EXPECT_EQ(browser.Evaluate("getComputedStyle(document.body).fontSize"), "16px");
      if (name == "computer" && screen.mobile) {
        // The upload history does not fit a phone: its box scrolls, the page does not.
        EXPECT_EQ(browser.Evaluate("String(document.querySelector('#history').parentElement"
                                   ".scrollWidth > document.querySelector('#history')"
                                   ".parentElement.clientWidth)"),
                  "true");
      }
      const std::string png = browser.Screenshot();
      ASSERT_GT(png.size(), 1000u);
      EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
      tarn::testing::WriteFileText(
          folder / (name + "-" + std::to_string(screen.width) + ".png"), png);
    }
  }

}

}  // namespace
}  // namespace tarn::refserver::testing
