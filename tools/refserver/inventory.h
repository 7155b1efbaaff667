// A computer's inventory as the server holds it, and the names the uploads use.
#pragma once

#include <map>
#include <string>

namespace tarn::refserver {

// Property id to value text.
using Instance = std::map<int, std::string>;
// Instance number to properties, within one class.
using ClassInstances = std::map<int, Instance>;
// Class id to instances.
using Inventory = std::map<int, ClassInstances>;

// The operating system class; its property 117 is recorded under the OS software
// row's instance number but belongs to the one OS instance.
inline constexpr int kOsClass = 1;
inline constexpr int kOsSoftwareInstanceProperty = 117;

// Installed software; the OS is one of its instances, marked by 1814 = "OS_EXT".
inline constexpr int kSoftwareClass = 18;
inline constexpr int kSoftwareNameProperty = 1801;
inline constexpr int kSoftwareVersionProperty = 1802;
inline constexpr int kSoftwareGroupProperty = 1814;
inline constexpr const char* kOsGroup = "OS_EXT";
inline constexpr const char* kApplicationGroup = "S-1-1-0";

// Difference statuses as the uploads write them.
enum class Change { kAdded = 0, kDeleted = 1, kModified = 2 };

}  // namespace tarn::refserver
