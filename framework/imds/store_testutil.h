// Helpers shared by the data-store unit tests.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "framework/imds/dataset.h"
#include "framework/logging/logger.h"
#include "framework/persistent/datadict.h"
#include "framework/persistent/xmldatadictparser.h"

namespace tarn::testing {

inline std::string TestDataPath(const std::string& relative) {
  return std::string(TARN_SOURCE_DIR) + "/testdata/" + relative;
}

// Empties the dictionary, the tables and the sequence states.
inline void ResetStore() {
  UnLoadAllTable();
  InitDataSet();
  DeInitDataDictionary();
  ClearSequenceStates();
}

// Resets the store and loads testdata/datadict/store.xml.
inline void LoadStoreDictionary() {
  ResetStore();
  LoadDataDictFromXMLFile(TestDataPath("datadict/store.xml").c_str());
}

// Logs into a fresh file of a temporary directory for its lifetime.
class LogCapture {
 public:
  explicit LogCapture(std::uint8_t level = 4) {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarn-store-XXXXXX").string();
    const char* made = ::mkdtemp(pattern.data());
    directory_ = made != nullptr ? made : pattern;
    StopLogging();
    DeInitLogging();
    InitLogging();
    SetLoggingParameters("store.log", directory_.c_str(), 10000, 0, level);
    StartLogging();
  }
  ~LogCapture() {
    StopLogging();
    DeInitLogging();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string Text() const {
    std::ifstream file(directory_ + "/store.log", std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }
  bool Contains(const std::string& message) const {
    return Text().find(message) != std::string::npos;
  }

 private:
  std::string directory_;
};

}  // namespace tarn::testing
