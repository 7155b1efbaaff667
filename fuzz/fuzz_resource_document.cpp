// The untrusted XML row reader as the resource-id request uses it: a document from the
// network that may only give Agentparams rows. Every input starts from empty tables.
#include <cstddef>
#include <cstdint>

#include "framework/imds/dataset.h"
#include "framework/imds/xmltodo.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarn::fuzzing::LoadShippedDictionariesOnce();
  static const tarn::UntrustedXmlRules rules{1024 * 1024, 256, {"Agentparams"}};
  tarn::CreateDOFromUntrustedXMLBuffer(reinterpret_cast<const char*>(data), size, rules);
  tarn::UnLoadAllTable();
  return 0;
}
