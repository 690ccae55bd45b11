// The subcommands of `kel`. Each Add function declares one with its options; when it was chosen on
// the command line, `run` becomes the function that does its work and returns the exit code.
#ifndef KEL_TOOLS_COMMANDS_HPP
#define KEL_TOOLS_COMMANDS_HPP

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace kel::host {
struct DecodeReport;
struct EncodeParams;
struct Image;
}  // namespace kel::host

namespace kel::tool {

using Run = std::function<int()>;

void AddEncodeCommand(CLI::App& app, Run& run);
void AddDecodeCommand(CLI::App& app, Run& run);
void AddInfoCommand(CLI::App& app, Run& run);
void AddPreviewCommand(CLI::App& app, Run& run);
void AddCompareCommand(CLI::App& app, Run& run);
void AddTrimCommand(CLI::App& app, Run& run);
void AddCheckCommand(CLI::App& app, Run& run);
void AddRepairCommand(CLI::App& app, Run& run);
void AddBenchCommand(CLI::App& app, Run& run);

/// Options of coding, which encode and preview share.
struct CodingOptions {
  bool lossless = false;
  int quality = 60;
  bool plain = false;
  std::string chroma = "444";
  std::string tile;  ///< "WxH", empty for the default
  std::optional<unsigned> levels;
  bool noColourTransform = false;
  std::string mask;  ///< file name
};
void AddCodingOptions(CLI::App& command, CodingOptions& options);
/// The parameters that they stand for, all but the mask.
host::EncodeParams ParamsOf(const CodingOptions& options);
/// Reads the mask's file, whose samples are nonzero inside the region.
host::Image ReadMask(const std::string& name);

/// The exit code for what was decoded, after a warning when some of it was missing.
int WarnOfMissing(const std::string& input, const host::DecodeReport& report);

/// An image from an image file or, decoded, from an encoded one.
host::Image LoadAnyImage(const std::string& name, unsigned threads);

}  // namespace kel::tool

#endif
