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
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/text/log_text.h"
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

// A pipe whose two ends are above the standard descriptors and close-on-exec.
struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;
};

std::optional<Pipe> MakePipe() {
  int ends[2];
  if (::pipe(ends) != 0) return std::nullopt;  // pipe2 is not everywhere (macOS)
  Pipe made{AboveStandardDescriptors(UniqueFd(ends[0])),
            AboveStandardDescriptors(UniqueFd(ends[1]))};
  if (!made.readEnd.valid() || !made.writeEnd.valid() || !SetCloseOnExec(made.readEnd.get()) ||
      !SetCloseOnExec(made.writeEnd.get())) {
    return std::nullopt;
  }
  return made;
}

class SpawnAttributes {
 public:
  SpawnAttributes() { ok_ = posix_spawnattr_init(&attributes_) == 0; }
  ~SpawnAttributes() {
    if (ok_) posix_spawnattr_destroy(&attributes_);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  // On macOS every descriptor the file actions do not name is closed in the child.
  bool CloseUnnamedDescriptors() {
    if (!ok_) return false;
#ifdef POSIX_SPAWN_CLOEXEC_DEFAULT
    return posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_CLOEXEC_DEFAULT) == 0;
#else
    return true;
#endif
  }
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
  bool ok_ = false;
};

class SpawnFileActions {
 public:
  SpawnFileActions() { ok_ = posix_spawn_file_actions_init(&actions_) == 0; }
  ~SpawnFileActions() {
    if (ok_) posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnFileActions(const SpawnFileActions&) = delete;
  SpawnFileActions& operator=(const SpawnFileActions&) = delete;

  // Standard input from /dev/null, standard output and error to the descriptors, and nothing
  // else of this process's: a tool never holds the log, the lock or a connection.
  bool Redirect(int outputFd, int errorFd) {
    return ok_ &&
           posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0) ==
               0 &&
           posix_spawn_file_actions_adddup2(&actions_, outputFd, STDOUT_FILENO) == 0 &&
           posix_spawn_file_actions_adddup2(&actions_, errorFd, STDERR_FILENO) == 0 &&
           CloseAboveStandardDescriptors();
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  bool CloseAboveStandardDescriptors() {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    return posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1) == 0;
#elif defined(POSIX_SPAWN_CLOEXEC_DEFAULT)
    return true;  // SpawnAttributes::CloseUnnamedDescriptors
#else
    // Close every open descriptor that would survive the exec. Tools may be started from
    // several threads at once: a pipe another thread makes between this scan and the spawn
    // is not in the list, which is why the two fuller ways above are preferred.
    const long limit = std::min(::sysconf(_SC_OPEN_MAX), 65536L);
    for (int fd = STDERR_FILENO + 1; fd < limit; ++fd) {
      const int flags = ::fcntl(fd, F_GETFD);
      if (flags >= 0 && (flags & FD_CLOEXEC) == 0 &&
          posix_spawn_file_actions_addclose(&actions_, fd) != 0) {
        return false;
      }
    }
    return true;
#endif
  }

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

  // The status a shell that ran the child would end with.
  int ShellStatus() const {
    if (!reaped_) return kShellCannotLaunch;
    if (WIFSIGNALED(status_)) return ShellStatusOfExitCode(128 + WTERMSIG(status_));
    return ShellStatusOfExitCode(WEXITSTATUS(status_));
  }

 private:
  pid_t pid_;
  int status_ = 0;
  bool reaped_ = false;
};

// The read end of a pipe from the child and what came through it since it was last taken.
class PipeReader {
 public:
  explicit PipeReader(UniqueFd readEnd) : readEnd_(std::move(readEnd)) {}

  int fd() const { return readEnd_.get(); }
  bool AtEnd() const { return atEnd_; }

  // One read; false when nothing more can be had right now.
  bool ReadOnce() {
    if (atEnd_) return false;
    char buffer[65536];
    ssize_t got;
    do {
      got = ::read(readEnd_.get(), buffer, sizeof buffer);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
      received_.append(buffer, static_cast<std::size_t>(got));
      return true;
    }
    if (got == 0 || errno != EAGAIN) atEnd_ = true;
    return false;
  }

  // Takes whatever is already in the pipe without waiting: after the child has ended, a
  // process it left behind may still hold the write end open.
  void DrainAvailable() {
    if (atEnd_) return;
    const int flags = ::fcntl(readEnd_.get(), F_GETFL);
    ::fcntl(readEnd_.get(), F_SETFL, flags | O_NONBLOCK);
    while (ReadOnce()) {
    }
  }

  std::string Take() { return std::exchange(received_, std::string()); }

 private:
  UniqueFd readEnd_;
  std::string received_;
  bool atEnd_ = false;
};

// Passes a tool's standard error to this process's, one console line per line of it, each
// naming the tool, with control characters written "\xNN": whatever a tool prints there
// (through this process's standard error it lands in the scan log) cannot start a line that
// looks like one of the log's own. At most kBudget bytes per run are passed on. With `kept`,
// the lines are appended there instead of written.
class ErrorForwarder {
 public:
  ErrorForwarder(const std::string& launchPath, std::vector<std::string>* kept)
      : prefix_(launchPath + ": "), kept_(kept) {}
  ErrorForwarder(const ErrorForwarder&) = delete;
  ErrorForwarder& operator=(const ErrorForwarder&) = delete;
  ~ErrorForwarder() {
    if (!pending_.empty()) Write(pending_);
  }

  void Take(std::string bytes) {
    if (dropped_) return;
    pending_ += bytes;
    for (auto end = pending_.find('\n'); end != std::string::npos; end = pending_.find('\n')) {
      Write(std::string_view(pending_).substr(0, end));
      pending_.erase(0, end + 1);
      if (dropped_) return;
    }
    if (pending_.size() >= kLongestLine) {
      Write(pending_);
      pending_.clear();
    }
  }

 private:
  static constexpr std::size_t kBudget = 64 * 1024;
  static constexpr std::size_t kLongestLine = 4096;

  void Write(std::string_view line) {
    if (dropped_) return;
    if (line.size() > kBudget - passed_) {
      Emit(prefix_ + "(further standard error not logged)");
      dropped_ = true;
      pending_.clear();
      return;
    }
    passed_ += line.size();
    Emit(prefix_ + EscapeControlCharacters(line));
  }

  void Emit(std::string message) {
    if (kept_ != nullptr) {
      kept_->push_back(std::move(message));
    } else {
      ConsoleLogMessage(message);
    }
  }

  std::string prefix_;
  std::vector<std::string>* kept_;
  std::string pending_;
  std::size_t passed_ = 0;
  bool dropped_ = false;
};

// The pipes of a running child: its standard output, kept (absent when it goes to a file),
// and its standard error, forwarded as it comes.
class ChildStreams {
 public:
  ChildStreams(std::optional<PipeReader> output, PipeReader errors, const std::string& launchPath,
               std::vector<std::string>* kept)
      : output_(std::move(output)), errors_(std::move(errors)), forwarder_(launchPath, kept) {}

  bool AtEnd() const { return errors_.AtEnd() && (!output_ || output_->AtEnd()); }

  // Waits up to the timeout for something from the child and takes what arrived.
  void Pump(milliseconds timeout) {
    pollfd entries[2];
    nfds_t count = 0;
    if (!errors_.AtEnd()) entries[count++] = {errors_.fd(), POLLIN, 0};
    if (output_ && !output_->AtEnd()) entries[count++] = {output_->fd(), POLLIN, 0};
    const int ready =
        ::poll(count > 0 ? entries : nullptr, count, static_cast<int>(timeout.count()));
    if (ready <= 0) return;
    for (nfds_t i = 0; i < count; ++i) {
      if (entries[i].revents == 0) continue;
      if (entries[i].fd == errors_.fd()) {
        errors_.ReadOnce();
      } else {
        output_->ReadOnce();
      }
    }
    Forward();
  }

  void DrainAvailable() {
    if (output_) output_->DrainAvailable();
    errors_.DrainAvailable();
    Forward();
  }

  std::string TakeOutput() { return output_ ? output_->Take() : std::string(); }

 private:
  void Forward() { forwarder_.Take(errors_.Take()); }

  std::optional<PipeReader> output_;
  PipeReader errors_;
  ErrorForwarder forwarder_;
};

std::string ErrorText(int error) { return std::system_category().message(error); }

// Launches the tool with its standard output and error on the descriptors; raises
// PlatformException when it cannot be launched.
std::optional<pid_t> Spawn(const std::string& launchPath, const std::vector<std::string>& arguments,
                           int outputFd, int errorFd) {
  SpawnFileActions actions;
  SpawnAttributes attributes;
  if (!actions.Redirect(outputFd, errorFd) || !attributes.CloseUnnamedDescriptors()) {
    return std::nullopt;
  }
  std::vector<std::string> argumentStorage;
  argumentStorage.reserve(arguments.size() + 1);
  argumentStorage.push_back(launchPath);
  argumentStorage.insert(argumentStorage.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& argument : argumentStorage) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int error =
      posix_spawn(&pid, launchPath.c_str(), actions.get(), attributes.get(), argv.data(), environ);
  if (error != 0) {
    RaiseLaunchFailure(launchPath, ErrorText(error));
  }
  return pid;
}

// Lets the child run while reading its pipes, until it has ended (true) or the deadline
// has passed (false).
bool WaitUntil(ChildProcess& child, ChildStreams& streams, Clock::time_point deadline) {
  // Short slices once the pipes are closed, longer ones while output may still come; either
  // way the child's end is noticed promptly.
  constexpr milliseconds kSliceAfterPipeEnd{5};
  constexpr milliseconds kSliceWhileReading{100};
  for (;;) {
    if (child.HasEnded()) return true;
    const auto now = Clock::now();
    if (now >= deadline) return false;
    const auto remaining = std::chrono::ceil<milliseconds>(deadline - now);
    streams.Pump(std::min(remaining, streams.AtEnd() ? kSliceAfterPipeEnd : kSliceWhileReading));
  }
}

void WaitWithoutLimit(ChildProcess& child, ChildStreams& streams) {
  while (!WaitUntil(child, streams, Clock::now() + std::chrono::hours(1))) {
  }
}

void Terminate(ChildProcess& child, ChildStreams& streams, milliseconds grace) {
  child.Signal(SIGTERM);
  if (WaitUntil(child, streams, Clock::now() + grace)) return;
  child.Signal(SIGKILL);
  child.WaitBlocking();
}

void WaitBounded(ChildProcess& child, ChildStreams& streams,
                 const PosixToolRunner::Timing& timing) {
  for (int step = 0;; ++step) {
    if (WaitUntil(child, streams, Clock::now() + timing.stepLength)) return;
    if (step == timing.stepLimit) {
      Terminate(child, streams, timing.terminationGrace);
      return;
    }
  }
}

std::optional<std::string> RunCapturing(const std::string& launchPath,
                                        const std::vector<std::string>& arguments, WaitPolicy wait,
                                        const PosixToolRunner::Timing& timing,
                                        std::vector<std::string>* kept) {
  std::optional<Pipe> output = MakePipe();
  std::optional<Pipe> errors = MakePipe();
  if (!output || !errors) return std::nullopt;
  const auto pid = Spawn(launchPath, arguments, output->writeEnd.get(), errors->writeEnd.get());
  // The child holds the only write ends now, so its exit ends the pipes.
  output->writeEnd.Close();
  errors->writeEnd.Close();
  if (!pid) return std::nullopt;
  ChildProcess child(*pid);
  ChildStreams streams(PipeReader(std::move(output->readEnd)),
                       PipeReader(std::move(errors->readEnd)), launchPath, kept);
  if (wait == WaitPolicy::kUnbounded) {
    WaitWithoutLimit(child, streams);
  } else {
    WaitBounded(child, streams, timing);
  }
  streams.DrainAvailable();
  std::string text = streams.TakeOutput();
  if (!IsValidUtf8(text)) return std::nullopt;
  return text;
}

// The runner's own line about a run that failed inside it, written or kept.
void ReportFailure(const std::string& launchPath, const std::exception& failure,
                   std::vector<std::string>* kept) {
  std::string message = "PosixToolRunner: running " + EscapeControlCharacters(launchPath) +
                        " failed: " + EscapeControlCharacters(failure.what());
  if (kept != nullptr) {
    kept->push_back(std::move(message));
  } else {
    ConsoleLogMessage(message);
  }
}

std::optional<std::string> RunWithOutput(const std::string& launchPath,
                                         const std::vector<std::string>& arguments,
                                         WaitPolicy wait, const PosixToolRunner::Timing& timing,
                                         std::vector<std::string>* kept) {
  try {
    return RunCapturing(launchPath, arguments, wait, timing, kept);
  } catch (const PlatformException&) {
    throw;
  } catch (const std::exception& failure) {
    ReportFailure(launchPath, failure, kept);
    return std::nullopt;
  }
}

int RunIntoFile(const std::string& launchPath, const std::vector<std::string>& arguments,
                const std::string& outputPath, std::vector<std::string>* kept) {
  try {
    UniqueFd output = CreateFreshOutputFile(outputPath);
    if (!output.valid()) return kShellOutputFailed;
    std::optional<Pipe> errors = MakePipe();
    if (!errors) return kShellCannotLaunch;
    const auto pid = Spawn(launchPath, arguments, output.get(), errors->writeEnd.get());
    output.Close();
    errors->writeEnd.Close();
    if (!pid) return kShellCannotLaunch;
    ChildProcess child(*pid);
    ChildStreams streams(std::nullopt, PipeReader(std::move(errors->readEnd)), launchPath, kept);
    WaitWithoutLimit(child, streams);
    streams.DrainAvailable();
    return child.ShellStatus();
  } catch (const std::exception& failure) {
    ReportFailure(launchPath, failure, kept);
    return kShellCannotLaunch;
  }
}

}  // namespace

std::optional<std::string> PosixToolRunner::Run(const std::string& launchPath,
                                                const std::vector<std::string>& arguments,
                                                WaitPolicy wait) {
  return RunWithOutput(launchPath, arguments, wait, timing_, nullptr);
}

int PosixToolRunner::RunToFile(const std::string& launchPath,
                               const std::vector<std::string>& arguments,
                               const std::string& outputPath) {
  return RunIntoFile(launchPath, arguments, outputPath, nullptr);
}

std::optional<std::string> PosixToolRunner::RunKeepingLog(
    const std::string& launchPath, const std::vector<std::string>& arguments, WaitPolicy wait,
    std::vector<std::string>& lines) {
  return RunWithOutput(launchPath, arguments, wait, timing_, &lines);
}

int PosixToolRunner::RunToFileKeepingLog(const std::string& launchPath,
                                         const std::vector<std::string>& arguments,
                                         const std::string& outputPath,
                                         std::vector<std::string>& lines) {
  return RunIntoFile(launchPath, arguments, outputPath, &lines);
}

}  // namespace tarn
