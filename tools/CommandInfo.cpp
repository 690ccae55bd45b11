// kel info: what a Kel file is, for people and for programs.
#include <kel/host/decode.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/probe.hpp>
#include <kel/host/session.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Commands.hpp"
#include "Console.hpp"
#include "Exif.hpp"
#include "Files.hpp"
#include "InfoJson.hpp"
#include "InfoRanges.hpp"
#include "Metadata.hpp"
#include "Text.hpp"

namespace kel::tool {
namespace {

using host::ChannelRole;
using host::Info;
using Json = nlohmann::ordered_json;

constexpr std::size_t kShownTileParts = 8;

std::string ColourText(const Info::ColourSpecification& colour) {
  switch (colour.method) {
    case 1:
      return SpaceName(colour.space);
    case 2:
      return "restricted ICC profile of " + std::to_string(colour.iccBytes) + " bytes";
    case 3:
      return "ICC profile of " + std::to_string(colour.iccBytes) + " bytes";
    default:
      return "method " + std::to_string(colour.method);
  }
}

struct InfoOptions {
  std::vector<std::string> files;
  bool json = false, ranges = false, exif = false, tileParts = false;
  host::Limits limits;
  std::uint64_t maxMemory = HalfOfMemory();
};

// ---- For people ----

/// Lines of a name and a value in columns.
class Table {
 public:
  template <class... Parts>
  void Line(const std::string& name, const Parts&... parts) {
    std::ostringstream value;
    (value << ... << parts);
    char padded[24];
    std::snprintf(padded, sizeof padded, "%-18s", name.c_str());
    std::cout << padded << value.str() << '\n';
  }
};

void PrintComponents(Table& table, const Info& info) {
  for (std::size_t c = 0; c < info.components.size(); ++c) {
    const Info::Component& component = info.components[c];
    const bool same = c != 0 && component.depth == info.components[c - 1].depth &&
                      component.width == info.components[c - 1].width;
    if (c > 3 && same && component.role == info.components[c - 1].role) continue;
    std::string use = RoleName(component.role);
    if (component.role == ChannelRole::kColour) use += " " + std::to_string(component.colour);
    if (BoxesDiffer(component)) {
      use += ", though the boxes say " + std::string(component.boxSigned ? "signed, " : "") +
             std::to_string(component.boxDepth) + " bits";
    }
    table.Line("component " + std::to_string(c), component.width, " x ", component.height, ", ",
               component.depth, " bits, ", use,
               component.xStep * component.yStep == 1
                   ? std::string()
                   : ", every " + std::to_string(component.xStep) + " x " +
                         std::to_string(component.yStep));
  }
}

void PrintExtras(Table& table, const Info& info) {
  for (const auto& colour : info.colours) table.Line("colour", ColourText(colour));
  for (const auto& channel : info.channels) {
    table.Line("channel", channel.channel, ": type ", channel.type, ", of ", channel.association);
  }
  if (info.palette) {
    table.Line("palette", info.palette->columns[0].entries.size(), " entries of ",
               info.palette->columns.size(), " channels");
  }
  if (!info.chromaKey.empty()) table.Line("chroma key", info.chromaKey.size(), " channels");
  if (info.resolution) {
    table.Line("resolution", info.resolution->x, " x ", info.resolution->y, " per inch");
  }
  if (!info.comment.empty()) table.Line("comment", Printable(Utf8(info.comment)));
  for (const std::uint64_t bytes : info.xmlBytes) table.Line("XML", bytes, " bytes");
  for (const auto& uuid : info.uuids)
    table.Line("UUID", HexId(uuid.id), ", ", uuid.bytes, " bytes");
}

void PrintTileParts(Table& table, const Info& info, std::size_t shown) {
  const std::size_t count = info.tileParts.size();
  table.Line("tile-parts", count,
             info.tilePartsRegular ? "" : ", then the data end early or are damaged");
  for (std::size_t i = 0; i < std::min(count, shown); ++i) {
    const Info::TilePart& part = info.tileParts[i];
    table.Line("", "tile ", part.tile, " part ", part.part, ": ", part.length, " bytes at ",
               part.offset);
  }
  if (count > shown) {
    table.Line("", "and ", count - shown, " more; --tile-parts lists all");
  }
}

void PrintInfo(const std::string& name, const Info& info, bool allTileParts) {
  Table table;
  const double pixels = 1.0 * info.width * info.height;
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.3f", 8.0 * static_cast<double>(info.bytes) / pixels);
  std::cout << name << '\n';
  table.Line("size", info.bytes, " bytes, ", rate, " bits per pixel");
  table.Line("form", info.boxed ? "file of boxes" : "bare code stream", ", markers 0x",
             info.flavour == 0xAB ? "AB" : "FF");
  table.Line("image", info.width, " x ", info.height,
             info.originX + info.originY == 0
                 ? std::string()
                 : " at " + std::to_string(info.originX) + ", " + std::to_string(info.originY));
  table.Line("tiles", info.tilesAcross, " x ", info.tilesDown, " of ", info.tileWidth, " x ",
             info.tileHeight);
  PrintComponents(table, info);
  table.Line("coding", info.lossless ? "reversible 5/3 filter" : "irreversible 9/7 filter", ", ",
             info.levels, " levels, ", info.layers, info.layers == 1 ? " layer, " : " layers, ",
             Order(info), info.colourTransform ? ", colour transform" : "");
  PrintExtras(table, info);
  PrintTileParts(table, info, allTileParts ? info.tileParts.size() : kShownTileParts);
}

/// The EXIF data of a file, which are among its payloads.
std::vector<ExifLine> ExifOf(host::Source& source) {
  host::DecodeParams params;
  params.acceptIncomplete = true;
  const host::RowDecoder decoder(source, params);
  return ListExif(FindExif(decoder.Description()));
}

void PrintExif(host::Source& source) {
  Table table;
  for (const ExifLine& line : ExifOf(source)) {
    table.Line(line.name, Printable(Utf8(line.value)));
  }
}

Json ExifJson(host::Source& source) {
  Json groups = Json::object();
  for (const ExifLine& line : ExifOf(source)) groups[line.group][line.name] = Utf8(line.value);
  return groups;
}

int RunInfo(const InfoOptions& options) {
  const auto& [files, asJson, withRanges, withExif, allTileParts, limits, maxMemory] = options;
  const host::Session session(maxMemory);
  Json all = Json::array();
  int code = kDone;
  for (const std::string& file : files) {
    const host::LimitScope limited(limits);
    try {
      const bool isStream = file == kStandardStream;
      const host::Bytes bytes = isStream ? ReadInput(file) : host::Bytes();
      const auto open = [&]() -> std::unique_ptr<host::Source> {
        if (isStream) return std::make_unique<host::MemorySource>(bytes);
        return OpenInput(file);
      };
      const Info info = host::Probe(*open());
      Json json;
      if (asJson) {
        json = InfoJson(NameOf(file), info);
      } else {
        PrintInfo(NameOf(file), info, allTileParts);
      }
      if (withRanges) {
        std::unique_ptr<host::RangeSource> ranges;
        if (isStream) {
          ranges = std::make_unique<host::MemoryRanges>(bytes);
        } else {
          ranges = std::make_unique<host::FileRanges>(file);
        }
        if (asJson) {
          json["byte_ranges"] = RangesJson(*ranges);
        } else {
          PrintRanges(*ranges);
        }
      }
      if (withExif && asJson) json["exif"] = ExifJson(*open());
      if (withExif && !asJson) PrintExif(*open());
      if (asJson) all.push_back(std::move(json));
    } catch (const host::Error& error) {
      std::cout.flush();
      PrintMessage((error.File().empty() ? NameOf(file) + ": " : "") + Describe(error));
      code = WorseOf(code, ExitCodeOf(error));
      if (asJson) all.push_back({{"file", NameOf(file)}, {"error", Describe(error)}});
    }
  }
  const auto replace = Json::error_handler_t::replace;
  if (asJson && (files.size() > 1 || code == kDone)) {
    std::cout << (files.size() == 1 ? all[0] : all).dump(2, ' ', true, replace) << '\n';
  }
  return code;
}

}  // namespace

void AddInfoCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App& command = *app.add_subcommand("info", "tell what Kel files are");
  command.add_option("files", options->files, "files; - is standard input")
      ->required()
      ->type_name("FILE");
  command.add_flag(
      "--json", options->json,
      "for programs: an object, or an array for many files\n"
      "A component has box_depth and box_signed when the boxes of the file describe its "
      "samples otherwise than the code stream does. The latter counts, here and in "
      "decode. A file that cannot be read has an error in the array.");
  command.add_flag("--tile-parts", options->tileParts, "all tile-parts, not the first eight");
  command.add_flag("--exif", options->exif, "the fields of the EXIF data");
  command.add_flag("--ranges", options->ranges,
                   "which bytes each tile needs at each resolution\n"
                   "Positions count from the first byte of the file; what stands in front of the "
                   "tiles is needed always.");
  AddLimitOptions(command, options->limits);
  AddMemoryOption(command, options->maxMemory, "half of the machine's memory");
  command.footer(
      "Examples:\n"
      "  kel info photo.kel\n"
      "  kel info --ranges --json map.kel | jq '.byte_ranges.tiles[] | select(.reduce == 3)'\n"
      "  kel info --json photo.kel | jq .tile_parts\n"
      "Positions of tile-parts count from the first byte of the code stream.\n");
  command.callback([options, &run] { run = [options] { return RunInfo(*options); }; });
}

}  // namespace kel::tool
