// tarn-refserver: the reference management server for development and support.
//
//   tarn-refserver --db FILE --port N [--bind ADDRESS] [--cert FILE --key FILE]
//                  [--catalogue Mac_InvClasses.xml]
//   tarn-refserver --db FILE --report [--catalogue Mac_InvClasses.xml]
//
// Serving, it prints "listening on http(s)://ADDRESS:PORT" once it accepts connections
// (with --port 0 the port is a free one), then one access-log line per request on
// standard output, and ends on SIGINT or SIGTERM. With --report it prints what the
// database holds for each computer and ends (a server may be running on it meanwhile).
#include <signal.h>
#include <unistd.h>

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

#ifndef TARN_REFSERVER_CATALOGUE
#define TARN_REFSERVER_CATALOGUE "data/Mac_InvClasses.xml"
#endif

namespace {

constexpr const char* kUsage =
    "usage: tarn-refserver --db FILE --port N [--bind ADDRESS] [--cert FILE --key FILE]\n"
    "                      [--catalogue Mac_InvClasses.xml]\n"
    "       tarn-refserver --db FILE --report [--catalogue Mac_InvClasses.xml]\n"
    "  --db         SQLite database file (created when missing)\n"
    "  --port       port to listen on; 0 takes a free one\n"
    "  --bind       address to listen on (default 127.0.0.1)\n"
    "  --cert/--key PEM certificate and key: serve HTTPS\n"
    "  --catalogue  the agent's class catalogue (default: ../share/tarninventory/ beside the\n"
    "               program, else " TARN_REFSERVER_CATALOGUE ")\n"
    "  --report     print each computer's classes and changes, then end\n";

struct Options {
  std::string database;
  std::optional<int> port;
  std::string bind = "127.0.0.1";
  std::string certificate;
  std::string key;
  std::string catalogue = tarn::refserver::DefaultCataloguePath(TARN_REFSERVER_CATALOGUE);
  bool report = false;
};

// Reads the command line; a message and nothing for a bad one.
std::optional<Options> ReadOptions(int argc, char** argv, std::string& error) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--help" || name == "-h") {
      error.clear();
      return std::nullopt;
    }
    if (name == "--report") {
      options.report = true;
      continue;
    }
    if (i + 1 >= argc) {
      error = "missing value after " + name;
      return std::nullopt;
    }
    const std::string value = argv[++i];
    if (name == "--db") {
      options.database = value;
    } else if (name == "--port") {
      const bool digits = !value.empty() && value.size() <= 5 &&
                          value.find_first_not_of("0123456789") == std::string::npos;
      if (!digits || std::stoi(value) > 65535) {
        error = "--port needs a number from 0 to 65535, not " + value;
        return std::nullopt;
      }
      options.port = std::stoi(value);
    } else if (name == "--bind") {
      options.bind = value;
    } else if (name == "--cert") {
      options.certificate = value;
    } else if (name == "--key") {
      options.key = value;
    } else if (name == "--catalogue") {
      options.catalogue = value;
    } else {
      error = "unknown option " + name;
      return std::nullopt;
    }
  }
  if (options.database.empty() || (!options.port && !options.report)) {
    error = "--db and --port (or --report) are required";
    return std::nullopt;
  }
  if (options.certificate.empty() != options.key.empty()) {
    error = "--cert and --key go together";
    return std::nullopt;
  }
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
      std::cout << tarn::refserver::ComputerReport(*details, catalogue);
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
  std::string error;
  const auto options = ReadOptions(argc, argv, error);
  if (!options) {
    if (!error.empty()) std::cerr << "tarn-refserver: " << error << "\n";
    std::cerr << kUsage;
    return error.empty() ? 0 : 2;
  }
  try {
    return options->report ? Report(*options) : Run(*options);
  } catch (const std::exception& failure) {
    std::cerr << "tarn-refserver: " << failure.what() << "\n";
    return 1;
  }
}
