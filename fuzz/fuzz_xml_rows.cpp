// The XML row reader (class catalogue, scan settings, resource documents) on the shipped
// dictionaries, then the XML writer on whatever loaded; every input starts from empty tables.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "framework/imds/dataset.h"
#include "framework/imds/dotoxml.h"
#include "framework/imds/xmltodo.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarn::fuzzing::LoadShippedDictionariesOnce();
  std::vector<const char*> loaded;
  tarn::CreateDOFromXMLBuffer(reinterpret_cast<const char*>(data), size);
  for (const auto& table : tarn::GetDataSetVector().tables()) loaded.push_back(table->name.c_str());
  tarn::ConvertDOtoXMLBuffer(loaded, "TarnWMIData");
  tarn::UnLoadAllTable();
  return 0;
}
