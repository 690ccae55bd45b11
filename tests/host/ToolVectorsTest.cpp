// Streams with expected samples through the command: what it decodes, on one thread and on
// several, and what it says about them.
#include <nlohmann/json.hpp>

#include "Tool.hpp"
#include "VectorNames.h"

namespace {

using nlohmann::json;
using test::Tool;

const std::filesystem::path kFolder = KEL_VECTORS;

std::string ReadFile(const std::string& name) {
  std::ifstream file(kFolder / name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

int LargestDifference(const std::string& a, const std::string& b, std::size_t sampleBytes) {
  int largest = 0;
  for (std::size_t i = 0; i + sampleBytes <= a.size(); i += sampleBytes) {
    const auto sample = [&](const std::string& raw) {
      const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(raw[at]); };
      return sampleBytes == 1 ? byte(i) : byte(i) | byte(i + 1) << 8;
    };
    largest = std::max(largest, std::abs(sample(a) - sample(b)));
  }
  return largest;
}

class ToolVectors : public testing::TestWithParam<std::string> {
 protected:
  json description_ = json::parse(ReadFile(GetParam() + ".json"));
  std::string file_ = "'" + (kFolder / std::string(description_["file"])).string() + "'";
  Tool tool_;

  void ExpectPlanes() const {
    const json said = json::parse(tool_.folder.Get("one.json"));
    const json& components = description_["components"];
    ASSERT_EQ(said["components"].size(), components.size());
    for (std::size_t c = 0; c < components.size(); ++c) {
      const std::string name = ".c" + std::to_string(c) + ".raw";
      const std::string samples = tool_.folder.Get("one" + name);
      EXPECT_EQ(samples, tool_.folder.Get("four" + name)) << "-j 1 and -j 4 differ";
      if (!components[c].contains("raw")) continue;
      for (const char* key : {"width", "height", "depth", "subsampling", "bytes_per_sample"}) {
        EXPECT_EQ(said["components"][c][key], components[c][key]) << name << " " << key;
      }
      const std::string expected = ReadFile(components[c]["raw"]);
      ASSERT_EQ(samples.size(), expected.size()) << name;
      EXPECT_LE(LargestDifference(samples, expected, components[c]["bytes_per_sample"]),
                description_["tolerance"])
          << name;
    }
  }

  void ExpectInfo() const {
    const json info = json::parse(tool_.Do("info --json " + file_));
    for (const char* key : {"bytes", "flavour", "codestream_offset", "tile_parts"}) {
      EXPECT_EQ(info[key], description_[key]) << key;
    }
    EXPECT_EQ(info["container"] == "codestream", description_["container"] == "codestream");
    const json& canvas = description_["canvas"];
    EXPECT_EQ(info["origin"], canvas["origin"]);
    for (const int i : {0, 1}) {
      const char* side = i == 0 ? "width" : "height";
      EXPECT_EQ(int(info[side]) + int(info["origin"][i]), canvas["size"][i]);
      EXPECT_EQ(info["tiles"][side], canvas["tile"][i]);
    }
    const json& components = description_["components"];
    ASSERT_EQ(info["components"].size(), components.size());
    for (std::size_t c = 0; c < components.size(); ++c) {
      for (const char* key : {"width", "height", "depth", "subsampling"}) {
        EXPECT_EQ(info["components"][c][key], components[c][key]) << c << " " << key;
      }
      EXPECT_FALSE(info["components"][c].contains("box_depth"));
    }
    if (description_.contains("boxes")) ExpectBoxes(info, description_["boxes"]);
  }

  static void ExpectBoxes(const json& info, const json& boxes) {
    if (boxes.contains("cdef")) {
      EXPECT_EQ(info["channel_definitions"], boxes["cdef"]);
    }
    if (boxes.contains("chroma_key")) {
      EXPECT_EQ(info["chroma_key"], boxes["chroma_key"]);
    }
    if (boxes.contains("palette")) {
      EXPECT_EQ(info["palette"]["columns"], boxes["palette"]["columns"]);
    }
    const json resolution = boxes.value("resolution_per_metre", json::object());
    for (const auto& [axis, value] : resolution.items()) {
      EXPECT_NEAR(double(info["resolution_per_inch"][axis]), double(value) * 0.0254, 0.01);
    }
    const json xml = boxes.value("xml", json::array());
    ASSERT_EQ(info["xml"].size(), xml.size());
    for (std::size_t i = 0; i < xml.size(); ++i) {
      EXPECT_EQ(info["xml"][i]["bytes"], std::string(xml[i]).size());
    }
    const json uuid = boxes.value("uuid", json::array());
    for (std::size_t i = 0; i < uuid.size(); ++i) {
      EXPECT_EQ(info["uuid"][i]["id"], uuid[i][0]);
      EXPECT_EQ(2 * std::size_t(info["uuid"][i]["bytes"]), std::string(uuid[i][1]).size());
    }
    const json colours = boxes.value("colour", json::array());
    for (std::size_t i = 0; i < colours.size(); ++i) ExpectColour(info["colours"][i], colours[i]);
  }

  static void ExpectColour(const json& said, const json& colour) {
    EXPECT_EQ(said["method"], colour.value("method", 1));
    for (const auto& [key, shown] :
         {std::pair("enum", "space"), std::pair("size", "icc_bytes"),
          std::pair("prec", "precedence"), std::pair("illuminant", "illuminant"),
          std::pair("temperature", "temperature")}) {
      if (colour.contains(key)) {
        EXPECT_EQ(said.value(shown, -1), colour[key]) << key;
      }
    }
    if (!colour.contains("values")) return;
    for (std::size_t i = 0; i < 6; ++i) {
      EXPECT_EQ(said[i % 2 == 0 ? "ranges" : "offsets"][i / 2], colour["values"][i]);
    }
  }
};

TEST_P(ToolVectors, DecodeAsExpectedAndAreDescribed) {
  if (description_.contains("error")) {
    const Tool::Result result = tool_.Run("decode --raw-planes one " + file_);
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.err.find(std::string(description_["file"]) + ": "), std::string::npos);
    EXPECT_EQ(tool_.folder.NumFiles(), 0U) << "nothing may be written";
    return;
  }
  // Few open files are enough for any number of planes.
  const Tool::Result one = tool_.Run("decode -j 1 --raw-planes one " + file_, "ulimit -n 64;");
  ASSERT_EQ(one.code, 0) << one.err;
  tool_.Do("decode -j 4 --raw-planes four " + file_);
  ExpectPlanes();
  ExpectInfo();
}

INSTANTIATE_TEST_SUITE_P(All, ToolVectors, testing::ValuesIn(test::VectorNames()),
                         [](const auto& test) { return test.param; });

}  // namespace
