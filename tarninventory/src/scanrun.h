// The process-wide objects of one scan run.
//
// The driver owns them for the whole run: the run type, the on-demand flag,
// this scan's instances by class (invScanData), the difference document
// (invDiffData), the previous snapshot (fullScanobj), the scan state store
// (tarninventory_datalist) and the recorder's gathering state. The instance
// number of the operating system's software row (osIndex) travels with the
// collectors' facts (CollectorFacts). The class
// catalogue index lives behind invClassObj(), the agent settings behind
// gv_globvars().
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/plist/plist_value.h"
#include "tarninventory/src/scandata.h"

namespace tarn {

class FullScanHandler;
class Proplisthandler;
class TarnGlobvars;

// Run types. Every value other than kDiffScanType is treated as a full scan.
inline constexpr std::int32_t kFullScanType = 5;
inline constexpr std::int32_t kDiffScanType = 6;

struct ScanRun {
  ScanRun();
  ~ScanRun();
  ScanRun(const ScanRun&) = delete;
  ScanRun& operator=(const ScanRun&) = delete;

  std::int32_t scanType = kFullScanType;
  bool isOndemandScan = false;

  // Class id text to the array of this scan's instance dictionaries.
  ScanData invScanData;
  // The difference document sent by a difference upload.
  PlistPtr invDiffData;
  // The previous snapshot; null unless a difference scan loaded it.
  std::unique_ptr<FullScanHandler> fullScanobj;
  // The scan state store "tarninventory_data.plist"; null until the driver opens it.
  std::unique_ptr<Proplisthandler> tarninventory_datalist;
  // "--local DIR": the documents go into this folder instead of to the server.
  std::optional<std::string> localFolder;

  // The recorder's gathering state: the instance being gathered, its class
  // (0 = none yet) and instance number (-1 = none), and the value-id counter
  // of the WMIFetchedValue rows. Never reset during a run.
  PendingInstance propertyDict;
  std::int32_t prevclassID = 0;
  std::int32_t previndexID = -1;
  std::int32_t valueIdCounter = 0;
};

// The run's objects.
ScanRun& CurrentScanRun();
// Replaces them with fresh ones (empty dictionaries, run type full): the
// driver's start and every test that records.
void ResetScanRun();
// Releases the dictionaries, the snapshot and the state store (end of run).
void ReleaseScanRun();

// True when the run is a difference scan.
bool IsDiffScan();

// The agent settings of the run; before the driver made them, every setting reads as absent.
const TarnGlobvars& RunSettings();

}  // namespace tarn
