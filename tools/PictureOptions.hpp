// Options about what stands beside the samples, and about damage in image files: what encode,
// decode and preview have in common.
#ifndef KEL_TOOLS_PICTURE_OPTIONS_HPP
#define KEL_TOOLS_PICTURE_OPTIONS_HPP

#include <memory>
#include <string>

#include "Files.hpp"
#include "ImageFile.hpp"

namespace kel::tool {

struct MetadataOptions {
  std::string strip;           ///< empty, "gps" or "all"
  std::string exif, icc, xmp;  ///< names of files
  bool autoOrient = false;
};
void AddMetadataOptions(CLI::App& command, MetadataOptions& options);
/// Takes metadata away and puts others in.
void ChangeMetadata(const MetadataOptions& options, host::Image& image);
/// Whether the samples are to be turned, after the metadata have been changed.
bool IsToBeTurned(const MetadataOptions& options, const host::Image& image);

/// Options of commands that read image files.
struct ReadOptions {
  std::string page;  ///< empty, a number or "all"
  bool strict = false;
};
void AddReadOptions(CLI::App& command, ReadOptions& options);
/// Warnings become those of the task, each once, or failures. page: 0 unless one was asked for.
ReadSettings SettingsOf(const ReadOptions& options, const Task& task, unsigned page);

/// A sink that changes metadata on their way to another, and warns of those that it cannot hold.
std::unique_ptr<host::RowSink> MakeChangedFile(const std::string& name, host::Sink& sink,
                                               const MetadataOptions& options, const Task& task);
/// Warns of metadata that a file of that name will not hold.
void WarnOfLosses(const host::Image& image, const std::string& name, const Task& task);

}  // namespace kel::tool

#endif
