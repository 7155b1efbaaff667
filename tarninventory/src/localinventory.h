// A scan without a server ("--local DIR"): the documents an upload would carry are written
// into a folder instead, and nothing on the network is asked.
#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "platform/platform.h"

namespace tarn {

// The platform with every HTTP request answered by an error, its tools and host facts those
// of `inner` (the live computer or a recorded one). Null inner: the live platform.
std::unique_ptr<Platform> WithoutNetwork(std::unique_ptr<Platform> inner);

// "<computer>-<YYYYMMDD>-<HHMMSS>-<suffix>" for the local time `when`. Every byte of the
// computer name but letters, digits, "-" and "_" becomes "_", so the name stays one plain
// file name whatever the computer is called ("computer" when it has no name).
std::string LocalDocumentName(const std::string& computer, std::time_t when,
                              const std::string& suffix);

// Writes text into a new file at folder/name: created exclusively (an existing file or a link
// at the path makes it fail), mode 0600, never following a link. The folder is made (0700)
// when missing. The path written, or nothing.
std::optional<std::string> WriteLocalDocument(const std::string& folder, const std::string& name,
                                              const std::string& text);

}  // namespace tarn
