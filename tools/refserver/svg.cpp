#include "tools/refserver/svg.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>

#include "tools/refserver/pages.h"

namespace tarn::refserver {

namespace {

constexpr int kVolumeClass = 4;
constexpr int kMountPointProperty = 401;
constexpr int kFileSystemProperty = 405;
constexpr int kSizeProperty = 406;
constexpr int kFreeSpaceProperty = 407;
constexpr int kMemoryClass = 27;
constexpr int kCapacityProperty = 2702;
constexpr int kBankLabelProperty = 2704;
constexpr int kTagProperty = 2708;
// The scanner tags a module "Physical Memory <n>", n its slot's position among all slots.
constexpr std::string_view kSlotTag = "Physical Memory ";
constexpr int kMaxSlots = 64;

constexpr const char* kUsedColour = "#3b78c2";
constexpr const char* kFreeColour = "#d9e6d2";
constexpr const char* kAddedColour = "#1a7f37";
constexpr const char* kDeletedColour = "#b3261e";
constexpr const char* kModifiedColour = "#c08a00";

std::string Value(const Instance& instance, int propertyId) {
  const auto found = instance.find(propertyId);
  return found == instance.end() ? "" : found->second;
}

// value / total as a percentage with at most one decimal ("75", "62.5").
std::string Percent(std::int64_t value, std::int64_t total) {
  const std::int64_t permille = value / total * 1000 + value % total * 1000 / total;
  return std::to_string(permille / 10) +
         (permille % 10 != 0 ? "." + std::to_string(permille % 10) : "");
}

std::string VolumeLine(const Instance& volume) {
  std::string mount = Value(volume, kMountPointProperty);
  std::string html = "<div class=\"volume\">\n<p><strong>" +
                     HtmlEscape(mount.empty() ? "(no mount point)" : mount) + "</strong>";
  const std::string fileSystem = Value(volume, kFileSystemProperty);
  if (!fileSystem.empty() && fileSystem != "-") html += " (" + HtmlEscape(fileSystem) + ")";
  const auto size = WholeNumber(Value(volume, kSizeProperty));
  const auto free = WholeNumber(Value(volume, kFreeSpaceProperty));
  if (!size || !free || *size <= 0 || *free > *size) {
    return html + ": size not known</p>\n</div>\n";
  }
  const std::int64_t used = *size - *free;
  const std::string percent = Percent(used, *size);
  const std::string text = FormatBytes(used) + " used, " + FormatBytes(*free) + " free of " +
                           FormatBytes(*size) + " (" + percent + "% used)";
  html += ": " + text + "</p>\n";
  html += "<svg class=\"bar\" width=\"100%\" height=\"14\" role=\"img\" aria-label=\"" +
          HtmlEscape(mount + ": " + text) + "\"><title>" + HtmlEscape(mount + ": " + text) +
          "</title><rect class=\"free\" width=\"100%\" height=\"14\" fill=\"" + kFreeColour +
          "\"/><rect class=\"used\" width=\"" + percent + "%\" height=\"14\" fill=\"" +
          kUsedColour + "\"/></svg>\n</div>\n";
  return html;
}

std::optional<int> SlotPosition(const Instance& module) {
  const std::string tag = Value(module, kTagProperty);
  if (tag.rfind(kSlotTag, 0) != 0) return std::nullopt;
  const auto position = WholeNumber(std::string_view(tag).substr(kSlotTag.size()));
  if (!position || *position >= kMaxSlots) return std::nullopt;
  return static_cast<int>(*position);
}

std::string SlotBox(const Instance* module, int position) {
  const std::string bank = module != nullptr ? Value(*module, kBankLabelProperty) : "";
  const std::string name = bank.empty() ? "Slot " + std::to_string(position + 1) : bank;
  std::string capacity = "module";
  if (module != nullptr) {
    if (const auto bytes = WholeNumber(Value(*module, kCapacityProperty))) {
      capacity = FormatBytes(*bytes);
    }
  }
  const std::string shown = module != nullptr ? capacity : "empty";
  std::string html = "<figure class=\"slot-box\"><svg class=\"slot ";
  html += module != nullptr ? "filled" : "empty";
  html += "\" width=\"96\" height=\"40\" viewBox=\"0 0 96 40\" role=\"img\" aria-label=\"" +
          HtmlEscape(name + ": " + shown) + "\"><title>" + HtmlEscape(name + ": " + shown) +
          "</title>";
  if (module != nullptr) {
    html += std::string("<rect x=\"1\" y=\"1\" width=\"94\" height=\"38\" rx=\"4\" fill=\"") +
            kUsedColour + "\" stroke=\"#24528a\" stroke-width=\"2\"/>"
            "<text x=\"48\" y=\"25\" text-anchor=\"middle\" font-size=\"14\" fill=\"#fff\">" +
            HtmlEscape(capacity) + "</text>";
  } else {
    html += "<rect x=\"1\" y=\"1\" width=\"94\" height=\"38\" rx=\"4\" fill=\"#fff\" "
            "stroke=\"#999\" stroke-width=\"2\" stroke-dasharray=\"5 4\"/>"
            "<text x=\"48\" y=\"25\" text-anchor=\"middle\" font-size=\"13\" fill=\"#777\">"
            "empty</text>";
  }
  return html + "</svg><figcaption>" + HtmlEscape(name) + "</figcaption></figure>\n";
}

struct Totals {
  int added = 0;
  int deleted = 0;
  int modified = 0;
};

Totals TotalsOf(const UploadRecord& upload) {
  Totals totals;
  for (const auto& [classId, entry] : upload.classes) {
    totals.added += entry.changes.added;
    totals.deleted += entry.changes.deleted;
    totals.modified += entry.changes.modified;
  }
  return totals;
}

std::string Bar(int x, int value, int maximum, const char* colour, const char* kind) {
  constexpr int kPlotTop = 18;
  constexpr int kPlotHeight = 120;
  const int height = maximum > 0 ? value * kPlotHeight / maximum : 0;
  const int top = kPlotTop + kPlotHeight - height;
  std::string svg = "<rect class=\"" + std::string(kind) + "\" x=\"" + std::to_string(x) +
                    "\" y=\"" + std::to_string(top) + "\" width=\"14\" height=\"" +
                    std::to_string(height) + "\" fill=\"" + colour + "\"/>";
  if (value > 0) {
    svg += "<text x=\"" + std::to_string(x + 7) + "\" y=\"" + std::to_string(top - 3) +
           "\" text-anchor=\"middle\">" + std::to_string(value) + "</text>";
  }
  return svg;
}

}  // namespace

std::string FormatBytes(std::int64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  std::size_t unit = 0;
  std::int64_t whole = bytes;
  std::int64_t tenths = 0;
  while (whole >= 1024 && unit + 1 < std::size(kUnits)) {
    tenths = whole % 1024 * 10 / 1024;
    whole /= 1024;
    ++unit;
  }
  return std::to_string(whole) + (tenths != 0 ? "." + std::to_string(tenths) : "") + " " +
         kUnits[unit];
}

std::optional<std::int64_t> WholeNumber(std::string_view text) {
  std::int64_t value = 0;
  if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string VolumeSection(const Inventory& inventory) {
  const auto volumes = inventory.find(kVolumeClass);
  if (volumes == inventory.end() || volumes->second.empty()) return "";
  std::string html = "<section id=\"volumes\">\n<h2>Volumes</h2>\n";
  for (const auto& [number, volume] : volumes->second) html += VolumeLine(volume);
  return html + "<p class=\"note\"><span class=\"key\" style=\"background:" + kUsedColour +
         "\"></span> used <span class=\"key\" style=\"background:" + kFreeColour +
         "\"></span> free</p>\n</section>\n";
}

std::string MemorySection(const Inventory& inventory) {
  const auto modules = inventory.find(kMemoryClass);
  if (modules == inventory.end() || modules->second.empty()) return "";
  // Modules at the slot their tag names; untagged ones in the next slots left free.
  std::map<int, const Instance*> slots;
  std::vector<const Instance*> untagged;
  for (const auto& [number, module] : modules->second) {
    const auto position = SlotPosition(module);
    if (position && slots.emplace(*position, &module).second) continue;
    untagged.push_back(&module);
  }
  int next = 0;
  for (const Instance* module : untagged) {
    while (slots.count(next) != 0) ++next;
    slots.emplace(next, module);
  }
  const int count = slots.rbegin()->first + 1;
  std::string html = "<section id=\"memory\">\n<h2>Memory slots</h2>\n<div class=\"slots\">\n";
  for (int position = 0; position < count; ++position) {
    const auto slot = slots.find(position);
    html += SlotBox(slot != slots.end() ? slot->second : nullptr, position);
  }
  return html + "</div>\n<p class=\"note\">" + std::to_string(modules->second.size()) +
         (modules->second.size() == 1 ? " module" : " modules") +
         "; empty slots after the last module are not reported by the scanner.</p>\n"
         "</section>\n";
}

std::string ChangeChart(const std::vector<UploadRecord>& uploads) {
  std::vector<const UploadRecord*> differences;
  for (auto upload = uploads.rbegin(); upload != uploads.rend(); ++upload) {  // oldest first
    if (upload->kind == "difference") differences.push_back(&*upload);
  }
  if (differences.empty()) return "";
  int maximum = 1;
  for (const UploadRecord* upload : differences) {
    const Totals totals = TotalsOf(*upload);
    maximum = std::max({maximum, totals.added, totals.deleted, totals.modified});
  }
  constexpr int kLeft = 40;
  constexpr int kGroup = 72;
  const int width = kLeft + kGroup * static_cast<int>(differences.size()) + 8;
  const int height = 172;
  std::string svg = "<svg id=\"change-chart\" width=\"" + std::to_string(width) + "\" height=\"" +
                    std::to_string(height) + "\" viewBox=\"0 0 " + std::to_string(width) + " " +
                    std::to_string(height) +
                    "\" role=\"img\" aria-label=\"Instances added, deleted and modified per "
                    "difference upload\" font-size=\"11\" font-family=\"sans-serif\">\n"
                    "<line x1=\"" + std::to_string(kLeft - 4) + "\" y1=\"138\" x2=\"" +
                    std::to_string(width) + "\" y2=\"138\" stroke=\"#888\"/>"
                    "<line x1=\"" + std::to_string(kLeft - 4) + "\" y1=\"18\" x2=\"" +
                    std::to_string(width) + "\" y2=\"18\" stroke=\"#ddd\"/>"
                    "<text x=\"" + std::to_string(kLeft - 8) + "\" y=\"22\" text-anchor=\"end\">" +
                    std::to_string(maximum) + "</text><text x=\"" + std::to_string(kLeft - 8) +
                    "\" y=\"142\" text-anchor=\"end\">0</text>\n";
  int x = kLeft;
  for (const UploadRecord* upload : differences) {
    const Totals totals = TotalsOf(*upload);
    const std::string received = IsoTime(upload->received);
    svg += "<g class=\"upload\"><title>Upload " + std::to_string(upload->id) + ", received " +
           HtmlEscape(received) + ": " + std::to_string(totals.added) + " added, " +
           std::to_string(totals.deleted) + " deleted, " + std::to_string(totals.modified) +
           " modified</title>";
    svg += Bar(x + 12, totals.added, maximum, kAddedColour, "added");
    svg += Bar(x + 29, totals.deleted, maximum, kDeletedColour, "deleted");
    svg += Bar(x + 46, totals.modified, maximum, kModifiedColour, "modified");
    svg += "<text x=\"" + std::to_string(x + 36) + "\" y=\"154\" text-anchor=\"middle\">#" +
           std::to_string(upload->id) + "</text><text x=\"" + std::to_string(x + 36) +
           "\" y=\"168\" text-anchor=\"middle\" fill=\"#555\">" +
           HtmlEscape(received.substr(0, 10)) + "</text></g>\n";
    x += kGroup;
  }
  return svg + "</svg>\n";
}

}  // namespace tarn::refserver
