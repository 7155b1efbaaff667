#include "tarninventory/src/fileattributes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <fstream>
#include <string>

#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

void SetModified(const std::string& path, std::time_t seconds, long nanoseconds) {
  const struct timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

TEST(FileAttributes, DecimalTextOrNothingWithAConsoleLine) {
  testing::TempDir dir("fileattributes");
  const std::string path = dir.str() + "/invFullData";
  const std::time_t before = std::time(nullptr);
  std::ofstream(path) << "twelve bytes";
  EXPECT_EQ(FileSize(path), "12");
  const long created = std::stol(FileCreatedTime(path).value());
  EXPECT_GE(created, before);
  EXPECT_LE(created, std::time(nullptr));

  // The fraction is dropped toward zero, also before 1970.
  SetModified(path, 1700000000, 999999999);
  EXPECT_EQ(FileLastModifiedTime(path), "1700000000");
  SetModified(path, -2, 500000000);  // -1.5 seconds
  EXPECT_EQ(FileLastModifiedTime(path), "-1");

  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(FileSize(dir.str() + "/absent"));
  EXPECT_FALSE(FileCreatedTime(dir.str() + "/absent"));
  EXPECT_FALSE(FileLastModifiedTime(path + "/below"));
  const std::string console = ::testing::internal::GetCapturedStderr();
  for (const char* line : {"NSString* FileSize(NSString*) [Line ",
                           "] FileSize : Error description No such file or directory \n",
                           "NSString* FileCreatedTime(NSString*) [Line ",
                           "] FileCreatedTime : Error description No such file or directory \n",
                           "NSString* FileLastModifiedTime(NSString*) [Line ",
                           "] FileLastModifiedTime : Error description Not a directory \n"}) {
    EXPECT_NE(console.find(line), std::string::npos) << line << "\n" << console;
  }
}

}  // namespace
}  // namespace tarn
