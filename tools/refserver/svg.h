// The pictures of a computer's page, drawn by the server as inline SVG: a bar of used
// and free space per volume, the memory slots as filled and empty boxes, and the
// changes each difference upload brought. Texts from uploads are escaped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/refserver/inventory.h"
#include "tools/refserver/store.h"

namespace tarn::refserver {

// A byte count as a person reads it: "750 B", "1.5 KiB", "8 GiB" (one decimal, none
// when it is .0).
std::string FormatBytes(std::int64_t bytes);
// A whole non-negative number written in decimal digits only, when it fits.
std::optional<std::int64_t> WholeNumber(std::string_view text);

// <section id="volumes">: one line and one bar per volume of the LogicalDisk class;
// empty when the computer has none. A volume without usable sizes gets no bar.
std::string VolumeSection(const Inventory& inventory);
// <section id="memory">: one box per slot, from the PhysicalMemory class; empty when
// the computer has none.
std::string MemorySection(const Inventory& inventory);
// <svg id="change-chart">: added, deleted and modified instances per difference
// upload, oldest on the left; empty when there is no difference upload.
std::string ChangeChart(const std::vector<UploadRecord>& uploads);

}  // namespace tarn::refserver
