// Boxes byte by byte, against files assembled by hand.
#include "encode/KelFileFormatWrite.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "BoxText.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "OwnedOptions.h"

namespace {

using namespace test;
using Options = test::OwnedOptions;
using FileFormatWrite = test::LibraryTest;

Bytes Boxes(const KelEncOpt& options) {
  HostStream host;
  std::uint32_t length = 0;
  EXPECT_TRUE(kel::WriteBoxes(options, host.stream, &length));
  host.stream.flushWriteBuffer();
  EXPECT_EQ(length, host.bytes.size());
  return host.bytes;
}

/// A whole file's boxes around given contents of the header box and what stands behind it. The
/// names are those of the standard layout, as boxes in text have them.
Bytes File(const std::string& requirements, const std::string& header,
           const std::string& behind = "") {
  return test::BoxBytes("jP__:0D0A870A,ftyp:77656162 00000001 77656162,rreq:" + requirements +
                            ",jp2h(" + header + ")," + behind + "jp2c=0",
                        kel::Flavour::kAB);
}

const std::string kPlain = "01 F0 F0 0004 0001 80 0005 40 000C 20 0012 10 0000";

// Depths that are not told where they differ; any wrong field of the boxes that every file has.
TEST_F(FileFormatWrite, DifferentDepths) {
  Options mixed(90, 72, 3, 8);
  mixed.GeomParams->BitDepths[2] = 12;
  EXPECT_EQ(
      Boxes(mixed),
      File(kPlain, "ihdr:00000048 0000005A 0003 FF 07 01 00,bpcc:07 07 0B,colr:01 00 00 00000010"));
}

// Channels numbered by their place in the image; an opacity definition for a channel that is not
// written; colours that are none.
TEST_F(FileFormatWrite, ChannelDefinitions) {
  Options o(4, 4, 4, 8);
  o.NumColorChannels = 0;
  EXPECT_EQ(Boxes(o),
            File(kPlain,
                 "ihdr:00000004 00000004 0004 07 07 01 00,colr:01 00 00 00000000,"
                 "cdef:0004 0000 FFFF 0001 0001 FFFF 0002 0002 FFFF 0003 0003 FFFF 0004"));
  o.NumColorChannels = 2;
  o.RoiEnabled = true;
  o.RoiMaskComponent = 0;
  o.TransparencyPresent = true;
  o.TransparencyComponent = 2;
  o.TransparencyType = 2;
  const auto definitions = [&](const std::string& contents) {
    const Bytes file = Boxes(o), box = test::BoxBytes("cdef:" + contents, kel::Flavour::kAB);
    return std::search(file.begin(), file.end(), box.begin(), box.end()) != file.end();
  };
  EXPECT_TRUE(definitions("0003 0000 0000 0001 0001 0002 0000 0002 FFFF 0003"));
  o.TransparencyCoded = false;
  EXPECT_TRUE(definitions("0002 0000 0000 0001 0001 FFFF 0002"));
  o.ExtraChannelCodingParams = false;
  const Bytes file = Boxes(o);
  EXPECT_EQ(std::string(file.begin(), file.end()).find("cdef"), std::string::npos);
}

// Palette entries in the wrong order for either layout, or of the wrong width; the box of the
// mapping; resolution rounded instead of cut off, exchanged, or wrapped.
TEST_F(FileFormatWrite, PaletteAndResolution) {
  Options o(4, 4, 1, 4);
  std::uint8_t depths[] = {7, 15};
  std::uint8_t low[] = {1, 2, 3};
  std::uint8_t high[] = {0x10, 0x11, 0x20, 0x21, 0x30, 0x31};
  std::uint8_t rows[3][3] = {{1, 0x10, 0x11}, {2, 0x20, 0x21}, {3, 0x30, 0x31}};
  std::uint8_t* byColumn[] = {low, high};
  std::uint8_t* byEntry[] = {rows[0], rows[1], rows[2]};
  __tagKelPalette palette{3, 2, depths, byColumn, 0, nullptr, nullptr, nullptr};
  o.PalettePresent = true;
  o.Palette = &palette;
  o.ResolutionInfoPresent = true;
  o.ResolutionX = 300.0F;
  o.ResolutionY = 1.0e9F;
  const auto expected = [](const std::string& map) {
    return File(kPlain,
                "ihdr:00000004 00000004 0001 03 07 01 00,colr:01 00 00 00000011,"
                "pclr:0003 02 07 0F 01 1011 02 2021 03 3031,cmap:" +
                    map + ",res_(resc:FFFF 0001 2E23 0001 00 00)");
  };
  EXPECT_EQ(Boxes(o), expected("0000 01 00 0000 01 01"));
  KelULong mapComponent[] = {0, 258};
  std::uint8_t mapType[] = {0, 1};
  std::uint8_t mapColumn[] = {1, 0};
  palette = {3, 2, depths, byEntry, 1, mapComponent, mapType, mapColumn};
  EXPECT_EQ(Boxes(o), expected("0000 00 01 0102 01 00"));
  palette.layout = 2;
  EXPECT_FALSE(kel::FileRecordsAreWritable(o));
  palette.layout = 1;
  palette.columns = nullptr;
  EXPECT_FALSE(kel::FileRecordsAreWritable(o));
}

// Colour parameters of the wrong set or length; the internal numbers written as they are; the
// requirement of an entry other than the first of the greatest precedence.
TEST_F(FileFormatWrite, ColorSpecifications) {
  Options o(4, 4, 3, 8);
  const std::uint8_t profileBytes[] = {0xAA, 0xBB};
  __tagICCProfile profile{2, profileBytes};
  KelColorSpec specs[6] = {};
  specs[0] = {1, 0, 3, 14, {1, 100, 0, 170, 128, 200, 96, 1, 0x443530, 0}, nullptr, &specs[1]};
  specs[1] = {1, 7, 0, 14, {1, 1, 2, 3, 4, 5, 6, 2, 0, 6500}, nullptr, &specs[2]};
  specs[2] = {1, 7, 0, 19, {2, 1, 2, 3, 4, 5, 6, 0, 0, 0}, nullptr, &specs[3]};
  specs[3] = {1, 0, 0, 50, {}, nullptr, &specs[4]};
  specs[4] = {3, 1, 2, 0, {}, &profile, &specs[5]};
  specs[5] = {4, 0, 0, 0, {}, nullptr, nullptr};
  __tagColorSpecList list{9, specs};
  o.ColorSpecList = &list;
  const std::string six = "00000001 00000002 00000003 00000004 00000005 00000006";
  EXPECT_EQ(Boxes(o),
            File("01 F8 F8 0005 0001 80 0005 40 000C 20 0012 10 0038 08 0000",
                 "ihdr:00000004 00000004 0003 07 07 01 00,"
                 "colr:01 00 03 0000000E 00000064 00000000 000000AA 00000080 000000C8 00000060"
                 "00443530,colr:01 07 00 0000000E" +
                     six + "4354 1964,colr:01 07 00 00000013" + six +
                     ",colr:01 00 00 0000000E,colr:03 01 02 AABB"));
  profile.data = nullptr;
  EXPECT_FALSE(kel::FileRecordsAreWritable(o)) << "a profile without its bytes";
}

// Vendor features beyond the mask's 32 bits; a mask of the wrong width; a UUID box left out; a
// length that does not fit, or a record without its bytes, that is read all the same.
TEST_F(FileFormatWrite, XmlAndUuidBoxes) {
  Options o(4, 4, 1, 8);
  const Bytes text = test::Hex("3C612F3E");
  __tagKelXML xml{4, text.data()};
  std::vector<__tagKelUUID> uuids(30);
  for (std::size_t i = 0; i < uuids.size(); ++i) {
    uuids[i] = {1, {}, text.data()};
    uuids[i].uuid[15] = static_cast<std::uint8_t>(i);
  }
  o.XMLPresent = o.UUIDPresent = true;
  o.NumXMLBoxes = 1;
  o.XMLBoxes = &xml;
  o.NumUUIDBoxes = 30;
  o.UUIDBoxes = uuids.data();
  std::string requirements =
      "04 FFFFFFFF F0000000 0004 0001 80000000 0005 40000000 000C 20000000 0012 10000000 001C";
  std::string behind = "xml_:3C612F3E,";
  for (unsigned i = 0; i < 30; ++i) {
    char id[33], mask[9];
    std::snprintf(id, sizeof id, "%032x", i);
    std::snprintf(mask, sizeof mask, "%08x", 0x08000000U >> i % 28);
    if (i < 28) requirements.append(id).append(mask);
    behind.append("uuid:").append(id).append("3C,");
  }
  EXPECT_EQ(
      Boxes(o),
      File(requirements, "ihdr:00000004 00000004 0001 07 07 01 00,colr:01 00 00 00000011", behind));
  xml.length = 0x7FFFFFFF;
  EXPECT_FALSE(kel::FileRecordsAreWritable(o));
  xml = {4, nullptr};
  EXPECT_FALSE(kel::FileRecordsAreWritable(o));
  o.XMLPresent = false;
  o.NumUUIDBoxes = -1;
  EXPECT_FALSE(kel::FileRecordsAreWritable(o));
}

// A long payload makes the buffer grow many times; each refusal must end cleanly.
TEST_F(FileFormatWrite, LongPayloadsAndRefusals) {
  Options o(4, 4, 1, 8);
  const Bytes text(200000, 'x');
  __tagKelXML xml[2] = {{200000, text.data()}, {200000, text.data()}};
  o.XMLPresent = true;
  o.NumXMLBoxes = 2;
  o.XMLBoxes = xml;
  const std::size_t runs = test::SweepRefusals(memory, [&] {
    EXPECT_EQ(Boxes(o).size(), 112U + 2 * 200008U);
    return KelLong{KelOK};
  });
  EXPECT_GT(runs, 3U);
}

}  // namespace
