// What one scan run works with, made by the driver once the settings, the catalogue and the
// platform are ready, and handed to each step it calls in turn: decide the run type, ensure
// the resource id, collect, prepare the upload, send it (or write it, for a local run) and
// record the accepted scan. The accessors older code reads (RunSettings(), CurrentScanRun(),
// invClassObj(), CurrentPlatform()) are views of the same objects; the store's tables are
// the framework's own.
#pragma once

#include "platform/clock.h"
#include "platform/platform.h"
#include "tarninventory/src/InvClassHandler.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnGlobalvars.h"

namespace tarn {

struct RunContext {
  TarnGlobvars& settings;
  InvClassHandler& catalogue;
  ScanRun& run;
  Platform& platform;
  const Clock& clock;

  bool IsDiffScan() const { return run.scanType == kDiffScanType; }
};

// The context of the process's run objects, with the given clock.
RunContext ContextOfThisRun(const Clock& clock);

}  // namespace tarn
