#include "platform/process/posix_tool_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/text/utf8.h"

extern char** environ;

namespace tarn {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

bool SetCloseOnExec(int fd) {
  const int flags = ::fcntl(fd, F_GETFD);
  return flags >= 0 && ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == 0;
}

class SpawnFileActions {
 public:
  SpawnFileActions() { ok_ = posix_spawn_file_actions_init(&actions_) == 0; }
  ~SpawnFileActions() {
    if (ok_) posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnFileActions(const SpawnFileActions&) = delete;
  SpawnFileActions& operator=(const SpawnFileActions&) = delete;

  // Standard input from /dev/null, standard output to the descriptor; everything else of ours
  // is close-on-exec.
  bool RedirectStandardOutput(int outputFd) {
    return ok_ &&
           posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0) ==
               0 &&
           posix_spawn_file_actions_adddup2(&actions_, outputFd, STDOUT_FILENO) == 0;
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
  bool ok_ = false;
};

// A launched child. The destructor kills and reaps a child that was not waited for, so no
// path out of the runner leaves a zombie or a stray tool behind.
class ChildProcess {
 public:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (!reaped_) {
      ::kill(pid_, SIGKILL);
      WaitBlocking();
    }
  }

  // Reaps the child when it has ended; true once it has.
  bool HasEnded() {
    if (reaped_) return true;
    pid_t result;
    do {
      result = ::waitpid(pid_, &status_, WNOHANG);
    } while (result < 0 && errno == EINTR);
    if (result == pid_ || (result < 0 && errno == ECHILD)) reaped_ = true;
    return reaped_;
  }

  void WaitBlocking() {
    while (!reaped_) {
      const pid_t result = ::waitpid(pid_, &status_, 0);
      if (result == pid_ || (result < 0 && errno != EINTR)) reaped_ = true;
    }
  }

  void Signal(int signalNumber) {
    if (!reaped_) ::kill(pid_, signalNumber);
  }

  bool ExitedWithSuccess() const {
    return reaped_ && WIFEXITED(status_) && WEXITSTATUS(status_) == 0;
  }

 private:
  pid_t pid_;
  int status_ = 0;
  bool reaped_ = false;
};

// The read end of the child's standard output and what came through it so far.
class OutputPipe {
 public:
  explicit OutputPipe(UniqueFd readEnd) : readEnd_(std::move(readEnd)) {}

  bool AtEnd() const { return atEnd_; }

  // Waits up to the timeout for output and takes what arrived.
  void Pump(milliseconds timeout) {
    if (atEnd_) {
      ::poll(nullptr, 0, static_cast<int>(timeout.count()));
      return;
    }
    pollfd entry{readEnd_.get(), POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(timeout.count()));
    if (ready > 0) ReadOnce();
  }

  // Takes whatever is already in the pipe without waiting: after the child has ended, a
  // process it left behind may still hold the write end open.
  void DrainAvailable() {
    if (atEnd_) return;
    const int flags = ::fcntl(readEnd_.get(), F_GETFL);
    ::fcntl(readEnd_.get(), F_SETFL, flags | O_NONBLOCK);
    while (!atEnd_ && ReadOnce()) {
    }
  }

  std::string TakeOutput() { return std::move(output_); }

 private:
  // One read; false when nothing more can be had right now.
  bool ReadOnce() {
    char buffer[65536];
    ssize_t got;
    do {
      got = ::read(readEnd_.get(), buffer, sizeof buffer);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
      output_.append(buffer, static_cast<std::size_t>(got));
      return true;
    }
    if (got == 0 || errno != EAGAIN) atEnd_ = true;
    return false;
  }

  UniqueFd readEnd_;
  std::string output_;
  bool atEnd_ = false;
};

std::string ErrorText(int error) { return std::system_category().message(error); }

// Launches the tool with its standard output on outputFd; raises PlatformException when it
// cannot be launched.
std::optional<pid_t> Spawn(const std::string& launchPath, const std::vector<std::string>& arguments,
                           int outputFd) {
  SpawnFileActions actions;
  if (!actions.RedirectStandardOutput(outputFd)) return std::nullopt;
  std::vector<std::string> argumentStorage;
  argumentStorage.reserve(arguments.size() + 1);
  argumentStorage.push_back(launchPath);
  argumentStorage.insert(argumentStorage.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& argument : argumentStorage) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int error =
      posix_spawn(&pid, launchPath.c_str(), actions.get(), nullptr, argv.data(), environ);
  if (error != 0) {
    RaiseLaunchFailure(launchPath, ErrorText(error));
  }
  return pid;
}

// Lets the child run while reading its output, until it has ended (true) or the deadline
// has passed (false).
bool WaitUntil(ChildProcess& child, OutputPipe& pipe, Clock::time_point deadline) {
  // Short slices once the pipe is closed, longer ones while output may still come; either
  // way the child's end is noticed promptly.
  constexpr milliseconds kSliceAfterPipeEnd{5};
  constexpr milliseconds kSliceWhileReading{100};
  for (;;) {
    if (child.HasEnded()) return true;
    const auto now = Clock::now();
    if (now >= deadline) return false;
    const auto remaining = std::chrono::ceil<milliseconds>(deadline - now);
    pipe.Pump(std::min(remaining, pipe.AtEnd() ? kSliceAfterPipeEnd : kSliceWhileReading));
  }
}

void WaitWithoutLimit(ChildProcess& child, OutputPipe& pipe) {
  while (!WaitUntil(child, pipe, Clock::now() + std::chrono::hours(1))) {
  }
}

void Terminate(ChildProcess& child, OutputPipe& pipe, milliseconds grace) {
  child.Signal(SIGTERM);
  if (WaitUntil(child, pipe, Clock::now() + grace)) return;
  child.Signal(SIGKILL);
  child.WaitBlocking();
}

std::optional<std::string> RunCapturing(const std::string& launchPath,
                                        const std::vector<std::string>& arguments, WaitPolicy wait,
                                        const PosixToolRunner::Timing& timing) {
  int ends[2];
  if (::pipe(ends) != 0) return std::nullopt;  // pipe2 is not everywhere (macOS)
  UniqueFd readEnd = AboveStandardDescriptors(UniqueFd(ends[0]));
  UniqueFd writeEnd = AboveStandardDescriptors(UniqueFd(ends[1]));
  if (!readEnd.valid() || !writeEnd.valid() || !SetCloseOnExec(readEnd.get()) ||
      !SetCloseOnExec(writeEnd.get())) {
    return std::nullopt;
  }

  const auto pid = Spawn(launchPath, arguments, writeEnd.get());
  writeEnd.Close();  // the child holds the only write end now, so its exit ends the pipe
  if (!pid) return std::nullopt;
  ChildProcess child(*pid);
  OutputPipe pipe(std::move(readEnd));

  if (wait == WaitPolicy::kUnbounded) {
    WaitWithoutLimit(child, pipe);
  } else {
    for (int step = 0;; ++step) {
      if (WaitUntil(child, pipe, Clock::now() + timing.stepLength)) break;
      if (step == timing.stepLimit) {
        Terminate(child, pipe, timing.terminationGrace);
        break;
      }
    }
  }
  pipe.DrainAvailable();
  std::string output = pipe.TakeOutput();
  if (!IsValidUtf8(output)) return std::nullopt;
  return output;
}

}  // namespace

std::optional<std::string> PosixToolRunner::Run(const std::string& launchPath,
                                                const std::vector<std::string>& arguments,
                                                WaitPolicy wait) {
  try {
    return RunCapturing(launchPath, arguments, wait, timing_);
  } catch (const PlatformException&) {
    throw;
  } catch (const std::exception& failure) {
    ConsoleLog("PosixToolRunner: running %s failed: %s", launchPath.c_str(), failure.what());
    return std::nullopt;
  }
}

bool PosixToolRunner::RunToFile(const std::string& launchPath,
                                const std::vector<std::string>& arguments,
                                const std::string& outputPath) {
  try {
    UniqueFd output = CreateFreshOutputFile(outputPath);
    if (!output.valid()) return false;
    const auto pid = Spawn(launchPath, arguments, output.get());
    output.Close();
    if (!pid) return false;
    ChildProcess child(*pid);
    child.WaitBlocking();
    return child.ExitedWithSuccess();
  } catch (const std::exception& failure) {
    ConsoleLog("PosixToolRunner: running %s failed: %s", launchPath.c_str(), failure.what());
    return false;
  }
}

}  // namespace tarn
