// Criteria expressions: parsing, binding to a table's columns and evaluating on its rows.
#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/imds/criteriaparser.h"
#include "framework/imds/dataset.h"
#include "framework/imds/xmltodo.h"
#include "fuzz/fuzz_util.h"

namespace {

void LoadRowsOnce() {
  static const bool loaded = [] {
    tarn::fuzzing::LoadShippedStoreOnce();
    const std::string rows =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Root>"
        "<InvParams param_name=\"ENABLE_DIFF_SCAN\" param_value=\"1\"/>"
        "<InvParams param_name=\"FULL_SCAN_UPDATED_TIME\" param_value=\"2024-03-05\"/>"
        "<InvParams param_name=\"x\"/></Root>";
    return tarn::CreateDOFromXMLBuffer(rows.data(), rows.size()) == 1;
  }();
  (void)loaded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  LoadRowsOnce();
  const std::string criteria(reinterpret_cast<const char*>(data), size);
  tarn::CriteriaParser(criteria.c_str());
  for (const char* table : {"InvParams", "ClassDetails", "MacProperties"}) {
    tarn::FreeResultData(tarn::SelectRows(table, criteria.c_str()));
  }
  return 0;
}
