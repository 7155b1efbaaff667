#include "tarninventory/src/runcontext.h"

namespace tarn {

RunContext ContextOfThisRun(const Clock& clock) {
  return RunContext{gv_globvars(), invClassObj(), CurrentScanRun(), CurrentPlatform(), clock};
}

}  // namespace tarn
