// The data-dictionary loader, on a file of arbitrary bytes; a dictionary that loads is then
// used to create its tables.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "framework/imds/dataset.h"
#include "framework/persistent/datadict.h"
#include "framework/persistent/xmldatadictparser.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const tarn::fuzzing::TemporaryFile file(
      std::string_view(reinterpret_cast<const char*>(data), size));
  tarn::UnLoadAllTable();
  tarn::DeInitDataDictionary();
  if (tarn::LoadDataDictFromXMLFile(file.path().c_str())) {
    for (const auto& definition : tarn::GetTableDefnVector().definitions()) {
      tarn::CreateTable(definition->name().c_str());
    }
  }
  tarn::UnLoadAllTable();
  tarn::DeInitDataDictionary();
  return 0;
}
