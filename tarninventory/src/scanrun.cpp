#include "tarninventory/src/scanrun.h"

#include "tarninventory/src/FullScanHandler.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

std::unique_ptr<ScanRun>& RunSlot() {
  static std::unique_ptr<ScanRun> run = std::make_unique<ScanRun>();
  return run;
}

}  // namespace

ScanRun::ScanRun()
    : invScanData(PlistValue::MakeDictionary()), invDiffData(PlistValue::MakeDictionary()) {}

ScanRun::~ScanRun() = default;

ScanRun& CurrentScanRun() { return *RunSlot(); }

void ResetScanRun() { RunSlot() = std::make_unique<ScanRun>(); }

void ReleaseScanRun() {
  ScanRun& run = CurrentScanRun();
  run.invDiffData.reset();
  run.invScanData.reset();
  run.fullScanobj.reset();
  run.tarninventory_datalist.reset();
  run.propertyDict.reset();
}

bool IsDiffScan() { return CurrentScanRun().scanType == kDiffScanType; }

}  // namespace tarn
