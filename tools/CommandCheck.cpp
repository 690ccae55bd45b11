// kel check: whether Kel files are what was written, for people and for programs, of any number of
// files: names are taken as they are needed, and a file that is done is forgotten.
#include <kel/host/check.hpp>
#include <kel/host/session.hpp>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>

#include "CheckText.hpp"
#include "Commands.hpp"
#include "Console.hpp"
#include "Files.hpp"
#include "Report.hpp"

namespace kel::tool {
namespace {

namespace fs = std::filesystem;
using host::CheckReport;
using host::Error;
using host::Failure;
using Json = nlohmann::ordered_json;

struct CheckOptions {
  FileOptions files;
  bool json = false;
  std::uint64_t maxMemory = HalfOfMemory();
};

// ---- Names ----

/// The names of a list one after another, separated by line feeds or, when one stands in its first
/// part, by zero bytes.
class NameList {
 public:
  explicit NameList(const std::string& path) {
    if (path != kStandardStream) {
      file_.open(path, std::ios::binary);
      if (!file_) throw Error(Failure::kInput, path, "cannot be opened");
    }
    first_.resize(kFirstPart);
    In().read(first_.data(), static_cast<std::streamsize>(first_.size()));
    first_.resize(static_cast<std::size_t>(In().gcount()));
    if (first_.find('\0') != std::string::npos) separator_ = '\0';
  }

  std::optional<std::string> Next() {
    while (true) {
      std::string name;
      const std::size_t end = first_.find(separator_, used_);
      const bool isInFirst = end != std::string::npos;
      if (used_ < first_.size() || isInFirst) {
        name = first_.substr(used_, isInFirst ? end - used_ : std::string::npos);
        used_ = isInFirst ? end + 1 : first_.size();
      }
      if (!isInFirst) {
        std::string rest;
        if (!std::getline(In(), rest, separator_) && name.empty()) return std::nullopt;
        name += rest;
      }
      if (!name.empty()) return name;
    }
  }

 private:
  static constexpr std::size_t kFirstPart = 65536;
  std::istream& In() { return file_.is_open() ? file_ : std::cin; }

  std::ifstream file_;
  std::string first_;
  std::size_t used_ = 0;
  char separator_ = '\n';
};

/// All inputs of a command line, one after another.
class Names {
 public:
  explicit Names(const FileOptions& options) : options_(options) {
    if (!options.filesFrom.empty()) list_.emplace(options.filesFrom);
  }

  std::optional<std::string> Next() {
    while (true) {
      if (auto found = NextOfFolder()) return found;
      std::optional<std::string> name;
      if (given_ < options_.files.size()) {
        name = options_.files[given_++];
      } else if (list_) {
        name = list_->Next();
      }
      std::error_code error;
      if (!name || !options_.recursive || !fs::is_directory(*name, error)) return name;
      folder_ = fs::recursive_directory_iterator(*name, error);
      if (error) throw Error(Failure::kInput, *name, "cannot be read: " + error.message());
    }
  }

 private:
  std::optional<std::string> NextOfFolder() {
    while (folder_ != fs::recursive_directory_iterator()) {
      const fs::directory_entry entry = *folder_;
      std::error_code error;
      folder_.increment(error);
      if (error) throw Error(Failure::kInput, entry.path().string(), error.message());
      if (entry.is_regular_file(error) && IsEncodedName(entry.path().filename().string())) {
        return entry.path().string();
      }
    }
    return std::nullopt;
  }

  const FileOptions& options_;
  std::size_t given_ = 0;
  std::optional<NameList> list_;
  fs::recursive_directory_iterator folder_;
};

// ---- For people ----

void AddMore(std::string& text, std::uint64_t count) {
  if (count != 0) text += "  and " + std::to_string(count) + " more\n";
}

std::string Text(const std::string& name, const CheckReport& report) {
  std::string text = name + ": " + (report.IsSound() ? "sound" : "damaged") + ", " +
                     std::to_string(report.packets) + " packets of " +
                     std::to_string(report.tiles) + " tiles" +
                     (report.checksums != 0 ? ", with checksums\n" : "\n");
  for (const host::Flaw& flaw : report.flaws) text += "  " + FlawText(flaw) + "\n";
  AddMore(text, report.numFlaws - report.flaws.size());
  for (const host::Loss& loss : report.losses) text += "  lost: " + LossText(loss) + "\n";
  AddMore(text, report.numLosses - report.losses.size());
  return text;
}

// ---- For programs ----

/// Adds those of the numbers that apply.
void AddNumbers(Json& to, std::initializer_list<std::pair<const char*, std::int64_t>> numbers) {
  for (const auto& [name, number] : numbers) {
    if (number >= 0) to[name] = number;
  }
}

Json FlawJson(const host::Flaw& flaw) {
  Json json = {{"kind", NameOf(flaw.kind)}};
  AddNumbers(json, {{"tile", flaw.tile},
                    {"part", flaw.part},
                    {"component", flaw.component},
                    {"resolution", flaw.resolution},
                    {"layer", flaw.layer},
                    {"precinct", flaw.precinct}});
  json["offset"] = flaw.offset;
  json["claimed"] = flaw.claimed;
  json["found"] = flaw.found;
  json["count"] = flaw.count;
  return json;
}

Json LossJson(const host::Loss& loss) {
  Json json = {{"tile", loss.tile}, {"tiles", loss.tiles}};
  AddNumbers(json, {{"component", loss.component}, {"resolution", loss.resolution}});
  json["missing"] = loss.missing;
  json["damaged"] = loss.damaged;
  return json;
}

Json ReportJson(const CheckReport& report) {
  Json json = {{"sound", report.IsSound()},    {"bytes", report.bytes},
               {"tiles", report.tiles},        {"tile_parts", report.tileParts},
               {"packets", report.packets},    {"checksums", report.checksums},
               {"num_flaws", report.numFlaws}, {"num_losses", report.numLosses},
               {"flaws", Json::array()},       {"losses", Json::array()}};
  for (const host::Flaw& flaw : report.flaws) json["flaws"].push_back(FlawJson(flaw));
  for (const host::Loss& loss : report.losses) json["losses"].push_back(LossJson(loss));
  return json;
}

// ---- Files ----

/// What is said of one file.
struct Checked {
  int code = kDone;
  std::string error;
  Json json = Json::object();
  std::string text;
  double seconds = 0;
};

Checked CheckFile(const std::string& name, const CheckOptions& options) {
  Checked checked;
  const auto start = std::chrono::steady_clock::now();
  const host::LimitScope limited(options.files.limits);
  try {
    const InputRanges input(name);
    const CheckReport report = host::Check(input.Get());
    checked.code = report.IsSound() ? kDone : kIncompleteInput;
    if (options.json) checked.json = ReportJson(report);
    const bool isShown = !options.json && !(options.files.quiet && report.IsSound());
    if (isShown) checked.text = Text(NameOf(name), report);
  } catch (const Error& error) {
    checked.code = ExitCodeOf(error);
    checked.error = Describe(error);
    if (error.File().empty()) checked.error = NameOf(name) + ": " + checked.error;
  } catch (const std::bad_alloc&) {
    checked.code = kMemoryLimit;
    checked.error = NameOf(name) + ": out of memory";
  }
  checked.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return checked;
}

int RunCheck(const CheckOptions& options) {
  const FileOptions& files = options.files;
  if (files.files.empty() && files.filesFrom.empty()) throw UsageError("files are missing");
  const host::Session session(options.maxMemory);
  Names names(files);
  Report report(files.report);
  std::mutex taking, telling;
  int code = kDone;
  const auto work = [&](unsigned, std::size_t) {
    while (true) {
      std::unique_lock lock(taking);
      const std::optional<std::string> name = names.Next();
      lock.unlock();
      if (!name) return;
      const Checked checked = CheckFile(*name, options);
      Json line = {{"file", NameOf(*name)}, {"code", checked.code}};
      if (!checked.error.empty()) line["error"] = checked.error;
      const std::lock_guard held(telling);
      report.Add({{"input", NameOf(*name)},
                  {"seconds", checked.seconds},
                  {"code", checked.code},
                  {"error", checked.error}});
      line.update(checked.json);
      std::cout << (options.json ? JsonLine(line) : checked.text) << std::flush;
      if (!checked.error.empty()) PrintMessage(checked.error);
      code = WorseOf(code, checked.code);
    }
  };
  const unsigned threads = host::ThreadCount(files.jobs);
  host::ForEachIndex(threads, threads, work);
  return code;
}

}  // namespace

void AddCheckCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App& command = *app.add_subcommand("check", "tell whether Kel files are damaged, and where");
  FileOptions& files = options->files;
  command.add_option("files", files.files, "files; - is standard input")->type_name("FILE");
  command.add_flag("--json", options->json,
                   "for programs: a line of JSON for each file\n"
                   "It has file, code, sound, counts, flaws with kind, place, offset from the "
                   "first byte of the file, and what is claimed and found (bytes, or tile-parts "
                   "where these are counted), and losses: which tiles, components and resolutions "
                   "(0 is the lowest) have packets that are missing or damaged. Of each list the "
                   "first thousand stand there.");
  AddListOption(command, files);
  command.add_flag("--recursive", files.recursive, "take the Kel files in folders");
  command
      .add_option("--report", files.report,
                  "add a line of JSON for each file to a file: input, seconds, exit code, error")
      ->type_name("FILE");
  AddJobsOption(command, files);
  AddLimitOptions(command, files.limits);
  AddMemoryOption(command, options->maxMemory, "half of the machine's memory");
  command.add_flag("--quiet", files.quiet, "say nothing of files that are sound");
  command.footer(
      "Examples:\n"
      "  kel check photo.kel\n"
      "  find /photos -name '*.kel' | kel check --json --files-from - > checked.jsonl\n"
      "Every bit of every band is decoded. The exit code is 3 for damage, of many files the\n"
      "worst. What files with checksums have lost is certain; without them damage can hide in\n"
      "a band that ends where it should. kel repair mends what can be mended.\n");
  command.callback([options, &run] { run = [options] { return RunCheck(*options); }; });
}

}  // namespace kel::tool
