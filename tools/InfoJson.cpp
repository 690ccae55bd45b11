// What is told about a file, as words and as JSON.
#include "InfoJson.hpp"

#include <cstdio>
#include <iterator>

#include "Text.hpp"

namespace kel::tool {

using host::ChannelRole;
using host::Info;
using Json = nlohmann::ordered_json;

std::string RoleName(ChannelRole role) {
  switch (role) {
    case ChannelRole::kColour:
      return "colour";
    case ChannelRole::kOpacity:
      return "opacity";
    case ChannelRole::kPremultipliedOpacity:
      return "premultiplied opacity";
    default:
      return "other";
  }
}

std::string SpaceName(std::uint32_t space) {
  switch (static_cast<host::ColourSpace>(space)) {
    case host::ColourSpace::kCmyk:
      return "CMYK";
    case host::ColourSpace::kCieLab:
      return "CIELab";
    case host::ColourSpace::kSrgb:
      return "sRGB";
    case host::ColourSpace::kGrey:
      return "grey";
    case host::ColourSpace::kSycc:
      return "sYCC";
    case host::ColourSpace::kCieJab:
      return "CIEJab";
    default:
      return "space " + std::to_string(space);
  }
}

std::string Order(const Info& info) {
  static constexpr const char* kOrders[] = {"LRCP", "RLCP", "RPCL", "PCRL", "CPRL"};
  return info.order < std::size(kOrders) ? kOrders[info.order] : std::to_string(info.order);
}

std::string HexId(const std::array<std::uint8_t, 16>& id) {
  std::string text;
  char digits[3];
  for (const std::uint8_t byte : id) {
    std::snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

bool BoxesDiffer(const Info::Component& component) {
  return component.boxDepth != 0 && (component.boxDepth != component.depth || component.boxSigned);
}

namespace {

Json ComponentsJson(const Info& info) {
  Json list = Json::array();
  for (const Info::Component& component : info.components) {
    list.push_back({{"width", component.width},
                    {"height", component.height},
                    {"depth", component.depth},
                    {"signed", false},
                    {"subsampling", {component.xStep, component.yStep}},
                    {"role", RoleName(component.role)},
                    {"colour", component.colour}});
    if (BoxesDiffer(component)) {
      list.back()["box_depth"] = component.boxDepth;
      list.back()["box_signed"] = component.boxSigned;
    }
  }
  return list;
}

Json ColoursJson(const Info& info) {
  Json list = Json::array();
  for (const auto& colour : info.colours) {
    Json entry = {{"method", colour.method},
                  {"precedence", colour.precedence},
                  {"approximation", colour.approximation}};
    if (colour.method == 1) {
      entry["space"] = colour.space;
      entry["name"] = SpaceName(colour.space);
      if (colour.cie) {
        entry["ranges"] = colour.cie->ranges;
        entry["offsets"] = colour.cie->offsets;
        if (colour.cie->illuminant != 0) entry["illuminant"] = colour.cie->illuminant;
        if (colour.cie->temperature != 0) entry["temperature"] = colour.cie->temperature;
      }
    } else if (colour.iccBytes != 0) {
      entry["icc_bytes"] = colour.iccBytes;
    }
    list.push_back(entry);
  }
  return list;
}

Json PaletteJson(const host::Palette& palette) {
  Json depths = Json::array(), columns = Json::array();
  for (const auto& column : palette.columns) {
    depths.push_back(column.depth);
    columns.push_back(column.entries);
  }
  return {{"depths", depths}, {"columns", columns}};
}

Json TilePartsJson(const Info& info) {
  Json list = Json::array();
  for (const Info::TilePart& part : info.tileParts) {
    list.push_back({{"tile", part.tile},
                    {"part", part.part},
                    {"offset", part.offset},
                    {"length", part.length}});
  }
  return list;
}

void AddExtras(Json& json, const Info& info) {
  json["colours"] = ColoursJson(info);
  Json channels = Json::array();
  for (const auto& channel : info.channels) {
    channels.push_back({channel.channel, channel.type, channel.association});
  }
  json["channel_definitions"] = channels;
  if (info.palette) json["palette"] = PaletteJson(*info.palette);
  if (!info.chromaKey.empty()) json["chroma_key"] = info.chromaKey;
  if (info.resolution) {
    json["resolution_per_inch"] = {{"horizontal", info.resolution->x},
                                   {"vertical", info.resolution->y}};
  }
  if (!info.comment.empty()) json["comment"] = Utf8(info.comment);
  json["xml"] = Json::array();
  for (const std::uint64_t bytes : info.xmlBytes) json["xml"].push_back({{"bytes", bytes}});
  json["uuid"] = Json::array();
  for (const auto& uuid : info.uuids) {
    json["uuid"].push_back({{"id", HexId(uuid.id)}, {"bytes", uuid.bytes}});
  }
}

}  // namespace

Json InfoJson(const std::string& name, const Info& info) {
  Json json = {{"file", name},
               {"bytes", info.bytes},
               {"container", info.boxed ? "boxes" : "codestream"},
               {"flavour", info.flavour == 0xAB ? "0xAB" : "0xFF"},
               {"width", info.width},
               {"height", info.height},
               {"origin", {info.originX, info.originY}},
               {"components", ComponentsJson(info)},
               {"tiles",
                {{"width", info.tileWidth},
                 {"height", info.tileHeight},
                 {"across", info.tilesAcross},
                 {"down", info.tilesDown}}},
               {"levels", info.levels},
               {"filter", info.lossless ? "5/3" : "9/7"},
               {"layers", info.layers},
               {"order", Order(info)},
               {"colour_transform", info.colourTransform}};
  AddExtras(json, info);
  json["codestream_offset"] = info.codeStreamOffset;
  json["tile_parts"] = TilePartsJson(info);
  json["tile_parts_regular"] = info.tilePartsRegular;
  return json;
}

}  // namespace kel::tool
