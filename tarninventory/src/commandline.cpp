#include "tarninventory/src/commandline.h"

#include <cstring>

#include "tarn_version.h"

namespace tarn {

CommandLine ReadCommandLine(int argc, const char* const* argv) {
  CommandLine command;
  command.arguments.assign(argv, argv + argc);
  if (argc < 2) return command;
  const char* first = argv[1];
  if (std::strcmp(first, "--version") == 0) {
    command.action = CommandLine::Action::kVersion;
  } else if (std::strcmp(first, "--help") == 0) {
    command.action = CommandLine::Action::kHelp;
  } else if (std::strcmp(first, "--local") == 0) {
    if (argc < 3 || argv[2][0] == '\0') {
      command.action = CommandLine::Action::kUsageError;
      command.error = "tarninventory: --local needs the folder to write the documents into\n";
      return command;
    }
    command.localFolder = argv[2];
    // The program name stays; the folder option is taken out.
    command.arguments.erase(command.arguments.begin() + 1, command.arguments.begin() + 3);
  }
  return command;
}

std::string VersionText() {
  return std::string("tarninventory ") + TARN_VERSION + " (commit " + TARN_COMMIT + ")\n";
}

std::string UsageText() {
  return "usage: tarninventory assetscan|ondemand|scheduled|postinstall [flag] [auditid]\n"
         "       tarninventory --local DIR assetscan|ondemand|scheduled|postinstall [flag] "
         "[auditid]\n"
         "       tarninventory --version | --help\n"
         "\n"
         "Runs one inventory scan of this computer and sends it to the management server.\n"
         "Start it as root with its working directory at BASE/bin of the agent folder.\n"
         "\n"
         "  assetscan, postinstall  full scan\n"
         "  scheduled               difference scan (full when there is no trusted snapshot)\n"
         "  ondemand [flag]         difference scan; the flag 1 asks for a full scan\n"
         "  auditid                 audit id sent with the inventory (default 12345)\n"
         "  --local DIR             write the documents into DIR instead of sending them: no\n"
         "                          server, no resource id; the state store, the snapshot and\n"
         "                          the access log stay as they are\n"
         "  --version               print the version and the commit it was built from\n"
         "  --help                  print this text\n"
         "\n"
         "The agent folder:\n"
         "  BASE/data/serverinfo.plist          management server, ports, customer\n"
         "  BASE/data/agent-conf.plist          Loglevel, REPORT_MODERN_DISKS, TLS settings;\n"
         "                                      TOOL_REPLAY_DIRECTORY, TOOL_REPLAY_TIMING,\n"
         "                                      TOOL_GATHER_SERIAL\n"
         "  BASE/data/resource.plist            this computer's resource id\n"
         "  BASE/data/data-dictionary*.xml      table definitions\n"
         "  BASE/data/Mac_InvClasses.xml        inventory class catalogue\n"
         "  BASE/data/tarninventory_data.plist  scan state store\n"
         "  BASE/data/invFullData               snapshot of the last accepted scan\n"
         "  BASE/logs/tarndevicescan.log        scan log\n"
         "  BASE/logs/tarndevicescanaccess.log  one line per run\n"
         "\n"
         "Exit code: 0 once the upload step was reached, 1 when the run stopped earlier.\n";
}

}  // namespace tarn
