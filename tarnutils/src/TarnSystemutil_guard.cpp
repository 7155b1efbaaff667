// One scan at a time: the process-table check, the instance lock, and the scratch folders earlier runs left.
#include "tarnutils/src/TarnSystemutil_mac.h"

#include "framework/logging/logger.h"
#include "platform/console_log.h"
#include "platform/file/file_util.h"
#include "platform/platform.h"

namespace tarn {

namespace {

// Another process of this name under the same effective user: a program of the same name
// that another user starts cannot stop the scan.
bool IsOtherInstance(const ProcessEntry& process, const std::string& ownName, int ownId,
                     unsigned ownUid) {
  return process.name == ownName && process.pid != ownId && process.uid == ownUid;
}

bool AnotherProcessOfThisNameRuns() {
  HostInfo& host = CurrentPlatform().Host();
  const std::string ownName = host.OwnProcessName();
  const int ownId = host.OwnProcessId();
  const unsigned ownUid = host.OwnUserId();
  ConsoleLog("CheckIfCurrentProcessAlreadyRunning :CurrentProcessName :%s:currentProcessPID :%d",
             ownName.c_str(), ownId);
  for (const ProcessEntry& process : host.ProcessTable()) {
    if (IsOtherInstance(process, ownName, ownId, ownUid)) {
      ConsoleLog("CheckIfCurrentProcessAlreadyRunning : Running PID :%d", process.pid);
      return true;
    }
  }
  ConsoleLog("CheckIfCurrentProcessAlreadyRunning : NotRunning");
  return false;
}

// The descriptor that holds the instance lock for the rest of the run.
UniqueFd& InstanceLock() {
  static UniqueFd lock;
  return lock;
}

}  // namespace

bool CheckIfCurrentProcessAlreadyRunning() { return AnotherProcessOfThisNameRuns(); }

bool TakeInstanceLock(const std::string& dataDirectory) {
  const std::string path = dataDirectory + "/" + kInstanceLockFileName;
  switch (LockOwnFile(path, InstanceLock())) {
    case LockResult::kTaken:
      return true;
    case LockResult::kHeld:
      ConsoleLog("CheckIfCurrentProcessAlreadyRunning : Running, %s is locked", path.c_str());
      return false;
    case LockResult::kUnavailable:
      break;
  }
  ConsoleLog("CheckIfCurrentProcessAlreadyRunning : no lock at %s, the process table decided",
             path.c_str());
  return true;
}

void ReleaseInstanceLock() { InstanceLock().Close(); }

void RemoveStaleScratchFolders(const std::string& folder) {
  for (const std::string& name : RemoveStaleScratchDirectories(folder)) {
    UserLogMessage("Removed the scratch folder %s/%s left by an earlier run\n", folder.c_str(),
                   name.c_str());
  }
}

}  // namespace tarn
