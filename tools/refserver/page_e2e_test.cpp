// The computer page as a browser shows it: headless Chromium loads the page after a
// full and a difference scan, dumps its DOM and takes a screenshot.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/refserver/e2e_util.h"

namespace tarn::refserver::testing {
namespace {

using tarn::testing::AgentFolder;
using tarn::testing::ReadFileText;

constexpr const char* kChromium = "/usr/bin/chromium";

// Runs Chromium headless with the given arguments.
int RunChromium(const std::vector<std::string>& arguments, const std::filesystem::path& output) {
  std::vector<std::string> all = {kChromium, "--headless", "--no-sandbox", "--disable-gpu",
                                  "--disable-dev-shm-usage", "--no-first-run"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return RunProgram(all, output);
}

TEST(ComputerPageInChromium, ShowsTheComputerItsClassesAndTheChangesOfTheDifferenceScan) {
  if (!std::filesystem::exists(kChromium)) {
    GTEST_SKIP() << kChromium << " is missing: install the Debian package chromium "
                 << "(scripts/deps.sh does) to run this test";
  }
  TempDir dir;
  RunningServer server(dir.path() / "db.sqlite");
  AgentFolder agent("refserver-page");
  agent.ServeAt(server.port());
  Scan(agent, "assetscan", kMachine, "FullData");
  Scan(agent, "scheduled", kChangedMachine, "DiffData");
  const JsonValue computer = OnlyComputer(server);
  const std::string url = server.url() + "/computers/" + std::to_string(NumberAt(computer, "id"));

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

  const auto screenshot = dir.path() / "page.png";
  ASSERT_EQ(RunChromium({"--user-data-dir=" + profile.string(),
                         "--screenshot=" + screenshot.string(), "--window-size=1280,2000", url},
                        dir.path() / "screenshot-output.txt"),
            0);
  const std::string png = ReadFileText(screenshot);
  ASSERT_GT(png.size(), 1000u);
  EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
  // Kept for a person to look at when TARN_KEEP_SCREENSHOT names a file.
  if (const char* keep = std::getenv("TARN_KEEP_SCREENSHOT")) {
    std::filesystem::copy_file(screenshot, keep, std::filesystem::copy_options::overwrite_existing);
  }
}

}  // namespace
}  // namespace tarn::refserver::testing
