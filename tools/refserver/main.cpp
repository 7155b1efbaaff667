// tarn-refserver: the reference management server for development and support.
//
//   tarn-refserver --db FILE --port N [--bind ADDRESS] [--cert FILE --key FILE]
//                  [--catalogue Mac_InvClasses.xml]
//   tarn-refserver --db FILE --report [--catalogue Mac_InvClasses.xml]
//   tarn-refserver --help | --version
//
// Serving, it prints "listening on http(s)://ADDRESS:PORT" once it accepts connections
// (with --port 0 the port is a free one), then one access-log line per request on
// standard output, and ends on SIGINT or SIGTERM. With --report it prints what the
// database holds for each computer and ends (a server may be running on it meanwhile).
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/catalogue_path.h"
#include "tools/refserver/pages.h"
#include "tools/refserver/server.h"
#include "tools/refserver/store.h"
#include "tools/refserver/terminal.h"
#include "tarn_version.h"

#ifndef TARN_REFSERVER_CATALOGUE
#define TARN_REFSERVER_CATALOGUE "data/Mac_InvClasses.xml"
#endif

namespace {

struct Options {
  std::string database;
  std::optional<int> port;
  std::string bind = "127.0.0.1";
  std::string certificate;
  std::string key;
  std::string catalogue = tarn::refserver::DefaultCataloguePath(TARN_REFSERVER_CATALOGUE);
  bool report = false;
};

// Reads the command line. Nothing when the run ends here: --help and --version print on
// standard output (exit code 0), a bad command line gets its reason on standard error
// (exit code 2).
std::optional<Options> ReadOptions(int argc, char** argv, int& exitCode) {
  Options options;
  CLI::App app("The reference management server: hands out resource ids, stores the "
               "inventories agents upload and shows them.",
               "tarn-refserver");
  app.set_version_flag("--version", std::string("tarn-refserver ") + TARN_VERSION +
                                        " (commit " + TARN_COMMIT + ")");
  app.add_option("--db", options.database, "SQLite database file (created when missing)")
      ->required();
  int port = 0;
  CLI::Option* portOption = app.add_option("--port", port, "port to listen on; 0 takes a free one")
                                ->check(CLI::Range(0, 65535));
  app.add_option("--bind", options.bind, "address to listen on")->capture_default_str();
  CLI::Option* certificate =
      app.add_option("--cert", options.certificate, "PEM certificate: serve HTTPS");
  CLI::Option* key = app.add_option("--key", options.key, "PEM key of the certificate");
  certificate->needs(key);
  key->needs(certificate);
  app.add_option("--catalogue", options.catalogue, "the agent's class catalogue")
      ->capture_default_str();
  CLI::Option* report =
      app.add_flag("--report", options.report, "print each computer's classes and changes, then end");
  portOption->excludes(report);
  try {
    app.parse(argc, argv);
    if (!portOption->count() && !options.report) {
      throw CLI::RequiredError("--port (or --report)");
    }
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      exitCode = app.exit(error);
    } else {
      std::cerr << "tarn-refserver: " << error.what() << "\nRun with --help for more information.\n";
      exitCode = 2;
    }
    return std::nullopt;
  }
  if (portOption->count()) options.port = port;
  return options;
}

int Report(const Options& options) {
  if (!std::filesystem::exists(options.database)) {
    std::cerr << "tarn-refserver: no database " << options.database << "\n";
    return 1;
  }
  const tarn::refserver::Catalogue catalogue =
      tarn::refserver::Catalogue::Load(options.catalogue);
  tarn::refserver::Store store(options.database);
  const auto computers = store.Computers();
  if (computers.empty()) std::cout << "No computer yet.\n";
  for (const auto& summary : computers) {
    if (const auto details = store.Computer(summary.id)) {
      // Every text an agent sent is escaped: a computer's name cannot drive the terminal.
      std::cout << tarn::refserver::ComputerReport(tarn::refserver::TerminalSafe(*details),
                                                   catalogue);
    }
  }
  return 0;
}

int Run(const Options& options) {
  // Termination signals are taken by one thread with sigwait; every other thread
  // (the server's pool included) inherits the blocked mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const tarn::refserver::Catalogue catalogue =
      tarn::refserver::Catalogue::Load(options.catalogue);
  tarn::refserver::Store store(options.database);
  tarn::refserver::RefServer server(
      store, catalogue, [](const std::string& line) { std::cout << line << std::endl; },
      options.certificate, options.key);
  const int port = server.Bind(options.bind, *options.port);
  std::cout << "tarn-refserver: " << catalogue.classes().size() << " classes from "
            << options.catalogue << ", database " << options.database << "\n"
            << "listening on " << (server.secure() ? "https" : "http") << "://" << options.bind
            << ":" << port << std::endl;

  std::thread waiter([&server, &signals] {
    int received = 0;
    sigwait(&signals, &received);
    server.Stop();
  });
  const bool served = server.Serve();
  // Wakes the waiter when serving ended without a signal; harmless otherwise.
  kill(getpid(), SIGTERM);
  waiter.join();
  std::cout << "tarn-refserver: stopped" << std::endl;
  return served ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  int exitCode = 0;
  const auto options = ReadOptions(argc, argv, exitCode);
  if (!options) return exitCode;
  try {
    return options->report ? Report(*options) : Run(*options);
  } catch (const std::exception& failure) {
    std::cerr << "tarn-refserver: " << tarn::refserver::TerminalSafe(failure.what()) << "\n";
    return 1;
  }
}
