// Declaring and applying the options about metadata and damage.
#include "PictureOptions.hpp"

#include <kel/host/errors.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <set>

#include "Metadata.hpp"

namespace kel::tool {
namespace {

std::string CheckPage(const std::string& text) {
  unsigned page = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, page);
  const bool isNumber = parsed.ec == std::errc() && parsed.ptr == end && page != 0;
  return text == "all" || isNumber ? "" : "a page is a number from 1 on, or all";
}

/// A file of metadata. EXIF data may have the name in front that JPEG files put there.
host::Bytes ReadMetadataFile(const std::string& name) {
  constexpr std::string_view kExifName("Exif\0\0", 6);
  host::Bytes bytes = ReadInput(name);
  if (bytes.size() > kExifName.size() &&
      std::equal(kExifName.begin(), kExifName.end(), bytes.begin())) {
    bytes.erase(bytes.begin(), bytes.begin() + kExifName.size());
  }
  return bytes;
}

class ChangedFile final : public host::RowSink {
 public:
  ChangedFile(const std::string& name, host::Sink& sink, const MetadataOptions& options,
              const Task& task)
      : file_(MakeImageFile(name, sink)), name_(name), options_(options), task_(task) {}
  void Begin(const host::Image& description) override {
    host::Image changed;
    host::CopyDescription(description, changed);
    ChangeMetadata(options_, changed);
    WarnOfLosses(changed, name_, task_);
    file_->Begin(changed);
  }
  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override {
    file_->Write(count, rows, strideBytes);
  }
  void Finish() override { file_->Finish(); }

 private:
  std::unique_ptr<host::RowSink> file_;
  std::string name_;
  const MetadataOptions& options_;
  const Task& task_;
};

}  // namespace

void AddMetadataOptions(CLI::App& command, MetadataOptions& options) {
  command
      .add_flag("--strip{all}", options.strip,
                "leave metadata out; --strip=gps: where it was taken\n"
                "The colour profile, the resolution and the orientation stay, since the look of "
                "the picture depends on them.")
      ->check(CLI::IsMember({"gps", "all"}));
  command.add_option("--exif", options.exif, "take EXIF data from a file")->type_name("FILE");
  command.add_option("--icc", options.icc, "take the colour profile from a file")
      ->type_name("FILE");
  command.add_option("--xmp", options.xmp, "take XMP from a file")->type_name("FILE");
  command.add_flag("--auto-orient", options.autoOrient,
                   "turn the samples as the orientation says\n"
                   "Without it the orientation is kept beside them.");
}

void ChangeMetadata(const MetadataOptions& options, host::Image& image) {
  if (!options.strip.empty()) {
    StripMetadata(image, options.strip == "gps" ? Strip::kGps : Strip::kAll);
  }
  if (!options.exif.empty()) SetExif(image, ReadMetadataFile(options.exif));
  if (!options.icc.empty()) image.iccProfile = ReadInput(options.icc);
  if (!options.xmp.empty()) {
    const host::Bytes text = ReadInput(options.xmp);
    SetXmp(image, std::string(text.begin(), text.end()));
  }
}

bool IsToBeTurned(const MetadataOptions& options, const host::Image& image) {
  return options.autoOrient && OrientationOf(image) != 1;
}

void AddReadOptions(CLI::App& command, ReadOptions& options) {
  command
      .add_option("--page", options.page,
                  "which picture of an image file of several, or all\n"
                  "With all, the outputs get the number of the page behind their name.")
      ->type_name("N")
      ->check(CheckPage);
  command.add_flag("--strict", options.strict,
                   "refuse an image file that gives reason for a warning\n"
                   "Without it damage that can be read over is told, and the picture is taken.");
}

ReadSettings SettingsOf(const ReadOptions& options, const Task& task, unsigned page) {
  ReadSettings settings;
  settings.page = page;
  settings.warn = [&task, strict = options.strict,
                   told = std::make_shared<std::set<std::string>>()](const std::string& text) {
    if (strict) throw host::Error(host::Failure::kInput, text);
    if (told->insert(text).second) task.Warn(text);
  };
  return settings;
}

std::unique_ptr<host::RowSink> MakeChangedFile(const std::string& name, host::Sink& sink,
                                               const MetadataOptions& options, const Task& task) {
  return std::make_unique<ChangedFile>(name, sink, options, task);
}

void WarnOfLosses(const host::Image& image, const std::string& name, const Task& task) {
  const std::string losses = LossesIn(image, FormatOfName(name).value());
  if (!losses.empty()) task.Warn(losses);
}

}  // namespace kel::tool
