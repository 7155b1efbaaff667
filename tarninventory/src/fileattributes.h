// File attributes as decimal text, as the scan state store keeps them.
#pragma once

#include <optional>
#include <string>

namespace tarn {

// Size in bytes ("%lld"); nothing, after a console line, when unreadable.
std::optional<std::string> FileSize(const std::string& path);
// Creation time in whole seconds since 1970 ("%ld", truncated toward zero);
// the platform's birth time where it keeps one, else the status-change time.
std::optional<std::string> FileCreatedTime(const std::string& path);
// Modification time in whole seconds since 1970 ("%ld", truncated).
std::optional<std::string> FileLastModifiedTime(const std::string& path);

}  // namespace tarn
