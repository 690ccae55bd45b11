// The boxes of a file: every box in both layouts from one description, its limits, cuts and
// repetitions, and what the findings say.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "BoxText.h"
#include "DataSource.h"
#include "HostMemory.h"
#include "base/KelRaise.h"
#include "decode/KelFileFormatRead.h"

namespace {

using namespace kel;
using namespace test;
using Boxes = test::LibraryTest;

constexpr Flavour kFlavours[] = {Flavour::kAB, Flavour::kFF};
const Delivery kDeliveries[] = {{}, {false}, {false, false}, {false, true, kBoxWindowBytes, 1}};

struct ReadFile {
  KelFileInfo info{};
  KelLong code = 0;
  std::int64_t position = 0;

  ReadFile(const std::string& text, Flavour flavour = Flavour::kFF, const Delivery& how = {},
           std::size_t cut = SIZE_MAX) {
    Bytes bytes = BoxBytes(text, flavour);
    bytes.resize(std::min(cut, bytes.size()));
    ScopeGuard release([&] { ReleaseFileInfo(&info); });
    DataSource data(bytes, flavour, how);
    InitFileInfo(info);
    code = ReadBoxes(info, *data).errCode;
    position = data->GetPosition();
    release.Disarm();
  }
  ~ReadFile() { ReleaseFileInfo(&info); }
  ReadFile(const ReadFile&) = delete;
};

std::string Describe(const KelFileInfo& f) {
  const KelImageHeaderInfo& h = *f.imageHeader;
  std::string text = "ihdr" + List({h.WIDTH, h.HEIGHT, h.NC, f.IPR}) + List(h.bitDepths, h.NC) +
                     List(h.isSigned, h.NC) + "\ncolr";
  const KelColorSpec* e = f.ColorSpecList != nullptr ? f.ColorSpecList->first : nullptr;
  for (; e != nullptr; e = e->next) {
    const KelCIEParams& c = e->cie;
    text += List({e->method, e->precedence, e->approximation, e->enumeratedSpace});
    if (c.kind != 0) {
      text += List({c.kind, c.rangeL, c.offsetL, c.rangeA, c.offsetA, c.rangeB, c.offsetB,
                    c.illuminantKind, c.illuminant, c.temperature});
    }
    if (e->iccProfile != nullptr) text += " icc" + List(e->iccProfile->data, e->iccProfile->size);
  }
  if (f.PalettePresent) {
    const __tagKelPalette& p = *f.Palette;
    text += "\npclr" + List({p.numEntries}) + List(p.depths, p.numColumns);
    for (KelULong i = 0; i < p.numColumns; ++i) {
      text += List(p.columns[i], p.numEntries * ((p.depths[i] + 7U) / 8));
    }
    if (p.mapComponent != nullptr) {
      text += " cmap" + List(p.mapComponent, p.numColumns) + List(p.mapType, p.numColumns) +
              List(p.mapColumn, p.numColumns);
    }
  }
  if (f.ChannelDefPresent) {
    const KelChannelDefinition& d = *f.ChannelDefs;
    text += "\ncdef" + List(d.Cn, d.N) + List(d.Typ, d.N) + List(d.Asoc, d.N) + List(d.order, d.N);
  }
  if (f.ResolutionInfoPresent) {
    text += "\nres " + std::to_string(f.verticalResolution) + ' ' +
            std::to_string(f.horizontalResolution);
  }
  if (f.opacityPresent) {
    text += "\nopct" + List({f.opacity->Otyp});
    if (const KelChromaKey* key = f.opacity->chromaKey) text += List(key->values, key->numChannels);
  }
  text += "\nflst" + List({static_cast<std::int64_t>(f.codeStreamLength)});
  for (KelULong i = 0; i < f.NumXMLBoxes; ++i) {
    text += "\nxml" + List(f.XMLBoxes[i].data, f.XMLBoxes[i].length);
  }
  for (KelULong i = 0; i < f.NumUUIDBoxes; ++i) {
    text +=
        "\nuuid" + List(f.UUIDBoxes[i].uuid, 16) + List(f.UUIDBoxes[i].data, f.UUIDBoxes[i].length);
  }
  return text;
}

const std::string kUuid = "000102030405060708090A0B0C0D0E0F";
const std::string kIhdr = "ihdr:00000030 00000038 0003 07 07 00 00";

/// One of everything, up to the code-stream box.
const std::string kFull =
    "jP__:0D0A870A,ftyp:71742020 00000001 6A703220 71,rreq:01020304,jp2h(ihdr:00000030 00000038 "
    "0003 FF 07 01 01,bpcc:07 8B 0C,colr:01 02 03 00000010 EE,colr:02 00 00 AABBCC,colr:01 00 00 "
    "0000000E,colr:01 00 00 0000000E 00000001 00000002 00000003 00000004 00000005 00000006 4354 "
    "1234,"
    "colr:01 00 00 00000013,colr:01 00 00 00000013 00000001 00000002 00000003 00000004 00000005 "
    "00000006,colr:09 01 01 11,pclr:0002 03 07 0F 00 11 2233 44 5566,cmap:0000 01 01 0001 01 00 "
    "0002 00 00,cdef:0003 0000 0000 0002 0001 0000 0001 0002 0001 0000,res_(resc:012C 0001 0003 "
    "0002 "
    "02 FF,resd:0001 0001 0001 0001 00 00),wxyz:00),jpch:FFFF,jplh(lbl_:41,cgrp(colr:01 00 00 "
    "00000011,xxxx:00),opct:02 02 85 0FFF,opct:00,cdef:0000,creg:0000),ftbl(flst:0102 "
    "0000),cref:00,"
    "xml_:3C61,uuid:" +
    kUuid + "DDEE,xml_,nope:0102,";

const std::string kDescription =
    "ihdr 56,48,3,1 7,11,12 0,1,0\ncolr 1,2,3,16 2,0,0,0 icc 170,187,204 1,0,0,14"
    " 1,100,0,170,2048,200,3072,1,4470064,0 1,0,0,14 1,1,2,3,4,5,6,2,0,4660 1,0,0,19"
    " 2,100,0,255,2048,255,4096,0,0,0 1,0,0,19 2,1,2,3,4,5,6,0,0,0 9,1,1,0 1,0,0,17"
    "\npclr 2 7,15,0 17,68 34,51,85,102 cmap 0,1,2 1,1,0 1,0,0"
    "\ncdef 0,1,2 0,0,1 2,1,0 1,0,2\nres 30000.000000 0.150000\nopct 2 133,-4095";

// A field read from the wrong place, a box not put behind, a layout or a way of delivery that
// differs from the others.
TEST_F(Boxes, OneOfEverything) {
  const std::string behind = "jp2c:ABCDEF,xml_:3C7A,jp2c:01,uuid:" + kUuid;
  for (const Flavour flavour : kFlavours) {
    const auto start = static_cast<std::int64_t>(BoxBytes(kFull, flavour).size()) + 8;
    for (const Delivery& how : kDeliveries) {
      const ReadFile file(kFull + behind, flavour, how);
      EXPECT_EQ(file.code, KelOK);
      EXPECT_TRUE(file.info.codeStreamFound);
      EXPECT_EQ(file.position, start) << "the first code stream is the one";
      std::string expected = kDescription + "\nflst 3\nxml 60,97\nxml";
      const bool walks = how.memory || how.seekable;
      const std::string uuid = "\nuuid 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15";
      expected += (walks ? "\nxml 60,122" : "") + uuid + " 221,238" + (walks ? uuid : "");
      EXPECT_EQ(Describe(file.info), expected);
    }
  }
}

// Cuts and windows: the same code and findings however the data arrive, and never a crash.
TEST_F(Boxes, EveryCut) {
  const std::string text = kFull + "jp2c:ABCDEF,xml_:3C7A,uuid:" + kUuid + "00";
  const std::size_t start = BoxBytes(kFull, Flavour::kFF).size() + 8;
  const std::size_t size = BoxBytes(text, Flavour::kFF).size();
  for (std::size_t cut = 0; cut < size; ++cut) {
    const ReadFile block(text, Flavour::kFF, {}, cut);
    for (const Delivery& how : kDeliveries) {
      const ReadFile file(text, Flavour::kFF, how, cut);
      EXPECT_EQ(file.code, block.code) << cut;
      if (!how.seekable || block.code != KelOK) continue;
      EXPECT_EQ(Describe(file.info), Describe(block.info)) << cut;
    }
    EXPECT_EQ(block.info.codeStreamFound, cut >= start) << cut;
    if (cut < start) continue;
    EXPECT_EQ(block.code, KelOK) << "what follows has not arrived yet " << cut;
    EXPECT_EQ(block.position, static_cast<std::int64_t>(start));
    EXPECT_EQ(block.info.NumXMLBoxes, cut >= start + 3 + 10 ? 3U : 2U);
  }
}

KelLong CodeOf(const std::string& text) {
  const ReadFile file(text);
  for (const Flavour flavour : kFlavours) {
    for (const Delivery& how : kDeliveries) {
      EXPECT_EQ(ReadFile(text, flavour, how).code, file.code) << text;
    }
  }
  return file.code;
}

TEST_F(Boxes, Limits) {
  const auto expect = [](KelLong code, std::initializer_list<std::string> texts) {
    for (const std::string& text : texts) EXPECT_EQ(CodeOf(text + ",jp2c:00"), code) << text;
  };
  // Among the children of the header superbox, behind an image header.
  const auto expectChild = [](KelLong code, std::initializer_list<std::string> texts) {
    for (const std::string& text : texts) {
      EXPECT_EQ(CodeOf("jp2h(" + kIhdr + ',' + text + "),jp2c:00"), code) << text;
    }
  };
  // Signatures; lengths that no box has, at the top and inside; what is not long enough.
  expect(21, {"jP__:0D0A870B", "jP__:0D0A870A00", "jP__:0D0A87", "jP__=0:0D0A870A", "what=7:00",
              "xml_=2:00", "what=1:0000 0000 0000 000F", "uuid:00", "ftbl(flst:00)"});
  expect(0, {"what=0", "what=1:0000 0000 0000 0010", "what=1:0000 0000 0000 0012 AABB",
             "jp2h=15:01020304050607"});
  expectChild(21, {kIhdr, "what=0", "colr=0:01", "what=3:00", "colr:01 00", "colr:01 00 00 000000",
                   "colr:01 00 00 0000000E 00", "colr:01 00 00 00000013 00", "pclr:0001",
                   "pclr:0001 02 07", "pclr:0002 01 07 00", "pclr:0001 01 87 00", "cdef:00",
                   "cdef:0001 0000 0000", "pclr:0001 01 07 00,cmap:0000 01 01",
                   "res_(resc:0001 0001 0001 0001 00)", "res_(what=5)"});
  expectChild(0, {"pclr:0001 01 07 00,cmap:0000 00 01", "cmap:0000 01 09", "cmap:00",
                  "pclr:0000 00", "cdef:0000", "bpcc:07", "bpcc:07070707", "colr:02 00 00"});
  expect(21,
         {"jp2h(ihdr:00000030 00000038 0003 07 07 00)",
          "jp2h(ihdr:00000030 00000038 0003 07 06 00 00)", "jp2h(bpcc:07)", "jplh(opct:00)",
          "jp2h(" + kIhdr + "),jplh(opct:02)", "jp2h(" + kIhdr + "),jplh(opct:02 04 00 00 00 00)",
          "jp2h(" + kIhdr + "),jplh(opct:02 03 00)"});
  expect(0,
         {"jp2h(" + kIhdr + "),jplh(opct:02 03 00 00 00)", "jplh(cgrp(colr:01 00 00 0000000E))"});
}

// Boxes that the data cut off, and boxes that end with the data.
TEST_F(Boxes, Ends) {
  for (const char* text :
       {"ftyp=99:6A703220", "uuid=40:00", "jp2h=99(colr=20:01", "jplh=99(lbl_:00", "jP__=12:0D"}) {
    EXPECT_EQ(CodeOf(text), 26) << text;
  }
  for (const std::string& text : {"uuid=60:" + kUuid, std::string("xml_=11:0000"),
                                  std::string("jp2h=99(colr=20:02 00 00 00")}) {
    EXPECT_EQ(CodeOf(text), 22) << text;
  }
  EXPECT_EQ(CodeOf("jp2h=99(lbl_:00,"), 25);
  EXPECT_EQ(CodeOf("jp2h=99(bpcc=9:"), 21);
  EXPECT_TRUE(Describe(ReadFile("xml_=0:010203").info).ends_with("xml 1,2,3"));
  EXPECT_EQ(ReadFile("jp2c:00,uuid:00").code, 21) << "complete and malformed";
  EXPECT_EQ(ReadFile("jp2c:00,what=1:0000").code, 0) << "not arrived yet";
  EXPECT_EQ(ReadFile("jp2c=0:0102,xml_:00").info.NumXMLBoxes, 0U);
  EXPECT_EQ(ReadFile("jp2c:0102,jp2c=0:00").position, 8);
}

/// What is found of a file whose header superbox has these children behind an image header.
std::string Found(const std::string& children, const std::string& further = "") {
  const ReadFile file("jp2h(" + kIhdr + ',' + children + ")," + further + "jp2c:00");
  EXPECT_EQ(file.code, KelOK);
  const std::string text = Describe(file.info);
  const std::size_t start = text.find("\ncolr") + 5;
  return text.substr(start, text.find("\nflst") - start);
}

// Findings that are said twice, in part, or not at all.
TEST_F(Boxes, Findings) {
  const std::string pclr = "pclr:0002 02 07 07 01 02 03 04,";
  EXPECT_EQ(Found(pclr), "\npclr 2 7,7 1,3 2,4");
  EXPECT_EQ(Found(pclr + "cmap:0005 01 01"), "\npclr 2 7,7 1,3 2,4 cmap 5,0 1,0 1,0")
      << "a mapping of fewer channels than columns";
  EXPECT_EQ(Found(pclr + "cmap:0000 01 01 0000 01 01 0000 01 00,cmap:0000 01 01 0000 01 00"),
            "\npclr 2 7,7 1,3 2,4 cmap 0,0 1,1 1,0")
      << "the last mapping counts";
  EXPECT_EQ(Found("pclr:0001 03 00 00 08 99,cmap:0000 01 00"),
            "\npclr 1 0,0,8 153 cmap 0,0,0 1,0,0 0,0,0");
  EXPECT_EQ(Found(pclr + "pclr:0001 01 0F ABCD"), "\npclr 1 15 171,205");
  // Colours in order, the rest ascending; no entry, several entries or a strange one for a colour.
  EXPECT_EQ(Found("cdef:0003 0000 0000 0002 0001 0000 0001 0002 0001 0000"),
            "\ncdef 0,1,2 0,0,1 2,1,0 1,0,2");
  EXPECT_EQ(Found("cdef:0001 0000 0000 0001,cdef:0004 0003 0000 0001 0002 0000 0001 0009 0000 0003 "
                  "0001 0000 0000"),
            "\ncdef 3,2,9,1 0,0,0,0 1,1,3,0 3,-1,9,-1");
  EXPECT_EQ(Found("cdef:0003 0002 0000 0001 0007 0001 0000 0001 FFFF FFFF"),
            "\ncdef 2,7,1 0,1,65535 1,0,65535 2,0,1");
  // Values over 0, exponents of both signs, the largest there are.
  EXPECT_EQ(Found("res_(resc:0001 0000 0003 0001 00 FE)"), "\nres 0.000000 0.030000");
  EXPECT_EQ(Found("res_(resc:FFFF 0001 0001 FFFF 7F 80)"),
            "\nres 340282346638528859811704183484516925440.000000 0.000000");
  // Layers: the first opacity of each counts, or channels where the file has no opacity at all.
  EXPECT_EQ(Found("colr:01 00 00 00000013", "jplh(opct:02 01 80),jplh(opct:01,opct:00,cdef:0000),"),
            " 1,0,0,19 2,100,0,255,128,255,128,0,0,0\nopct 1");
  EXPECT_EQ(Found("colr:03 00 00", "jplh(cdef:0001 0000 0001 0000,opct:00,cdef:0000),"),
            " 3,0,0,0 icc\ncdef 0 1 0 0");
}

TEST_F(Boxes, ChoiceOfTheProfile) {
  const auto chosen = [](const std::string& colr) {
    const ReadFile file("jp2h(" + colr + "),jp2c:00");
    const __tagICCProfile* profile = ChooseICCProfile(file.info.ColorSpecList);
    return profile != nullptr ? profile->data[0] : 0;
  };
  EXPECT_EQ(chosen("colr:02 00 00 01,colr:03 02 00 02"), 2) << "greater precedence";
  EXPECT_EQ(chosen("colr:02 02 03 01,colr:02 00 01 02"), 2) << "smaller approximation";
  EXPECT_EQ(chosen("colr:02 02 01 01,colr:01 09 00 00000010,colr:02 02 01 02"), 1);
  EXPECT_EQ(chosen("colr:01 00 00 00000010"), 0);
}

// What is announced but has not arrived must not be obtained.
TEST_F(Boxes, MemoryFollowsTheData) {
  for (const char* text :
       {"xml_=4294967295:00", "uuid=4294967295:", "jp2h=4294967295(colr=4294967200:02 00 00 00",
        "jp2h=4294967295(pclr=4294967200:FFFF FF 07", "xml_=1:FFFFFFFF FFFFFFFF 00",
        "jp2h=4294967295(pclr:0001 01 07 00,cmap=4294967200:0000",
        "jp2h=4294967295(cdef=4294967200:FFFF 00", "what=4294967295:00"}) {
    for (const Delivery& how : kDeliveries) {
      memory.ResetPeak();
      const ReadFile file(text, Flavour::kAB, how);
      EXPECT_LE(memory.LargestRequest(), how.memory ? 2500U : kFirstLoadBytes + 1U) << text;
    }
  }
  // Contents longer than one piece arrive whole by a stream too.
  std::string text = "xml_:";
  for (int i = 0; i < 70000; ++i) text += "0102030405";
  const ReadFile file(text, Flavour::kAB, {false, false});
  ASSERT_EQ(file.info.NumXMLBoxes, 1U);
  EXPECT_EQ(file.info.XMLBoxes[0].length, 350000U);
  EXPECT_EQ(file.info.XMLBoxes[0].data[349999], 5);
}

TEST_F(Boxes, RefusalsLeakNothing) {
  for (const Flavour flavour : kFlavours) {
    const std::size_t runs = SweepRefusals(memory, [&] {
      try {
        return ReadFile(kFull + "jp2c:00", flavour).code;
      } catch (const KelException& failure) {
        const std::string module = failure.srcFile;
        const bool isOld = flavour == Flavour::kFF && module == kModuleFileFormatOld;
        EXPECT_TRUE(isOld || module == kModuleFileFormat || module == kModuleMemFuncDefs) << module;
        throw;
      }
    });
    EXPECT_GT(runs, 30U);
  }
}

}  // namespace
