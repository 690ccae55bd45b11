// Streams with expected samples, made by an independent implementation of the format: decoded from
// memory, from seekable and from unseekable streams, whole and in growing pieces, at reduced
// resolutions, rotated, and into host buffers.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "DecodeHost.h"
#include "HostMemory.h"
#include "VectorFile.h"
#include "VectorNames.h"

namespace {

using nlohmann::json;
using namespace test;

const std::string kFolder = KEL_VECTORS "/";

Plane ReadPlane(const json& component) {
  Plane plane{component["width"], component["height"], {}};
  const Bytes raw = test::ReadFile(kFolder + std::string(component["raw"]));
  const std::size_t size = component["bytes_per_sample"];
  for (std::size_t i = 0; i + size <= raw.size(); i += size) {
    plane.samples.push_back(size == 2 ? raw[i] | raw[i + 1] << 8 : raw[i]);
  }
  return plane;
}

class Vectors : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    description_ = json::parse(test::ReadFile(kFolder + GetParam() + ".json"));
    data_ = test::ReadFile(kFolder + std::string(description_["file"]));
  }

  /// Largest difference allowed.
  std::int64_t Tolerance() const { return description_.value("tolerance", 0); }

  void ExpectPlanes(const std::vector<Plane>& planes, const json& components,
                    std::int64_t tolerance, const std::string& what) const {
    ASSERT_GE(planes.size(), components.size()) << what;
    for (const json& component : components) {
      if (!component.contains("raw")) continue;
      const std::string raw = component["raw"];
      const std::size_t c = std::stoul(raw.substr(raw.rfind(".c") + 2));
      const Plane expected = ReadPlane(component);
      ASSERT_TRUE(planes[c].width == expected.width && planes[c].height == expected.height) << what;
      for (std::size_t i = 0; i < expected.samples.size(); ++i) {
        ASSERT_LE(std::abs(planes[c].samples[i] - expected.samples[i]), tolerance)
            << what << ", component " << c << ", sample " << i;
      }
    }
  }

  Decoded Run(const DecodeJob& job) const {
    const Decoded decoded = test::Decode(data_, job);
    EXPECT_EQ(decoded.initCode, KelOK);
    EXPECT_EQ(decoded.frameCode, KelOK);
    EXPECT_TRUE(decoded.isComplete);
    return decoded;
  }

  json description_;
  Bytes data_;
  HostMemory memory_;
};

TEST_P(Vectors, FromEverySourceInEveryPiece) {
  const json& d = description_;
  if (d.contains("error")) {
    for (const Source source : {Source::kMemory, Source::kSeekable}) {
      const Decoded decoded = test::Decode(data_, {.source = source});
      EXPECT_EQ(decoded.initCode != KelOK ? decoded.initCode : decoded.frameCode, d["error"]);
    }
    return;
  }
  const json& components = d["components"];
  for (const Source source : {Source::kMemory, Source::kSeekable, Source::kUnseekable}) {
    // A stream that cannot be tried is taken as of the other flavour.
    if (source == Source::kUnseekable && d["flavour"] == "0xFF") continue;
    for (const std::size_t piece : {0, 97, 1009}) {
      if (source == Source::kUnseekable && piece != 0) continue;
      const std::string what =
          "source " + std::to_string(int(source)) + " piece " + std::to_string(piece);
      ExpectPlanes(Run({.source = source, .piece = piece}).planes, components, Tolerance(), what);
      if (HasFailure()) FAIL() << what;
    }
  }
}

TEST_P(Vectors, RotatedReducedAndIntoHostBuffers) {
  const json& d = description_;
  if (d.contains("error")) return;
  const json& components = d["components"];
  for (const KelLong orientation : {90, 180, 270}) {
    // Rotated 16-bit output has no shift, so that every depth can be compared.
    ExpectPlanes(Run({.orientation = KelImageOrientation{orientation}}).planes, components,
                 Tolerance(), "rotated by " + std::to_string(orientation));
    if (HasFailure()) return;
  }
  const auto wholeBytes = [](const json& c) {
    return !c.contains("raw") || c["depth"] == 8 || c["depth"] == 16;
  };
  if (std::all_of(components.begin(), components.end(), wholeBytes)) {
    for (const int misalign : {0, 1}) {
      ExpectPlanes(Run({.useHostBuffers = true, .misalign = misalign}).hostPlanes, components,
                   Tolerance(), "host buffers");
      if (HasFailure()) return;
    }
    const Decoded turned = Run({.orientation = KelOrientation270, .useHostBuffers = true});
    ExpectPlanes(turned.hostPlanes, components, Tolerance(), "rotated host buffers");
  }
  if (!d.contains("reduced")) return;
  for (const auto& [aspect, reduced] : d["reduced"].items()) {
    const DecodeJob job{.piece = 211, .aspect = KelDecodePixelAspectRatio(std::stoi(aspect))};
    ExpectPlanes(Run(job).planes, reduced, Tolerance(), "aspect " + aspect);
  }
}

INSTANTIATE_TEST_SUITE_P(All, Vectors, testing::ValuesIn(test::VectorNames()),
                         [](const auto& test) { return test.param; });

}  // namespace
