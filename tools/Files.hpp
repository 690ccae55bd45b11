// The files a command works on: one into another, or many into a folder, side by side.
#ifndef KEL_TOOLS_FILES_HPP
#define KEL_TOOLS_FILES_HPP

#include <kel/host/errors.hpp>
#include <kel/host/parallel.hpp>
#include <kel/host/streams.hpp>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace kel::host {
struct Image;
}

namespace kel::tool {

/// How the command ends.
enum ExitCode : int {
  kDone = 0,
  kUsage = 1,
  kBadInput = 2,
  kIncompleteInput = 3,
  kBadOutput = 4,
  kMemoryLimit = 5
};

/// A command line that contradicts itself; ends with exit code 1.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Options that every command on files has.
struct FileOptions {
  std::vector<std::string> files;  ///< IN OUT, or any number of INs with a folder
  std::string outputDir;
  unsigned jobs = 0;
  bool quiet = false;
  bool verbose = false;
};
void AddFileOptions(CLI::App& command, FileOptions& options);

/// One file to work on.
struct Task {
  std::string input, output;  ///< output is empty when the command needs none
  unsigned threads = 1;
  host::Progress progress;
  bool verbose = false;  ///< tell what was done
};

/// What is left to vary in RunTasks.
struct TaskSettings {
  std::string ending;           ///< of output files in a folder, ".kel"
  bool outputOptional = false;  ///< IN alone is allowed
  std::string memoryAdvice;     ///< appended to messages about the memory limit
};

/// Runs work on the files: one file on all threads, or several side by side on one thread each.
/// Failures are printed, at the end when there are several files, and the rest is done. work
/// returns an exit code; so does RunTasks: the first failure's.
int RunTasks(const FileOptions& options, const TaskSettings& settings,
             const std::function<int(const Task&)>& work);

/// Everything of a file; "-" is standard input. Throws Error (kInput).
host::Bytes ReadInput(const std::string& path);
/// The name of a file for messages.
std::string NameOf(const std::string& path);

/// "0.013 s, 55.4 MB/s" of the samples, for work that took since the time given.
std::string Speed(const host::Image& image, std::chrono::steady_clock::time_point since);

/// Exit code and message of the exception that is being handled.
int ExitCodeOf(const host::Error& error);
std::string Describe(const host::Error& error);

/// Half of the machine's memory.
std::uint64_t HalfOfMemory();

}  // namespace kel::tool

#endif
