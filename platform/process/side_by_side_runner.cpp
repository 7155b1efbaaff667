#include "platform/process/side_by_side_runner.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <utility>

#include "platform/console_log.h"

namespace tarn {

struct SideBySideToolRunner::Task {
  PlannedCommand command;
  enum class State { kWaiting, kRunning, kEnded } state = State::kWaiting;
  // The result, set once ended.
  std::vector<std::string> lines;
  std::optional<std::string> output;
  int status = 0;
  std::exception_ptr raised;
  std::string filePath;  // the private output of a planned toFile task, the requested path of a
                         // one-off one
  bool oneOff = false;
  // A file output is handed over once (moved, not copied): a later request runs anew.
  bool handedOver = false;

  bool Is(const std::string& launchPath, const std::vector<std::string>& arguments,
          bool toFile) const {
    return command.toFile == toFile && command.launchPath == launchPath &&
           command.arguments == arguments;
  }
};

SideBySideToolRunner::SideBySideToolRunner(std::unique_ptr<ToolRunner> inner,
                                           const std::string& scratchParent, int parallel)
    : inner_(std::move(inner)), scratch_(scratchParent) {
  const int count = std::max(parallel, 1);
  workers_.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) workers_.emplace_back([this] { WorkerLoop(); });
}

SideBySideToolRunner::~SideBySideToolRunner() { Stop(); }

void SideBySideToolRunner::Stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    waiting_.clear();
  }
  queued_.notify_all();
  ended_.notify_all();
  for (std::thread& worker : workers_) {
    if (worker.joinable()) worker.join();
  }
}

std::unique_ptr<ToolRunner> SideBySideToolRunner::Finish() {
  Stop();
  return std::move(inner_);
}

void SideBySideToolRunner::Plan(std::vector<PlannedCommand> commands) {
  {
    const std::lock_guard lock(mutex_);
    PlanLocked(std::move(commands));
  }
  queued_.notify_all();
}

void SideBySideToolRunner::PlanLocked(std::vector<PlannedCommand> commands) {
  if (stopping_) return;
  for (PlannedCommand& command : commands) {
    // Without a private folder a file output is not planned: the request then runs as asked.
    if (command.toFile && !scratch_.valid()) continue;
    const bool known = std::any_of(planned_.begin(), planned_.end(), [&](const TaskPtr& task) {
      return task->Is(command.launchPath, command.arguments, command.toFile);
    });
    if (known) continue;
    auto task = std::make_shared<Task>();
    task->command = std::move(command);
    if (task->command.toFile) {
      task->filePath = scratch_.FilePath("planned-" + std::to_string(++fileCount_));
    }
    planned_.push_back(task);
    waiting_.push_back(std::move(task));
  }
}

void SideBySideToolRunner::WorkerLoop() {
  for (;;) {
    TaskPtr task;
    {
      std::unique_lock lock(mutex_);
      queued_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
      if (stopping_) return;
      task = std::move(waiting_.front());
      waiting_.pop_front();
      task->state = Task::State::kRunning;
    }
    Execute(*task);
    std::vector<PlannedCommand> next;
    if (task->command.then && !task->raised) {
      const std::optional<std::string> content =
          task->command.toFile ? ReadWholeFile(task->filePath) : task->output;
      try {
        if (content) next = task->command.then(*content);
      } catch (...) {
        // An output the follow-up cannot read plans nothing: the requests run as asked.
      }
    }
    bool planned = false;
    {
      const std::lock_guard lock(mutex_);
      task->state = Task::State::kEnded;
      planned = !next.empty();
      PlanLocked(std::move(next));
    }
    ended_.notify_all();
    if (planned) queued_.notify_all();
  }
}

void SideBySideToolRunner::Execute(Task& task) {
  const PlannedCommand& command = task.command;
  try {
    if (!command.toFile) {
      task.output =
          inner_->RunKeepingLog(command.launchPath, command.arguments, command.wait, task.lines);
    } else {
      task.status = inner_->RunToFileKeepingLog(command.launchPath, command.arguments,
                                                task.filePath, task.lines);
    }
  } catch (...) {
    task.raised = std::current_exception();
  }
}

SideBySideToolRunner::TaskPtr SideBySideToolRunner::Answer(
    const std::string& launchPath, const std::vector<std::string>& arguments, bool toFile,
    WaitPolicy wait, const std::string& outputPath) {
  std::unique_lock lock(mutex_);
  TaskPtr task;
  for (const TaskPtr& candidate : planned_) {
    if (!candidate->handedOver && candidate->Is(launchPath, arguments, toFile)) task = candidate;
  }
  if (!task) {
    task = std::make_shared<Task>();
    task->command = PlannedCommand{launchPath, arguments, toFile, wait, nullptr};
    task->filePath = outputPath;
    task->oneOff = true;
    waiting_.push_front(task);
  } else if (task->state == Task::State::kWaiting) {
    waiting_.erase(std::find(waiting_.begin(), waiting_.end(), task));
    waiting_.push_front(task);
  }
  queued_.notify_one();
  ended_.wait(lock, [&] { return task->state == Task::State::kEnded; });
  return task;
}

std::optional<std::string> SideBySideToolRunner::Run(const std::string& launchPath,
                                                     const std::vector<std::string>& arguments,
                                                     WaitPolicy wait) {
  const TaskPtr task = Answer(launchPath, arguments, false, wait, std::string());
  for (const std::string& line : task->lines) ConsoleLogMessage(line);
  if (task->raised) std::rethrow_exception(task->raised);
  return task->output;
}

namespace {

// True when path is absent or a regular file: what the live runner replaces with a fresh file.
bool IsReplaceableOutputPath(const std::string& path) {
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) != 0) return errno == ENOENT;
  return S_ISREG(existing.st_mode);
}

// Moves the private output of a planned run to path as the tool would have written it there;
// where it cannot be moved (another file system), it is copied into a fresh file under the
// live runner's rules. A path without a private output is left as it is.
int HandOver(const std::string& privatePath, const std::string& path, int status) {
  // A rename replaces the entry itself, never what a link points to, and keeps the private
  // file's owner and mode 0600: no bytes are copied however large the report.
  if (IsReplaceableOutputPath(path) && ::rename(privatePath.c_str(), path.c_str()) == 0) {
    return status;
  }
  const UniqueFd kept(::open(privatePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!kept.valid()) return status;
  const UniqueFd file = CreateFreshOutputFile(path);
  if (!file.valid() || !CopyContents(kept.get(), file.get())) return kShellOutputFailed;
  return status;
}

}  // namespace

int SideBySideToolRunner::RunToFile(const std::string& launchPath,
                                    const std::vector<std::string>& arguments,
                                    const std::string& outputPath) {
  const TaskPtr task = Answer(launchPath, arguments, true, WaitPolicy::kUnbounded, outputPath);
  for (const std::string& line : task->lines) ConsoleLogMessage(line);
  if (task->raised) return kShellCannotLaunch;
  if (task->oneOff) return task->status;  // it wrote straight to the requested path
  {
    const std::lock_guard lock(mutex_);
    task->handedOver = true;
  }
  return HandOver(task->filePath, outputPath, task->status);
}

SideBySideGather::SideBySideGather(Platform& platform, std::vector<PlannedCommand> plan,
                                   const std::string& scratchParent, int parallel)
    : platform_(platform) {
  auto runner = std::make_unique<SideBySideToolRunner>(platform.ReplaceTools(nullptr),
                                                       scratchParent, parallel);
  runner_ = runner.get();
  runner_->Plan(std::move(plan));
  platform_.ReplaceTools(std::move(runner));
}

SideBySideGather::~SideBySideGather() {
  // The platform gives the runner back; the runner gives back the one it wrapped.
  std::unique_ptr<ToolRunner> mine = platform_.ReplaceTools(nullptr);
  platform_.ReplaceTools(runner_->Finish());
}

}  // namespace tarn
