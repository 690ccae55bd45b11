// Inputs come from the command line, from folders and from a list; each has its place in the
// output folder: files found in a folder keep their way below it, others only their name.
#include "Tasks.hpp"

#include <algorithm>
#include <filesystem>
#include <map>

namespace kel::tool {
namespace {

namespace fs = std::filesystem;
using host::Error;
using host::Failure;

/// An input, and its path below the output folder, without ending.
struct Input {
  std::string path;
  fs::path place;
};

Input FileInput(const std::string& path) {
  return {path, fs::path(path).stem()};
}

/// Names separated by line feeds, or by zero bytes where there is one.
std::vector<std::string> ReadList(const std::string& path) {
  const host::Bytes bytes = ReadInput(path);
  const char separator = std::ranges::find(bytes, 0) == bytes.end() ? '\n' : '\0';
  std::vector<std::string> names(1);
  for (const std::uint8_t byte : bytes) {
    if (static_cast<char>(byte) == separator) {
      names.emplace_back();
    } else {
      names.back() += static_cast<char>(byte);
    }
  }
  for (std::string& name : names) {  // lists written on other systems end their lines so
    if (separator == '\n' && name.ends_with('\r')) name.pop_back();
  }
  std::erase(names, "");
  return names;
}

/// The files of a folder that are inputs, in the order of their names. The output folder, which
/// may lie inside, is passed over.
void AddFolder(const fs::path& folder, const fs::path& outputDir, const TaskSettings& settings,
               std::vector<Input>& inputs) {
  std::vector<Input> found;
  std::error_code error;
  auto walk = fs::recursive_directory_iterator(folder, error);
  if (error) throw Error(Failure::kInput, folder.string(), "cannot be read: " + error.message());
  for (const auto end = fs::recursive_directory_iterator(); walk != end; walk.increment(error)) {
    if (error) throw Error(Failure::kInput, folder.string(), "cannot be read: " + error.message());
    std::error_code ignored;
    if (walk->is_directory(ignored)) {
      if (fs::equivalent(walk->path(), outputDir, ignored)) walk.disable_recursion_pending();
      continue;
    }
    const fs::path& path = walk->path();
    if (!walk->is_regular_file(ignored) || !settings.isInput(path.filename().string())) continue;
    const fs::path below = path.lexically_relative(folder);
    found.push_back({path.string(), below.parent_path() / below.stem()});
  }
  std::ranges::sort(found, {}, &Input::path);
  std::ranges::move(found, std::back_inserter(inputs));
}

std::vector<Input> GatherInputs(const FileOptions& options, std::vector<std::string> names,
                                const std::string& outputDir, const TaskSettings& settings) {
  if (!options.filesFrom.empty()) {
    std::ranges::move(ReadList(options.filesFrom), std::back_inserter(names));
  }
  std::vector<Input> inputs;
  for (const std::string& name : names) {
    std::error_code ignored;
    if (options.recursive && fs::is_directory(name, ignored)) {
      AddFolder(name, outputDir, settings, inputs);
    } else if (name == kStandardStream) {
      throw UsageError("standard input has no name for --output-dir");
    } else {
      inputs.push_back(FileInput(name));
    }
  }
  return inputs;
}

OnExisting PolicyOf(const FileOptions& options, bool isBatch) {
  if (options.noOverwrite || options.skipExisting) return OnExisting::kKeep;
  return isBatch && !options.overwrite ? OnExisting::kKeep : OnExisting::kReplace;
}

/// Says why a task cannot be done, where that is known before its input is read.
void CheckOutput(PlannedTask& planned, const FileOptions& options, const TaskSettings& settings) {
  const Task& task = planned.task;
  if (task.output.empty() || task.output == kStandardStream || settings.manyOutputs) return;
  std::error_code ignored;
  if (IsProtected(task.output)) {
    planned.refusal = task.output + ": is one of the inputs, and stays as it is";
    planned.code = kBadOutput;
  } else if (task.onExisting == OnExisting::kKeep && fs::is_regular_file(task.output, ignored)) {
    planned.skip = options.skipExisting;
    if (planned.skip) return;
    planned.refusal = task.output + ": exists; --overwrite replaces it" +
                      (options.noOverwrite ? "" : ", --skip-existing passes over it");
    planned.code = kBadOutput;
  }
}

TaskPlan PlanBatch(const FileOptions& options, const std::vector<Input>& inputs,
                   const std::string& outputDir, const TaskSettings& settings) {
  TaskPlan plan;
  plan.isBatch = true;
  std::map<std::string, std::string> takenBy;
  std::vector<std::string> toProtect = options.otherInputs;
  for (const Input& input : inputs) toProtect.push_back(input.path);
  ProtectFiles(toProtect);
  for (const Input& input : inputs) {
    PlannedTask& planned = plan.tasks.emplace_back();
    planned.task.input = input.path;
    planned.task.output = (fs::path(outputDir) / input.place).string().append(settings.ending);
    planned.task.onExisting = PolicyOf(options, true);
    const auto [first, isNew] = takenBy.emplace(planned.task.output, input.path);
    if (isNew) {
      CheckOutput(planned, options, settings);
    } else {
      planned.refusal = input.path + ": would become " + planned.task.output + ", as does " +
                        first->second + "; its own is not written";
      planned.code = kBadOutput;
    }
  }
  return plan;
}

TaskPlan PlanOne(const FileOptions& options, const std::string& input, const std::string& output,
                 const TaskSettings& settings) {
  TaskPlan plan;
  PlannedTask& planned = plan.tasks.emplace_back();
  planned.task.input = input;
  planned.task.output = output;
  planned.task.onExisting = PolicyOf(options, false);
  std::vector<std::string> toProtect = options.otherInputs;
  toProtect.push_back(input);
  ProtectFiles(toProtect);
  CheckOutput(planned, options, settings);
  return plan;
}

bool NamesFolder(const std::string& path) {
  std::error_code ignored;
  return path != kStandardStream && (path.ends_with('/') || fs::is_directory(path, ignored));
}

}  // namespace

TaskPlan PlanTasks(const FileOptions& options, const TaskSettings& settings) {
  std::vector<std::string> names = options.files;
  std::string outputDir = options.outputDir;
  const bool outIsNamed = !options.output.empty() || !outputDir.empty();
  if (!options.output.empty() && !outputDir.empty()) {
    throw UsageError("an output and a folder for outputs contradict each other");
  }
  if (!outIsNamed && names.size() >= 2 && NamesFolder(names.back())) {
    outputDir = names.back();
    names.pop_back();
  }
  if (!options.output.empty() && NamesFolder(options.output)) outputDir = options.output;
  if (!outputDir.empty()) {
    return PlanBatch(options, GatherInputs(options, names, outputDir, settings), outputDir,
                     settings);
  }
  if (!options.filesFrom.empty() || options.recursive) {
    throw UsageError("lists and folders of inputs need --output-dir");
  }
  if (!options.output.empty()) names.push_back(options.output);
  if (names.size() == 2) return PlanOne(options, names[0], names[1], settings);
  if (names.size() == 1 && settings.outputOptional) return PlanOne(options, names[0], {}, settings);
  throw UsageError(names.size() < 2 ? "an input and an output are needed"
                                    : "several inputs need --output-dir");
}

}  // namespace kel::tool
