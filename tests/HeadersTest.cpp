// Headers: every segment in both flavours from one description, its limits, cuts, repetitions and
// orders; and the parameter records.
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <string>

#include "DataSource.h"
#include "HostMemory.h"
#include "decode/KelHeadersRead.h"

namespace {

using namespace kel;
using namespace test;
using Headers = test::LibraryTest;

/// A header from text: segments parted by '|', each the second byte of its marker and then the
/// bytes behind its length in hexadecimal digits. '!' at the end of one makes it a marker alone;
/// '=' and a number there is a length in place of the true one.
Bytes Assemble(const std::string& text, Flavour flavour) {
  BitAssembler out;
  std::istringstream segments(text);
  for (std::string segment; std::getline(segments, segment, '|');) {
    const std::size_t end = std::min(segment.find_first_of("!="), segment.size());
    const Bytes bytes = Hex(segment.substr(0, end));
    out.U8(flavour == Flavour::kFF ? 0xFF : 0xAB).U8(bytes[0]);
    if (segment[end] == '=') out.U16(std::stoul(segment.substr(end + 1)));
    if (end == segment.size()) out.U16(bytes.size() + 1);
    out.Append(Bytes(bytes.begin() + 1, bytes.end()));
  }
  return out.Result();
}

/// A SIZ segment: canvas, origin, tile and tile origin (x, y each), then component bytes.
std::string Siz(const std::string& sizes, std::uint32_t Csiz = 3,
                const char* component = "070101") {
  std::istringstream numbers(sizes);
  std::ostringstream out;
  out << std::hex << std::setfill('0') << "51 1234";
  for (std::uint32_t size; numbers >> size;) out << ' ' << std::setw(8) << size;
  out << ' ' << std::setw(4) << Csiz;
  for (std::uint32_t c = 0; c < Csiz; ++c) out << component;
  return out.str();
}

const std::string kSIZ = Siz("100 80 0 0 64 80 0 0");
const std::string kCOD = "52 06 02 0003 01 02 01 01 0C 01";
const std::string kQCD = "5C 40 48 50 50 58 48 48 50";
const std::string kSOT = "90 0001 00000203 04 05";
const std::string kRest = '|' + kCOD + '|' + kQCD + '|' + kSOT;

/// A header as a set, with how its reading ended.
struct ReadSet {
  KelHeaderParams set{};
  HeaderResult result{};
  std::uint32_t tilePartLength = 0;
  std::int64_t position = 0;

  ReadSet(const std::string& header, bool isMain, Flavour flavour = Flavour::kAB,
          const Delivery& how = {}, std::size_t cut = SIZE_MAX) {
    Bytes bytes = Assemble(header, flavour);
    bytes.resize(std::min(cut, bytes.size()));
    DataSource data(bytes, flavour, how);
    ScopeGuard release([&] { ReleaseHeaderParams(&set); });
    InitHeaderParams(set, isMain);
    set.Csiz = isMain ? 0 : 3;
    if (!isMain) set.regions = OwnedArray<KelRoiParams>::Make(3).Release();
    result = ReadHeader(set, *data, &tilePartLength);
    position = data->GetPosition();
    release.Disarm();
  }
  ~ReadSet() { ReleaseHeaderParams(&set); }
  ReadSet(const ReadSet&) = delete;
};

/// Of a main header, on which the flavours must agree; of a tile-part header with given segments.
KelLong MainCode(const std::string& header) {
  const KelLong code = ReadSet(header, true, Flavour::kAB).result.refusal.errCode;
  EXPECT_EQ(ReadSet(header, true, Flavour::kFF, {false}).result.refusal.errCode, code) << header;
  return code;
}
KelLong TileCode(const std::string& segments) {
  return ReadSet(kSOT + '|' + segments + "|93!", false).result.refusal.errCode;
}

std::string Describe(const KelCodingStyle& s) {
  return List({s.component, s.cbBypass, s.cbReset, s.cbTermAll, s.cbInterleavedSigns, s.cbPredTerm,
               s.cbSegSymbols, s.usesEPH, s.usesSOP}) +
         List({s.defaultPrecinctWidthExp, s.defaultPrecinctHeightExp, s.blockWidthExp,
               s.blockHeightExp, s.numLevels, s.irreversible, s.progressionOrder, s.numLayers,
               s.componentTransform}) +
         List(s.precinctWidthExps, s.numLevels + 1) + List(s.precinctHeightExps, s.numLevels + 1);
}

std::string Describe(const KelQuantParams& q, int n = kQuantEntries) {
  return List({q.component, q.quantised, q.derived, q.guardBits, q.numLevels}) +
         List(q.exponents, n) + List(q.mantissas, n);
}

std::string Describe(const KelProgressionChanges& c) {
  return List(c.resolutionStart, c.count) + List(c.componentStart, c.count) +
         List(c.layerEnd, c.count) + List(c.resolutionEnd, c.count) +
         List(c.componentEnd, c.count) + List(c.order, c.count);
}

std::string Describe(const KelHeaderParams& p) {
  const KelSizParams& s = *p.sizes;
  std::string text =
      List({s.Xsiz, s.Ysiz, s.XOsiz, s.YOsiz, s.XTsiz, s.YTsiz, s.XTOsiz, s.YTOsiz, p.Rsiz}) +
      List(s.XRsiz, p.Csiz) + List(s.YRsiz, p.Csiz) + List(p.bitDepths, p.Csiz) +
      List(p.isSigned, p.Csiz) + "\nCOD" + Describe(*p.codingStyle) + "\nCOC" +
      Describe(*p.componentStyles) + "\nQCD" + Describe(*p.quantisation, 9) + "\nQCC" +
      Describe(*p.componentQuants, 9) + "\nRGN";
  for (std::int32_t i = 0; i < p.Csiz; ++i) {
    text += List({p.regions[i].present, p.regions[i].component, p.regions[i].shift});
  }
  return text + "\nPOC" + Describe(*p.progressionChanges) + "\nCOM " +
         std::string(p.comment, p.comment + p.commentLength);
}

/// One of everything.
const std::string kFull = "4F!|" + Siz("100 80 3 0 4294967295 80 0 0", 3, "8B0203") +
                          "|64 0001 6869|55 0050 1122|53 01 01 01 02 02 29 00 7F 36|" + kCOD +
                          "|30!|5C 62 9123 8005 0000|5D 02 41 5123|63 FF90 AB90|5E 02 00 1F|92!"
                          "|5F 00 01 0002 03 FF 04 02 00 FFFF 21 03 00|91 0007|" +
                          kCOD + "|64 0000 627965|" + kSOT;

// A field read from the wrong place, stored without its offset, or read differently in one flavour.
TEST_F(Headers, OneOfEverything) {
  const std::string expected =
      " 100,80,3,0,2147483647,80,0,0,4660 2,2,2 3,3,3 12,12,12 1,1,1"
      "\nCOD 0,0,0,1,0,0,0,1,1 15,15,3,3,2,0,2,3,1 15,15,15 15,15,15"
      "\nCOC 1,1,0,0,0,0,1,0,0 15,7,4,4,1,1,0,0,0 15,6 7,3"
      "\nQCD 0,1,0,3,2 18,16,0,0,0,0,0,0,0 291,5,0,0,0,0,0,0,0"
      "\nQCC 2,1,1,2,2 10,9,9,9,8,8,8,7,7 291,291,291,291,291,291,291,291,291"
      "\nRGN 0,0,0 0,0,0 1,2,31\nPOC 0,2 1,0 2,65535 3,33 255,3 4,0\nCOM bye";
  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    const auto size = static_cast<std::int64_t>(Assemble(kFull, flavour).size());
    for (const Delivery& how : {Delivery{}, {false}, {false, false, kHeaderWindowBytes, 1}}) {
      const ReadSet read(kFull, true, flavour, how);
      EXPECT_EQ(read.result.refusal.errCode, KelOK);
      EXPECT_EQ(Describe(read.set), expected);
      EXPECT_EQ(read.position, size - 12) << "the SOT stays unread";
    }
  }
}

// The end of the data refuses a main header. A tile-part header is where progressive data end: that
// is no failure, and the position goes to the end.
TEST_F(Headers, EveryCut) {
  const std::string tile =
      kSOT + '|' + kCOD + "|5D 02 22 5123 5124|70 0102|91 0007|5F 00 00 0002 03 02 04|93!";
  const std::size_t mainSize = Assemble(kFull, Flavour::kAB).size();
  const std::size_t size = Assemble(tile, Flavour::kFF).size();
  for (const Delivery& how : {Delivery{}, {false}, {false, false}}) {
    for (std::size_t cut = 0; cut < mainSize - 10; ++cut) {
      EXPECT_EQ(ReadSet(kFull, true, Flavour::kAB, how, cut).result.refusal.errCode,
                KelErrBadMarker);
    }
    for (std::size_t cut = 0; cut <= size; ++cut) {
      const ReadSet read(tile, false, Flavour::kFF, how, cut);
      EXPECT_EQ(List({read.result.refusal.errCode, read.result.incomplete, read.position}),
                List({KelOK, cut < size, static_cast<std::int64_t>(cut)}));
    }
  }
  const ReadSet whole(tile, false);
  EXPECT_EQ(List({whole.set.Isot, whole.tilePartLength, whole.set.TPsot, whole.set.TNsot}),
            " 1,515,4,5");
}

// Fields at their limits and just beyond.
TEST_F(Headers, Limits) {
  const auto expect = [](KelLong code, std::initializer_list<std::string> segments) {
    for (const std::string& segment : segments) {
      const std::string header = segment[1] == '2' ? segment : kCOD + '|' + segment;
      EXPECT_EQ(MainCode(kSIZ + '|' + header + '|' + kQCD + '|' + kSOT), code) << segment;
    }
  };
  // The last of the first is one that the geometry refuses.
  const auto expectSiz = [](KelLong code, std::initializer_list<std::string> sizes) {
    for (const std::string& siz : sizes) EXPECT_EQ(MainCode(siz + kRest), code) << siz;
  };
  const char* plain = "100 80 0 0 64 80 0 0";
  expectSiz(0, {Siz("2147483647 2147483647 0 0 2147483647 2147483647 0 0"),
                Siz("100 80 99 79 4294967295 4294967295 0 0"), Siz("65535 80 0 0 1 200 0 0"),
                Siz(plain, 2, "25FFFF"), Siz(plain, 1, "800101"), Siz("100 80 0 0 64 80 200 0")});
  expectSiz(10, {Siz("0 80 0 0 64 80 0 0"), Siz("2147483648 80 0 0 2147483648 80 0 0"),
                 Siz("100 0 0 0 64 80 0 0"), Siz("100 2147483648 0 0 64 2147483648 0 0"),
                 Siz("100 80 100 0 64 80 0 0"), Siz("100 80 0 80 64 80 0 0"),
                 Siz("100 80 4294967295 0 64 80 0 0"), Siz("100 80 0 0 64 80 2147483648 0"),
                 Siz("100 80 0 0 64 80 0 2147483648"), Siz("100 80 0 0 0 80 0 0"),
                 Siz("100 80 0 0 64 0 0 0"), Siz("65536 80 0 0 1 80 0 0"),
                 Siz("2147483647 2147483647 0 0 1 1 0 0"), Siz(plain, 2, "260101"),
                 Siz(plain, 2, "070001"), Siz(plain, 2, "070100"), Siz(plain, 0), kSIZ + "=40"});
  expectSiz(0, {kSIZ + "=41"});  // the length need not match the components

  // Precinct sizes that are announced but not there, or there but not announced.
  expect(18, {"52 01 00 0001 00 01 01 01 00 00", "52 00 00 0001 00 01 01 01 00 00 11"});
  // No layer; an unknown order; 33 levels; a precinct of no width or height above r = 0; too short.
  expect(10, {"52 00 00 0000 00 01 01 01 00 00", "52 00 05 0001 00 01 01 01 00 00",
              "52 00 00 0001 00 21 01 01 00 00", "52 01 00 0001 00 01 01 01 00 00 11 10",
              "52 01 00 0001 00 01 01 01 00 00 11 01", "52 01 00 0001 00 01 01 01"});
  expect(0, {"52 00 04 FFFF 00 20 01 01 00 00", "52 01 00 0001 00 01 01 01 00 00 00 11"});
  // COC: also of no component; the one resolution of the last may have precincts.
  expect(10, {"53 02 00 20 01 01 00", "53 03 00 20 01 01 00 00", "53 02 00 21 01 01 00 00",
              "53 02 01 01 01 01 00 00 11 10"});
  expect(0, {"53 02 00 20 01 01 00 00", "53 02 01 00 01 01 00 00 22"});
  // 100 and 101 exponents or steps, no style, derived from nothing, QCC of no component.
  std::string many = "08";
  for (int i = 1; i < 100; ++i) many += "08";
  expect(0, {"5C 00" + many, "5C 02" + many + many, "5C 03 5000", "5D 02 00",
             "5D 00 02" + many + many});
  expect(10, {"5C 00 00" + many, "5C 02 0000" + many + many, "5C", "5C 01 50",
              "5D 00 02 0000" + many + many, "5D 03 00", "5D 02", "5D 02 01 50"});
  // RGN of a two-byte index; of no component; of a wrong length or style.
  expect(0, {"5E 0002 00 25"});
  expect(10, {"5E 03 00 25", "5E FFFF 00 25"});
  expect(18, {"5E 00 0002 00 25", "5E 02 00", "5E 02 01 25"});
  // POC too short or of an unknown order; comments; lengths that segments cannot have; SOD.
  expect(10, {"5F 00 00 0001 01 01", "5F 00 00 0001 01 01 05", "64 00", "64 =1", "40 =1",
              "40 =65535", "93!"});
  expect(0, {"64 0001", "3F!", "FE"});
  expect(29, {"60 00 01", "61 00 01"});
}

TEST_F(Headers, OrdersAndRepetitions) {
  const std::string coc = "53 02 00 03 01 01 00 00", qcc = "5D 02 20 10", rgn = "5E 02 00 05";
  const std::string poc = "5F 00 00 0001 01 01 00", soc = "4F!";
  EXPECT_EQ(MainCode(kSIZ + kRest), KelOK) << "SOC may be missing";
  EXPECT_EQ(MainCode(soc + '|' + kSIZ + '|' + kQCD + "|4F!|" + kCOD + "|D9!"), KelOK);
  for (const std::string& early : {kCOD, kQCD, coc, qcc, rgn, poc}) {
    EXPECT_EQ(MainCode(early + '|' + kSIZ + kRest), KelErrBadMarker) << early;
    EXPECT_EQ(TileCode(early), KelOK) << "a tile-part header needs no SIZ";
  }
  for (const std::string& wrong : {kSIZ + '|' + kSIZ + '|' + kCOD + '|' + kQCD, kCOD + '|' + kQCD,
                                   kSIZ + '|' + kQCD, kSIZ + '|' + kCOD}) {
    EXPECT_EQ(MainCode(wrong + '|' + kSOT), KelErrBadMarker) << wrong;
  }
  for (const std::string& wrong : {soc, kSIZ, kSOT, std::string("64 =1")}) {
    EXPECT_EQ(TileCode(wrong), KelErrBadMarker) << wrong;
  }
  EXPECT_EQ(TileCode("D9!"), KelOK);
  EXPECT_EQ(ReadSet("90 0001 00000203 04 05 00", false).result.refusal.errCode, KelErrBadMarker);

  // The first COD and POC hold; the last QCD, and the last COC, QCC and RGN of a component.
  const ReadSet read(kSIZ + '|' + kCOD + "|52 00 04 0009 01 05 01 01 00 00|" + coc +
                         "|53 02 00 04 01 01 00 00|" + qcc + "|5D 02 20 18 08|" + poc +
                         "|5F 00 00 0001 01 01 04|" + rgn +
                         "|5E 02 00 06|5C 22 5123 5123 5123|5C 20 80|" + kSOT,
                     true);
  const KelHeaderParams& set = read.set;
  ASSERT_EQ(List({set.numComponentStyles, set.numComponentQuants}), " 1,1");
  EXPECT_EQ(FindComponentStyle(set, 1), nullptr);
  EXPECT_EQ(List({read.result.refusal.errCode, set.numLayers, set.progressionChanges->order[0],
                  FindComponentStyle(set, 2)->numLevels, set.regions[2].shift}),
            " 0,3,0,4,6");
  EXPECT_EQ(List(FindComponentQuant(set, 2)->exponents, 3), " 3,1,0");
  EXPECT_EQ(List(set.quantisation->exponents, 3) + List(set.quantisation->mantissas, 3),
            " 16,0,0 0,0,0")
      << "nothing is left of the first QCD";
}

// The width of component indices turns at 257 components.
TEST_F(Headers, WidthOfComponentIndices) {
  for (const std::uint32_t Csiz : {256U, 257U}) {
    const std::string index = Csiz == 257 ? "0100" : "FF", zero = Csiz == 257 ? "0000" : "00";
    const ReadSet read(Siz("100 80 0 0 64 80 0 0", Csiz) + "|53" + index +
                           "01 00 01 01 00 00 22|5D" + index + "22 5123|5F 00" + zero + "0001 01" +
                           index + "02" + kRest,
                       true);
    ASSERT_EQ(read.result.refusal.errCode, KelOK);
    const std::int32_t last = static_cast<std::int32_t>(Csiz) - 1;
    ASSERT_TRUE(FindComponentStyle(read.set, last) && FindComponentQuant(read.set, last));
    EXPECT_EQ(FindComponentStyle(read.set, last)->precinctHeightExps[0], 2);
    EXPECT_EQ(FindComponentQuant(read.set, last)->mantissas[0], 0x123);
    EXPECT_EQ(read.set.progressionChanges->componentEnd[0], last);
  }
}

// What is announced but has not arrived must not be obtained.
TEST_F(Headers, MemoryFollowsTheData) {
  std::string siz = kSIZ.substr(0, kSIZ.size() - 22) + "FFFF 070101";  // 65535 components
  memory.ResetPeak();
  for (const std::string& header : {siz, kSIZ + "|5F 00 =65000", kSIZ + "|64 00 =65000"}) {
    EXPECT_EQ(ReadSet(header, true).result.refusal.errCode, KelErrBadMarker);
  }
  EXPECT_LT(memory.LargestRequest(), 1500U);
}

/// Copies a record under refusals; the copy must be equal, and changing it must not show.
template <class Record, class Copy, class Release>
void CheckCopy(HostMemory& memory, Record& source, Copy copy, Release release) {
  Record made{};
  SweepRefusals(memory, [&] {
    copy(made, source);
    EXPECT_EQ(Describe(made), Describe(source));
    const std::string before = Describe(source);
    release(made);
    EXPECT_EQ(Describe(source), before);
    return KelLong{KelOK};
  });
}

// Copies that share or cut arrays; blocks that a refused request leaves behind.
TEST_F(Headers, CopiesAndRefusals) {
  ReadSet read(kFull, true);
  KelHeaderParams& set = read.set;
  CheckCopy(memory, set.componentStyles[0], CopyCodingStyle, ReleaseCodingStyle);
  CheckCopy(memory, set.componentQuants[0], CopyQuantParams, ReleaseQuantParams);
  CheckCopy(memory, *set.progressionChanges, CopyProgressionChanges, ReleaseProgressionChanges);
  EXPECT_EQ(set.componentQuants[0].exponents[kQuantEntries - 1], -23);
  set.progressionChanges->present = 0;
  KelProgressionChanges absent{};
  CopyProgressionChanges(absent, *set.progressionChanges);
  EXPECT_TRUE(absent.count == 0 && absent.order == nullptr);
  AllocProgressionChanges(*set.progressionChanges, 1);  // in place of the old
  ReleaseHeaderParams(&set);                            // and once more at scope end
  ReleaseHeaderParams(nullptr);

  const std::string more = "|53 01 00 00 01 01 00 00|5D 02 00 08|53 00 00 00 01 01 00 00|" + kSOT;
  const std::string header = kFull.substr(0, kFull.rfind('|')) + more;
  SweepRefusals(memory, [&] { return ReadSet(header, true).result.refusal.errCode; });
  SweepRefusals(memory, [&] { return TileCode("5F 00 00 0001 01 01 00"); });
}

}  // namespace
