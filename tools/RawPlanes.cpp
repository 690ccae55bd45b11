// Bare planes and their description.
#include "RawPlanes.hpp"

#include <filesystem>
#include <nlohmann/json.hpp>

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

void AppendPlane(const host::Plane& plane, OutputFile& file) {
  host::Bytes row;
  for (std::uint32_t y = 0; y < plane.Height(); ++y) {
    WriteRow(plane, y, row);
    file.Write(row);
  }
}

}  // namespace

std::string RawPlanes::NameOf(std::size_t plane) const {
  return prefix_ + ".c" + std::to_string(plane) + ".raw";
}

void RawPlanes::Begin(const host::Image& description) {
  host::CopyDescription(description, description_);
  for (std::size_t c = 0; c < description.planes.size(); ++c) {
    files_.push_back(std::make_unique<OutputFile>(NameOf(c), onExisting_));
  }
}

void RawPlanes::Append(const host::Image& rows) {
  for (std::size_t c = 0; c < rows.planes.size(); ++c) AppendPlane(rows.planes[c], *files_[c]);
}

void RawPlanes::Finish() {
  nlohmann::ordered_json description;
  description["width"] = description_.width;
  description["height"] = description_.height;
  description["components"] = nlohmann::ordered_json::array();
  for (std::size_t c = 0; c < description_.planes.size(); ++c) {
    const host::Plane& plane = description_.planes[c];
    description["components"].push_back(
        {{"file", std::filesystem::path(NameOf(c)).filename().string()},
         {"width", plane.Width()},
         {"height", plane.Height()},
         {"depth", plane.Depth()},
         {"signed", false},
         {"bytes_per_sample", plane.BytesPerSample()},
         {"subsampling", {plane.xStep, plane.yStep}}});
  }
  OutputFile& json =
      *files_.emplace_back(std::make_unique<OutputFile>(prefix_ + ".json", onExisting_));
  const std::string text = description.dump(2) + "\n";
  json.Write({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  for (const auto& file : files_) file->Finish();
}

void WriteRawPlanes(const host::Image& image, const std::string& prefix, OnExisting onExisting) {
  RawPlanes planes(prefix, onExisting);
  host::CopyDescription(image, planes.description_);
  for (std::size_t c = 0; c < image.planes.size(); ++c) {
    OutputFile& file =
        *planes.files_.emplace_back(std::make_unique<OutputFile>(planes.NameOf(c), onExisting));
    AppendPlane(image.planes[c], file);
    file.Close();  // not many at a time
  }
  planes.Finish();
}

}  // namespace kel::tool
