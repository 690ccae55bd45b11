// Streams with expected samples, made by an independent implementation of the format: decoded from
// memory, from seekable and from unseekable streams, whole and in growing pieces, at reduced
// resolutions, rotated, and into host buffers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "DecodeHost.h"
#include "HostMemory.h"

namespace {

using nlohmann::json;
using test::Bytes;
using test::Decoded;
using test::DecodeJob;
using test::HostMemory;
using test::Plane;
using test::Source;

const std::filesystem::path kFolder = KEL_VECTORS;

Bytes ReadFile(const std::string& name) {
  std::ifstream file(kFolder / name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Plane ReadPlane(const json& component) {
  Plane plane{component["width"], component["height"], {}};
  const Bytes raw = ReadFile(component["raw"]);
  const std::size_t size = component["bytes_per_sample"];
  for (std::size_t i = 0; i + size <= raw.size(); i += size) {
    plane.samples.push_back(size == 2 ? raw[i] | raw[i + 1] << 8 : raw[i]);
  }
  return plane;
}

Plane Rotate(const Plane& p, KelLong orientation) {
  if (orientation == 0) return p;
  const bool isTurned = orientation != 180;
  Plane turned{isTurned ? p.height : p.width, isTurned ? p.width : p.height,
               std::vector<std::int64_t>(p.samples.size())};
  for (std::int64_t y = 0; y < p.height; ++y) {
    for (std::int64_t x = 0; x < p.width; ++x) {
      const auto [px, py] = orientation == 90    ? std::pair(p.height - 1 - y, x)
                            : orientation == 180 ? std::pair(p.width - 1 - x, p.height - 1 - y)
                                                 : std::pair(y, p.width - 1 - x);
      turned.samples[static_cast<std::size_t>(py * turned.width + px)] =
          p.samples[static_cast<std::size_t>(y * p.width + x)];
    }
  }
  return turned;
}

struct Vector {
  json description;
  Bytes data;
};

class Vectors : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    std::ifstream file(kFolder / (GetParam() + ".json"));
    vector_.description = json::parse(file);
    vector_.data = ReadFile(vector_.description["file"]);
  }

  bool Is0xFF() const { return vector_.description["flavour"] == "0xFF"; }

  /// Largest difference allowed; host buffers may be filled by the direct path.
  std::int64_t Tolerance(bool direct) const {
    const char* key = direct ? "tolerance_direct_8bit" : "tolerance";
    return vector_.description.value(key, vector_.description.value("tolerance", 0));
  }

  void ExpectPlanes(const std::vector<Plane>& planes, const json& components, KelLong orientation,
                    std::int64_t tolerance, const std::string& what) const {
    ASSERT_GE(planes.size(), components.size()) << what;
    for (const json& component : components) {
      const std::string raw = component["raw"];
      const std::size_t c = std::stoul(raw.substr(raw.rfind(".c") + 2));
      const Plane expected = Rotate(ReadPlane(component), orientation);
      ASSERT_EQ(planes[c].width, expected.width) << what;
      ASSERT_EQ(planes[c].height, expected.height) << what;
      for (std::size_t i = 0; i < expected.samples.size(); ++i) {
        ASSERT_LE(std::abs(planes[c].samples[i] - expected.samples[i]), tolerance)
            << what << ", component " << c << ", sample " << i << " is " << planes[c].samples[i]
            << " instead of " << expected.samples[i];
      }
    }
  }

  /// The components with their file names, restricted to those whose samples are given.
  json Expected(const json& components) const {
    json given = json::array();
    for (const json& component : components) {
      if (component.contains("raw")) given.push_back(component);
    }
    return given;
  }

  /// The job, with every component's own depth, which boxes may have changed.
  Decoded Run(const DecodeJob& job) const {
    const Decoded decoded = test::Decode(vector_.data, job);
    EXPECT_EQ(decoded.initCode, KelOK);
    EXPECT_EQ(decoded.frameCode, KelOK);
    EXPECT_TRUE(decoded.isComplete);
    return decoded;
  }

  Vector vector_;
  HostMemory memory_;
};

TEST_P(Vectors, FromEverySourceInEveryPiece) {
  const json& d = vector_.description;
  if (d.contains("error")) {
    for (const Source source : {Source::kMemory, Source::kSeekable}) {
      const Decoded decoded = test::Decode(vector_.data, {.source = source});
      EXPECT_EQ(decoded.initCode != KelOK ? decoded.initCode : decoded.frameCode, d["error"]);
    }
    return;
  }
  const json components = Expected(d["components"]);
  std::vector<int> depths;
  for (const Source source : {Source::kMemory, Source::kSeekable, Source::kUnseekable}) {
    // A stream that cannot be tried is taken as of the other flavour.
    if (source == Source::kUnseekable && Is0xFF()) continue;
    for (const std::size_t piece : {0, 97, 1009}) {
      if (source == Source::kUnseekable && piece != 0) continue;
      DecodeJob job{.source = source, .piece = piece};
      const std::string what =
          "source " + std::to_string(int(source)) + " piece " + std::to_string(piece);
      const Decoded decoded = Run(job);
      if (HasFailure()) FAIL() << what;
      ExpectPlanes(decoded.planes, components, 0, Tolerance(false), what);
      if (HasFatalFailure()) return;
    }
  }
}

TEST_P(Vectors, RotatedReducedAndIntoHostBuffers) {
  const json& d = vector_.description;
  if (d.contains("error")) return;
  const json components = Expected(d["components"]);
  for (const KelLong orientation : {90, 180, 270}) {
    // Rotated 16-bit output has no shift, so that every depth can be compared.
    const Decoded decoded = Run({.orientation = KelImageOrientation{orientation}});
    ExpectPlanes(decoded.planes, components, orientation, Tolerance(false),
                 "rotated by " + std::to_string(orientation));
    if (HasFailure()) return;
  }
  const auto wholeBytes = [](const json& c) { return c["depth"] == 8 || c["depth"] == 16; };
  if (std::all_of(components.begin(), components.end(), wholeBytes)) {
    for (const int misalign : {0, 1}) {
      const Decoded decoded = Run({.useHostBuffers = true, .misalign = misalign});
      ExpectPlanes(decoded.hostPlanes, components, 0, Tolerance(true), "host buffers");
      if (HasFailure()) return;
    }
    const Decoded turned = Run({.orientation = KelOrientation270, .useHostBuffers = true});
    ExpectPlanes(turned.hostPlanes, components, 270, Tolerance(false), "rotated host buffers");
  }
  if (!d.contains("reduced")) return;
  for (const auto& [aspect, reduced] : d["reduced"].items()) {
    const DecodeJob job{.piece = 211, .aspect = KelDecodePixelAspectRatio(std::stoi(aspect))};
    ExpectPlanes(Run(job).planes, Expected(reduced), 0, Tolerance(false), "aspect " + aspect);
  }
}

std::vector<std::string> Names() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(kFolder)) {
    if (entry.path().extension() == ".json") names.push_back(entry.path().stem());
  }
  std::sort(names.begin(), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(All, Vectors, testing::ValuesIn(Names()),
                         [](const auto& test) { return test.param; });

}  // namespace
