#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/file/file_util.h"
#include "platform/platform.h"

namespace tarn {

// A tool run known before it is asked for.
struct PlannedCommand {
  std::string launchPath;
  std::vector<std::string> arguments;
  // RunToFile (the output goes to a private file handed over when asked for); otherwise Run
  // with this wait policy, whatever policy the later request names.
  bool toFile = false;
  WaitPolicy wait = WaitPolicy::kBounded;
  // Commands known once this one has ended, from its standard output (the file's content
  // for toFile). Runs on a worker thread: it must not log or touch the run's state.
  std::function<std::vector<PlannedCommand>(std::string_view output)> then;
};

// A tool runner that runs planned commands side by side, at most `parallel` tools at a time,
// on worker threads over the inner runner, and answers a request for a planned command
// (same launch path and arguments, Run or RunToFile as planned) with its result, waiting
// while it still runs. A planned command runs once however often it is asked for (a file
// output: until it is handed over, below). A request for a command still waiting moves it to
// the front; an unplanned request runs, as asked, on the next free worker (so no more than
// `parallel` tools ever run).
//
// What the inner runner logs about a run (the tool's standard error, its own failures) is
// kept and written when the result is handed to a request, every time it is, and a launch
// failure raises there: the log reads as if each request had run its tool at that moment.
// A RunToFile answer moves the private output to the requested path under the same rules as
// the live runner (replacing a file, mode 0600, never through a link), so it is handed over
// once: a later request for the same file output runs the tool again, as without the gather.
// No private file means the tool never made one, and the requested path is left as it is.
class SideBySideToolRunner final : public ToolRunner {
 public:
  static constexpr int kDefaultParallel = 4;

  // scratchParent: where the private folder for planned file outputs is made (as
  // ScratchDirectory, so a killed run's folder is cleaned up by the next).
  SideBySideToolRunner(std::unique_ptr<ToolRunner> inner, const std::string& scratchParent,
                       int parallel = kDefaultParallel);
  // Drops the commands not yet started and waits for the running ones.
  ~SideBySideToolRunner() override;
  SideBySideToolRunner(const SideBySideToolRunner&) = delete;
  SideBySideToolRunner& operator=(const SideBySideToolRunner&) = delete;

  // Queues the commands in order; one already planned is passed over.
  void Plan(std::vector<PlannedCommand> commands);

  // Stops as the destructor does and gives the inner runner back.
  std::unique_ptr<ToolRunner> Finish();

  std::optional<std::string> Run(const std::string& launchPath,
                                 const std::vector<std::string>& arguments,
                                 WaitPolicy wait) override;
  int RunToFile(const std::string& launchPath, const std::vector<std::string>& arguments,
                const std::string& outputPath) override;

 private:
  struct Task;
  using TaskPtr = std::shared_ptr<Task>;

  void PlanLocked(std::vector<PlannedCommand> commands);
  void WorkerLoop();
  void Execute(Task& task);
  // The planned task of the command, moved to the front when still waiting; or a new one-off
  // task at the front (a file output going straight to outputPath). Waits until it has ended.
  TaskPtr Answer(const std::string& launchPath, const std::vector<std::string>& arguments,
                 bool toFile, WaitPolicy wait, const std::string& outputPath);
  void Stop();

  std::unique_ptr<ToolRunner> inner_;
  ScratchDirectory scratch_;
  std::mutex mutex_;
  std::condition_variable queued_;  // a command waits for a worker, or the runner stops
  std::condition_variable ended_;   // a task has ended
  std::vector<TaskPtr> planned_;
  std::deque<TaskPtr> waiting_;
  bool stopping_ = false;
  int fileCount_ = 0;
  std::vector<std::thread> workers_;
};

// Runs the planned commands side by side on the platform's tool runner for its lifetime,
// then puts the platform's runner back (after waiting for the tools still running).
class SideBySideGather {
 public:
  SideBySideGather(Platform& platform, std::vector<PlannedCommand> plan,
                   const std::string& scratchParent,
                   int parallel = SideBySideToolRunner::kDefaultParallel);
  ~SideBySideGather();
  SideBySideGather(const SideBySideGather&) = delete;
  SideBySideGather& operator=(const SideBySideGather&) = delete;

 private:
  Platform& platform_;
  SideBySideToolRunner* runner_;  // owned by the platform while this lives
};

}  // namespace tarn
