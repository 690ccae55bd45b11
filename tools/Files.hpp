// The files a command works on: one into another, or many into a folder, side by side.
#ifndef KEL_TOOLS_FILES_HPP
#define KEL_TOOLS_FILES_HPP

#include <kel/host/errors.hpp>
#include <kel/host/limits.hpp>
#include <kel/host/parallel.hpp>
#include <kel/host/ranges.hpp>
#include <kel/host/streams.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OutputFile.hpp"

namespace CLI {
class App;
}

namespace kel::host {
struct Image;
struct Region;
}  // namespace kel::host

namespace kel::tool {

/// How the command ends.
enum ExitCode : int {
  kDone = 0,
  kUsage = 1,
  kBadInput = 2,
  kIncompleteInput = 3,
  kBadOutput = 4,
  kMemoryLimit = 5,  ///< also that on pixels
  kTimeLimit = 6
};

/// The worse of two ways to end: what was lost altogether before what is incomplete.
int WorseOf(int a, int b);

/// A command line that contradicts itself; ends with exit code 1.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Options that every command on files has.
struct FileOptions {
  std::vector<std::string> files;  ///< IN OUT, IN... DIR, or INs with a folder or an output named
  std::string output;              ///< of a single input
  std::string outputDir;
  std::string filesFrom;                 ///< a file that lists further inputs
  std::vector<std::string> otherInputs;  ///< read beside each of the files
  bool recursive = false;
  bool overwrite = false, noOverwrite = false, skipExisting = false;
  std::string report;  ///< a file that gets a line of JSON for each input
  unsigned jobs = 0;
  host::Limits limits;  ///< of each file
  std::string progress = "auto";
  bool quiet = false;
  bool verbose = false;
};
void AddFileOptions(CLI::App& command, FileOptions& options);
/// Those of them that name a list of inputs, how many threads, and what every command that reads
/// has.
void AddListOption(CLI::App& command, FileOptions& options);
void AddJobsOption(CLI::App& command, FileOptions& options);
void AddLimitOptions(CLI::App& command, host::Limits& limits);

/// What work tells of itself beyond its exit code.
struct TaskNotes {
  std::optional<double> psnr;  ///< of the output against the input, where it was measured
  std::vector<std::string> warnings;
  std::vector<std::string> outputs;  ///< where they are others than the task's
};

/// One file to work on.
struct Task {
  std::string input, output;  ///< output is empty when the command needs none
  OnExisting onExisting = OnExisting::kReplace;
  unsigned threads = 1;
  host::Progress progress;  ///< empty when nobody looks
  bool verbose = false;     ///< tell what was done
  bool announce = false;    ///< tell the result
  TaskNotes* notes = nullptr;

  /// Prints a warning about the input and notes it for the report.
  void Warn(const std::string& text) const;
};

/// What is left to vary in RunTasks.
struct TaskSettings {
  std::string ending = {};      ///< of output files in a folder, ".kel"
  bool outputOptional = false;  ///< IN alone is allowed
  bool manyOutputs = false;     ///< the work names outputs of its own, beginning with the task's
  /// Whether a file found in a folder is an input, by its name.
  std::function<bool(const std::string&)> isInput = [](const std::string&) { return true; };
};

/// Runs work on the files: one file on all threads, or several side by side on one thread each.
/// Failures are told as they happen, and the rest is done. work returns an exit code; so does
/// RunTasks: the worst.
int RunTasks(const FileOptions& options, const TaskSettings& settings,
             const std::function<int(const Task&)>& work);

/// A file to read; "-" is standard input. Throws Error (kInput).
std::unique_ptr<host::Source> OpenInput(const std::string& path);
/// A file to read anywhere in; "-" is standard input, which is read whole. Throws Error (kInput).
class InputRanges {
 public:
  explicit InputRanges(const std::string& path);
  host::RangeSource& Get() const { return *ranges_; }
  /// The same from the beginning on; this outlives it.
  std::unique_ptr<host::Source> MakeSource() const;

 private:
  std::string path_;
  host::Bytes bytes_;
  std::unique_ptr<host::RangeSource> ranges_;
};
/// The rectangle that WIDTHxHEIGHT+X+Y stands for. Throws UsageError.
host::Region ParseRegion(const std::string& text);
/// Everything of a file; "-" is standard input. Throws Error (kInput).
host::Bytes ReadInput(const std::string& path);
/// Whether a name is one that Kel files and code streams have: .kel in any case.
bool IsEncodedName(const std::string& name);
/// The name of a file for messages.
std::string NameOf(const std::string& path);

/// Bytes that the samples of an image take in memory.
std::uint64_t BytesOf(const host::Image& image);
/// "0.013 s, 55.4 MB/s" of the samples, for work that took since the time given.
std::string Speed(const host::Image& image, std::chrono::steady_clock::time_point since);

/// Exit code and message of the exception that is being handled, with the option that raises the
/// limit where one was met. The message says where in the library a failure was noticed only after
/// ShowDetails.
int ExitCodeOf(const host::Error& error);
/// The same exception about a file, unless it says already which one.
[[noreturn]] void ThrowAbout(const std::string& path, const host::Error& error);
void ShowDetails(bool shown);
std::string Describe(const host::Error& error);

/// Half of the memory of the machine, or of the container when that has less.
std::uint64_t HalfOfMemory();
/// Declares --max-memory, whose value is `bytes` until it is given.
void AddMemoryOption(CLI::App& command, std::uint64_t& bytes, const std::string& preset);

}  // namespace kel::tool

#endif
