// Readers of what a scan left behind, shared by the end-to-end tests: the access log's last
// line, the rows of the full document, the snapshot's classes.
#pragma once

#include <regex>
#include <string>
#include <vector>

#include "tests/agent_folder.h"

namespace tarn::testing {

inline std::string Padded(const std::string& word, std::size_t width = 15) {
  return std::string(width > word.size() ? width - word.size() : 0, ' ') + word;
}

// True when the access log's last line is: date, mode word, start time, the given status
// columns, end time.
inline bool LastLineIs(const AgentFolder& agent, const std::string& modeWord,
                       const std::vector<std::string>& columns) {
  std::string middle;
  for (const std::string& column : columns) middle += "\t" + Padded(column);
  const std::string time = "\\d\\d:\\d\\d:\\d\\d";
  const std::regex line("\n\\d\\d-\\d\\d-\\d{4}\t *" + modeWord + "\t   " + time + "\t" + middle +
                        "       " + time + "$");
  return std::regex_search(agent.AccessLog(), line);
}

// The rows of one class in a full document, as "property|instance|value;" in document order.
inline std::string RowsOfClass(const std::string& body, int classId) {
  const std::regex row("<WMIFetchedValue VALUE_ID=\"\\d+\" PROPERTY_ID=\"(\\d+)\" CLASS_ID=\"" +
                       std::to_string(classId) + "\" INSTANCE_ID=\"(\\d+)\" VALUE=\"([^\"]*)\"");
  std::string rows;
  for (auto it = std::sregex_iterator(body.begin(), body.end(), row); it != std::sregex_iterator();
       ++it) {
    rows += (*it)[1].str() + "|" + (*it)[2].str() + "|" + (*it)[3].str() + ";";
  }
  return rows;
}

inline bool SnapshotHasClass(const AgentFolder& agent, int classId) {
  return ReadFileText(agent.data() / "invFullData")
             .find("<key>" + std::to_string(classId) + "</key>") != std::string::npos;
}

// A difference document with its scan times replaced by "T".
inline std::string WithoutScanTimes(const std::string& body) {
  return std::regex_replace(body, std::regex("\"(currScanTime|prevScanTime)\": \"\\d+\""),
                            "\"$1\": \"T\"");
}

}  // namespace tarn::testing
