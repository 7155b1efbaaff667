// Shared set-up of the fuzz targets: the shipped data dictionaries and class catalogue loaded
// once per process, as the scanner loads them, and fresh run objects for every input.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "framework/imds/dataset.h"
#include "framework/imds/xmltodo.h"
#include "framework/persistent/xmldatadictparser.h"
#include "tarninventory/src/InvClassHandler.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnGlobalvars.h"

namespace tarn::fuzzing {

inline std::string SourceText(const std::string& relative) {
  std::ifstream file(std::string(TARN_SOURCE_DIR) + "/" + relative, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The four data dictionaries, loaded once; aborts when they do not load (the fuzzer would
// only find its own set-up broken).
inline void LoadShippedDictionariesOnce() {
  static const bool loaded = [] {
    for (const char* name : {"data-dictionary.xml", "data-dictionary-inv.xml",
                             "data-dictionary-framework.xml", "data-dictionary-onpremise.xml"}) {
      const std::string path = std::string(TARN_SOURCE_DIR) + "/data/" + name;
      if (!LoadDataDictFromXMLFile(path.c_str())) std::abort();
    }
    return true;
  }();
  (void)loaded;
}

// The dictionaries and the class catalogue, loaded once, and the settings object.
inline void LoadShippedStoreOnce() {
  static const bool loaded = [] {
    LoadShippedDictionariesOnce();
    const std::string catalogue = SourceText("data/Mac_InvClasses.xml");
    if (CreateDOFromXMLBuffer(catalogue.data(), catalogue.size()) != 1) std::abort();
    invClassObj().Initialize();
    invClassObj().CreateInvTable();
    InitTarnGlobalvars();
    return true;
  }();
  (void)loaded;
}

// Fresh run objects and an empty value table for one input.
inline void StartRecording() {
  ResetScanRun();
  UnLoadTable("WMIFetchedValue");
  CreateTable("WMIFetchedValue");
}

// A file of this process holding the bytes, removed with the object.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string_view bytes)
      : path_((std::filesystem::temp_directory_path() /
               ("tarn-fuzz-" + std::to_string(::getpid()) + ".input"))
                  .string()) {
    std::ofstream(path_, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  ~TemporaryFile() { std::remove(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace tarn::fuzzing
