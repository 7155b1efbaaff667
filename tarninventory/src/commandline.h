// The words the scanner takes before its scan word: "--version", "--help" and
// "--local DIR". Everything from the scan word on is the scan's own command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarn {

struct CommandLine {
  enum class Action {
    kScan,        // run a scan with `arguments`
    kVersion,     // print VersionText and end with 0
    kHelp,        // print UsageText and end with 0
    kUsageError,  // print `error` and UsageText on standard error and end with 1
  };
  Action action = Action::kScan;
  // The folder of "--local DIR": the documents are written there, nothing is sent.
  std::optional<std::string> localFolder;
  // The scan's command line: the program name, then the scan word, the flag and the audit id
  // as given. Points into the argv it was read from.
  std::vector<const char*> arguments;
  std::string error;
};

// Reads argv. "--version" and "--help" are taken only as the first word, "--local" only as
// the first word and with a folder after it; any other word, one starting with "--"
// included, is left to the scan (which calls an unknown one an invalid argument).
CommandLine ReadCommandLine(int argc, const char* const* argv);

// "tarninventory <version> (commit <commit>)\n".
std::string VersionText();

// What the command line takes and which files of the agent folder the scanner uses.
std::string UsageText();

}  // namespace tarn
