#include "tarninventory/src/scanrun.h"

#include "tarninventory/src/FullScanHandler.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

std::unique_ptr<ScanRun>& RunSlot() {
  static std::unique_ptr<ScanRun> run = std::make_unique<ScanRun>();
  return run;
}

}  // namespace

ScanRun::ScanRun() : invDiffData(PlistValue::MakeDictionary()) {}

ScanRun::~ScanRun() = default;

ScanRun& CurrentScanRun() { return *RunSlot(); }

void ResetScanRun() { RunSlot() = std::make_unique<ScanRun>(); }

void ReleaseScanRun() {
  ScanRun& run = CurrentScanRun();
  run.invDiffData.reset();
  run.invScanData.Clear();
  run.fullScanobj.reset();
  run.tarninventory_datalist.reset();
  run.propertyDict.Clear();
}

bool IsDiffScan() { return CurrentScanRun().scanType == kDiffScanType; }

const TarnGlobvars& RunSettings() {
  static const TarnGlobvars none;
  return HasGlobvars() ? gv_globvars() : none;
}

}  // namespace tarn
