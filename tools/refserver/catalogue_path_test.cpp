#include "tools/refserver/catalogue_path.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

namespace tarn::refserver {
namespace {

namespace fs = std::filesystem;

TEST(CataloguePathTest, AnInstalledCatalogueBesideTheProgramComesBeforeTheSourceTree) {
  const fs::path root = fs::temp_directory_path() / ("catalogue-path-" + std::to_string(getpid()));
  fs::remove_all(root);
  fs::create_directories(root / "bin");
  const fs::path program = root / "bin" / "tarn-refserver";
  const std::string relative = "../share/tarninventory/Mac_InvClasses.xml";

  // Nothing installed: the source tree's file, also when the program is not known.
  EXPECT_EQ(FindCatalogue(program, relative, "/src/data/Mac_InvClasses.xml"),
            "/src/data/Mac_InvClasses.xml");
  EXPECT_EQ(FindCatalogue(std::nullopt, relative, "/src/data/x.xml"), "/src/data/x.xml");

  fs::create_directories(root / "share" / "tarninventory");
  std::ofstream(root / "share" / "tarninventory" / "Mac_InvClasses.xml") << "<x/>";
  EXPECT_EQ(FindCatalogue(program, relative, "/src/data/Mac_InvClasses.xml"),
            (root / "share" / "tarninventory" / "Mac_InvClasses.xml").string());

  // A folder of that name is not a catalogue.
  fs::remove(root / "share" / "tarninventory" / "Mac_InvClasses.xml");
  fs::create_directories(root / "share" / "tarninventory" / "Mac_InvClasses.xml");
  EXPECT_EQ(FindCatalogue(program, relative, "/src/x.xml"), "/src/x.xml");
  fs::remove_all(root);
}

TEST(CataloguePathTest, TheRunningProgramIsThisTestBinary) {
  const auto self = RunningExecutable();
  ASSERT_TRUE(self);
  EXPECT_TRUE(self->is_absolute());
  EXPECT_EQ(self->filename(), "tarn_refserver_tests");
}

}  // namespace
}  // namespace tarn::refserver
