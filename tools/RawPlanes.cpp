// Bare planes and their description.
#include "RawPlanes.hpp"

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "OutputFile.hpp"

namespace kel::tool {
namespace {

void WriteRow(const host::Plane& plane, std::uint32_t y, host::Bytes& row) {
  row.clear();
  host::WithSampleType(plane.BytesPerSample(), [&](auto sample) {
    const auto* samples = plane.Row<decltype(sample)>(y);
    for (std::uint32_t x = 0; x < plane.Width(); ++x) {
      for (std::size_t i = 0; i < sizeof sample; ++i) {
        row.push_back(static_cast<std::uint8_t>(samples[x] >> 8 * i));
      }
    }
  });
}

}  // namespace

void WriteRawPlanes(const host::Image& image, const std::string& prefix) {
  std::vector<std::unique_ptr<OutputFile>> files;
  nlohmann::ordered_json description;
  description["width"] = image.width;
  description["height"] = image.height;
  description["components"] = nlohmann::ordered_json::array();
  for (std::size_t c = 0; c < image.planes.size(); ++c) {
    const host::Plane& plane = image.planes[c];
    const std::string name = prefix + ".c" + std::to_string(c) + ".raw";
    OutputFile& file = *files.emplace_back(std::make_unique<OutputFile>(name));
    host::Bytes row;
    for (std::uint32_t y = 0; y < plane.Height(); ++y) {
      WriteRow(plane, y, row);
      file.Write(row);
    }
    file.Close();
    description["components"].push_back({{"file", std::filesystem::path(name).filename().string()},
                                         {"width", plane.Width()},
                                         {"height", plane.Height()},
                                         {"depth", plane.Depth()},
                                         {"signed", false},
                                         {"bytes_per_sample", plane.BytesPerSample()},
                                         {"subsampling", {plane.xStep, plane.yStep}}});
  }
  OutputFile& json = *files.emplace_back(std::make_unique<OutputFile>(prefix + ".json"));
  const std::string text = description.dump(2) + "\n";
  json.Write({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  for (const auto& file : files) file->Finish();
}

}  // namespace kel::tool
