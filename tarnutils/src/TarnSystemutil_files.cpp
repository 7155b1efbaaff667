// File operations with their log lines: exists, create, remove, make a folder, copy.
#include "tarnutils/src/TarnSystemutil_mac.h"

#include <fcntl.h>

#include <filesystem>
#include <system_error>

#include "framework/logging/logger.h"
#include "platform/file/file_util.h"

namespace tarn {
namespace fs = std::filesystem;

bool isFileExists(const std::string& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

DWORD CreateFile(const std::string& path) {
  std::error_code error;
  if (isFileExists(path) && !fs::is_directory(fs::symlink_status(path, error))) {
    UserLogMessage("CreateFile : File already exists : %s\n", path.c_str());
    return 0;
  }
  const UniqueFd file = OpenOwnFile(path, O_WRONLY | O_CREAT);
  if (!file.valid()) {
    UserLogMessage("CreateFile :File creation failure \n");
    return 1;
  }
  UserLogMessage("CreateFile :File creation success : %s\n", path.c_str());
  return 0;
}

DWORD RemoveFile(const std::string& name, const std::optional<std::string>& folder) {
  const std::string path = folder ? *folder + "/" + name : name;
  if (!isFileExists(path)) {
    UserLogMessage("RemoveFile : File doesn't exists %s\n", path.c_str());
    return 0;
  }
  std::error_code error;
  if (!fs::remove(path, error)) {
    UserLogMessage("RemoveFile : File deletion failed: Reason:: %s\n", error.message().c_str());
    return 1;
  }
  UserLogMessage("RemoveFile : File deleted : %s\n", path.c_str());
  return 0;
}

DWORD CreateDirectory(const std::string& path) {
  std::error_code error;
  if (fs::is_directory(path, error)) {
    UserLogMessage("CreateDirectory : Folder already exists : %s\n", path.c_str());
    return 0;
  }
  const int made = MakeDirectory(path);
  if (made != 1 || !fs::is_directory(path, error)) {
    const std::string reason = made != 1 ? std::system_category().message(made) : "not a directory";
    UserLogMessage("CreateDirectory :Folder creation failure : %s\n", reason.c_str());
    return 1;
  }
  UserLogMessage("CreateDirectory :Folder creation success : %s\n", path.c_str());
  return 0;
}

DWORD CopyFileFolder(const std::string& source, const std::string& destination, bool replace) {
  const fs::path parent = fs::path(destination).parent_path();
  std::error_code error;
  if (!parent.empty() && !fs::is_directory(parent, error) &&
      CreateDirectory(parent.string()) != 0) {
    return 1;
  }
  if (isFileExists(destination)) {
    if (!replace) {
      UserLogMessage("CopyFileFolder : file exists at path \n");
      return 1;
    }
    UserLogMessage("CopyFileFolder : file exists at path ,going to replace \n");
    if (fs::remove_all(destination, error) == static_cast<std::uintmax_t>(-1) || error) {
      UserLogMessage("CopyFileFolder : can't delete existing file: reason: %s\n",
                     error.message().c_str());
      return 1;
    }
  }
  if (fs::is_regular_file(fs::symlink_status(source, error))) {
    error = CopyRegularFile(source, destination);
  } else {
    fs::copy(source, destination, fs::copy_options::recursive, error);
  }
  if (error) {
    UserLogMessage("CopyFileFolder : File copy failed: Reason:: %s\n", error.message().c_str());
    return 1;
  }
  UserLogMessage("CopyFileFolder : copy success  source Path : %s  Destination Path : %s\n",
                 source.c_str(), destination.c_str());
  return 0;
}

}  // namespace tarn
