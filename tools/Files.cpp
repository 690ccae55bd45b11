// Matching inputs with outputs, working through them, and telling how it went.
#include "Files.hpp"

#include <unistd.h>
#include <kel/host/image.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <new>
#include <set>

#include "Console.hpp"
#include "OutputFile.hpp"

namespace kel::tool {
namespace {

namespace fs = std::filesystem;
using host::Error;
using host::Failure;

/// How one task ended; no message for success.
struct Outcome {
  int code = kDone;
  std::string message;
};

/// The file that a failure is about, where it does not say so itself.
std::string BlameFor(const Task& task, const Error& error) {
  if (!error.File().empty()) return {};
  const bool output = error.Kind() == Failure::kOutput && !task.output.empty();
  const std::string name = output && task.output != kStandardStream ? task.output
                           : output                                 ? "standard output"
                                                                    : NameOf(task.input);
  return name + ": ";
}

Outcome RunOne(const Task& task, const TaskSettings& settings,
               const std::function<int(const Task&)>& work) {
  try {
    return {work(task), {}};
  } catch (const Error& error) {
    const bool advise = error.Kind() == Failure::kMemory;
    return {ExitCodeOf(error), BlameFor(task, error) + Describe(error) +
                                   (advise ? settings.memoryAdvice : std::string())};
  } catch (const std::bad_alloc&) {
    return {kMemoryLimit, NameOf(task.input) + ": out of memory"};
  } catch (const UsageError&) {
    throw;
  } catch (const std::exception& error) {
    return {kBadInput, NameOf(task.input) + ": " + error.what()};
  }
}

std::vector<Task> TasksOf(const FileOptions& options, const TaskSettings& settings) {
  const auto& files = options.files;
  if (options.outputDir.empty()) {
    if (files.size() == 2) return {{files[0], files[1], 1, {}, options.verbose}};
    if (files.size() == 1 && settings.outputOptional) {
      return {{files[0], {}, 1, {}, options.verbose}};
    }
    throw UsageError(files.size() < 2 ? "an input and an output are needed"
                                      : "several inputs need --output-dir");
  }
  std::vector<Task> tasks;
  std::set<std::string> outputs;
  for (const std::string& file : files) {
    if (file == kStandardStream) throw UsageError("standard input has no name for --output-dir");
    const fs::path name = fs::path(file).stem().string() + settings.ending;
    const std::string output = (fs::path(options.outputDir) / name).string();
    if (!outputs.insert(output).second) {
      throw UsageError("two of the inputs would become " + output);
    }
    tasks.push_back({file, output, 1, {}, options.verbose});
  }
  return tasks;
}

int RunMany(std::vector<Task>& tasks, const FileOptions& options, const TaskSettings& settings,
            const std::function<int(const Task&)>& work) {
  std::error_code error;
  fs::create_directories(options.outputDir, error);
  if (error) {
    throw Error(Failure::kOutput, options.outputDir, "cannot be created: " + error.message());
  }
  std::vector<Outcome> outcomes(tasks.size());
  {
    ProgressBar bar(!options.quiet);
    std::mutex mutex;
    std::size_t done = 0;
    host::ForEachIndex(tasks.size(), host::ThreadCount(options.jobs),
                       [&](unsigned, std::size_t index) {
                         outcomes[index] = RunOne(tasks[index], settings, work);
                         const std::lock_guard lock(mutex);
                         bar.Show(++done, tasks.size(), tasks[index].input);
                       });
  }
  int code = kDone;
  std::size_t failures = 0;
  for (const Outcome& outcome : outcomes) {
    if (outcome.code == kDone) continue;
    if (!outcome.message.empty()) {
      PrintMessage(outcome.message);
      ++failures;
    }
    const bool worse = code == kDone || (code == kIncompleteInput && !outcome.message.empty());
    if (worse) code = outcome.code;
  }
  if (failures != 0) {
    PrintMessage(std::to_string(failures) + " of " + std::to_string(tasks.size()) +
                 " files failed");
  }
  return code;
}

}  // namespace

void AddFileOptions(CLI::App& command, FileOptions& options) {
  command.add_option("files", options.files, "IN OUT, or IN... with --output-dir")
      ->required()
      ->type_name("FILE");
  command.add_option("--output-dir", options.outputDir, "folder for the outputs of many inputs")
      ->type_name("DIR");
  command.add_option("-j,--jobs", options.jobs, "threads [one per processor]")
      ->type_name("N")
      ->check(CLI::Range(1, 1024));
  command.add_flag("--quiet", options.quiet, "no progress bar");
  command.add_flag("--verbose", options.verbose, "tell what was done, and how fast");
}

int RunTasks(const FileOptions& options, const TaskSettings& settings,
             const std::function<int(const Task&)>& work) {
  std::vector<Task> tasks = TasksOf(options, settings);
  if (!options.outputDir.empty()) return RunMany(tasks, options, settings, work);
  ProgressBar bar(!options.quiet);
  Task& task = tasks[0];
  task.threads = host::ThreadCount(options.jobs);
  if (bar.IsShown()) {
    task.progress = [&](std::size_t done, std::size_t total) {
      bar.Show(done, total, NameOf(task.input));
    };
  }
  const Outcome outcome = RunOne(task, settings, work);
  if (!outcome.message.empty()) PrintMessage(outcome.message);
  return outcome.code;
}

host::Bytes ReadInput(const std::string& path) {
  host::FileSource source =
      path == kStandardStream ? host::FileSource(stdin, NameOf(path)) : host::FileSource(path);
  host::Bytes bytes;
  host::ReadAll(source, bytes);
  return bytes;
}

std::string NameOf(const std::string& path) {
  return path == kStandardStream ? "standard input" : path;
}

std::string Speed(const host::Image& image, std::chrono::steady_clock::time_point since) {
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - since;
  double bytes = 0;
  for (const host::Plane& plane : image.planes) {
    bytes += 1.0 * plane.Width() * plane.Height() * plane.BytesPerSample();
  }
  char text[64];
  std::snprintf(text, sizeof text, "%.3f s, %.1f MB/s", seconds.count(),
                bytes / 1e6 / std::max(seconds.count(), 1e-9));
  return text;
}

int ExitCodeOf(const Error& error) {
  switch (error.Kind()) {
    case Failure::kInput:
      return kBadInput;
    case Failure::kIncomplete:
      return kIncompleteInput;
    case Failure::kOutput:
      return kBadOutput;
    case Failure::kMemory:
      return kMemoryLimit;
    default:
      return kUsage;
  }
}

std::string Describe(const Error& error) {
  return error.what() + (error.Details().empty() ? std::string() : " (" + error.Details() + ")");
}

std::uint64_t HalfOfMemory() {
  const long pages = sysconf(_SC_PHYS_PAGES), pageBytes = sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || pageBytes <= 0) return 0;
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageBytes) / 2;
}

}  // namespace kel::tool
