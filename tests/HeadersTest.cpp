// Headers: every segment in both flavours from one description, its limits, cuts, repetitions and
// orders; and the parameter records.
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <string>

#include "DataSource.h"
#include "HostMemory.h"
#include "KelHeadersRead.h"

namespace {

using namespace kel;
using test::BitAssembler;
using test::Bytes;
using test::DataSource;
using test::Delivery;
using test::Hex;
using test::HostMemory;
using test::List;

/// A header from text: segments parted by '|', each the second byte of its marker and then the
/// bytes behind its length in hexadecimal digits. A segment that ends with '!' is a marker alone;
/// one that ends with '=' and a number has that as its length instead of the true one.
Bytes Assemble(const std::string& text, Flavour flavour) {
  BitAssembler out;
  std::istringstream segments(text);
  for (std::string segment; std::getline(segments, segment, '|');) {
    const Bytes bytes = Hex(segment.substr(0, segment.find_first_of("!=")));
    out.U8(flavour == Flavour::kFF ? 0xFF : 0xAB).U8(bytes[0]);
    const std::size_t length = segment.find('=');
    if (length != std::string::npos) {
      out.U16(std::stoul(segment.substr(length + 1)));
    } else if (segment.find('!') == std::string::npos) {
      out.U16(bytes.size() + 1);
    }
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
const std::string kPOC = "|5F 00 00 0001 01 01 00";
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
    if (cut < bytes.size()) bytes.resize(cut);
    DataSource data(bytes, flavour, how);
    result.code = InitHeaderParams(set, isMain);
    if (result.code != KelOK) return;
    ScopeGuard release([&] { ReleaseHeaderParams(&set); });
    if (!isMain) {
      set.Csiz = 3;
      set.regions = OwnedArray<KelRoiParams>::Make(3).Release();
    }
    result = ReadHeader(set, *data, &tilePartLength);
    position = data->GetPosition();
    release.Disarm();
  }
  ~ReadSet() { ReleaseHeaderParams(&set); }
  ReadSet(const ReadSet&) = delete;
};

KelLong MainCode(const std::string& header) {
  const ReadSet ab(header, true, Flavour::kAB);
  const ReadSet ff(header, true, Flavour::kFF, {false});
  EXPECT_EQ(ab.result.code, ff.result.code) << "the flavours must agree";
  return ab.result.code;
}

/// Of a tile-part header that holds the given segments.
KelLong TileCode(const std::string& segments) {
  const ReadSet read(kSOT + '|' + segments + "|93!", false);
  EXPECT_FALSE(read.result.incomplete);
  return read.result.code;
}

std::string Describe(const KelCodingStyle& s) {
  return List({s.component, s.cbBypass, s.cbReset, s.cbTermAll, s.cbInterleavedSigns, s.cbPredTerm,
               s.cbSegSymbols, s.usesEPH, s.usesSOP}) +
         List({s.defaultPrecinctWidthExp, s.defaultPrecinctHeightExp, s.blockWidthExp,
               s.blockHeightExp, s.numLevels, s.irreversible, s.progressionOrder, s.numLayers,
               s.componentTransform}) +
         List(s.precinctWidthExps, s.numLevels + 1) + List(s.precinctHeightExps, s.numLevels + 1);
}

std::string Describe(const KelQuantParams& q) {
  return List({q.component, q.quantised, q.derived, q.guardBits, q.numLevels}) +
         List(q.exponents, 9) + List(q.mantissas, 9);
}

std::string Describe(const KelProgressionChanges& c) {
  return List(c.resolutionStart, c.count) + List(c.componentStart, c.count) +
         List(c.layerEnd, c.count) + List(c.resolutionEnd, c.count) +
         List(c.componentEnd, c.count) + List(c.order, c.count);
}

std::string Describe(const KelHeaderParams& p) {
  const KelSizParams& s = *p.sizes;
  std::string text = List({s.Xsiz, s.Ysiz, s.XOsiz, s.YOsiz, s.XTsiz, s.YTsiz, s.XTOsiz, s.YTOsiz,
                           p.Rsiz, p.seenTLM}) +
                     List(s.XRsiz, p.Csiz) + List(s.YRsiz, p.Csiz) + List(p.bitDepths, p.Csiz) +
                     List(p.isSigned, p.Csiz) + "\nCOD" + Describe(*p.codingStyle) + "\nCOC" +
                     Describe(*p.componentStyles) + "\nQCD" + Describe(*p.quantisation) + "\nQCC" +
                     Describe(*p.componentQuants) + "\nRGN";
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
TEST(Headers, OneOfEverything) {
  HostMemory memory;
  const std::string expected =
      " 100,80,3,0,2147483647,80,0,0,4660,1 2,2,2 3,3,3 12,12,12 1,1,1"
      "\nCOD 0,0,0,1,0,0,0,1,1 15,15,3,3,2,0,2,3,1 15,15,15 15,15,15"
      "\nCOC 1,1,0,0,0,0,1,0,0 15,7,4,4,1,1,0,0,0 15,6 7,3"
      "\nQCD 0,1,0,3,2 18,16,0,0,0,0,0,0,0 291,5,0,0,0,0,0,0,0"
      "\nQCC 2,1,1,2,2 10,9,9,9,8,8,8,7,7 291,291,291,291,291,291,291,291,291"
      "\nRGN 0,0,0 0,0,0 1,2,31\nPOC 0,2 1,0 2,65535 3,33 255,3 4,0\nCOM bye";
  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    const auto size = static_cast<std::int64_t>(Assemble(kFull, flavour).size());
    for (const Delivery& how : {Delivery{}, {false}, {false, false, kHeaderWindowBytes, 1}}) {
      const ReadSet read(kFull, true, flavour, how);
      EXPECT_EQ(read.result.code, KelOK);
      EXPECT_EQ(Describe(read.set), expected);
      EXPECT_EQ(read.position, size - 12) << "the SOT stays unread";
    }
  }
}

// The end of the data refuses a main header. A tile-part header is where progressive data end: that
// is no failure, and nothing behind it is read.
TEST(Headers, EveryCut) {
  HostMemory memory;
  const std::string tile =
      kSOT + '|' + kCOD + "|5D 02 22 5123 5124|70 0102|91 0007" + "|5F 00 00 0002 03 02 04|93!";
  const std::size_t mainSize = Assemble(kFull, Flavour::kAB).size();
  const std::size_t size = Assemble(tile, Flavour::kFF).size();
  for (const Delivery& how : {Delivery{}, {false}, {false, false}}) {
    for (std::size_t cut = 0; cut < mainSize - 10; ++cut) {
      EXPECT_EQ(ReadSet(kFull, true, Flavour::kAB, how, cut).result.code, KelErrBadMarker);
    }
    for (std::size_t cut = 0; cut <= size; ++cut) {
      const ReadSet read(tile, false, Flavour::kFF, how, cut);
      EXPECT_EQ(read.result.code, KelOK) << cut;
      EXPECT_EQ(read.result.incomplete, cut < size) << cut;
      EXPECT_EQ(read.position, static_cast<std::int64_t>(cut)) << "the position goes to the end";
    }
  }
  const ReadSet whole(tile, false, Flavour::kFF);
  EXPECT_EQ(List({whole.set.Isot, whole.tilePartLength, whole.set.TPsot, whole.set.TNsot}),
            " 1,515,4,5");
}

// Fields at their limits and just beyond.
TEST(Headers, Limits) {
  HostMemory memory;
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

  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    DataSource data(Hex("0001 0003 00 0005 00"), flavour);
    EXPECT_EQ(SkipMarkerSegment(*data, 0x1234), 10);
    EXPECT_EQ(SkipMarkerSegment(*data, data->MarkerByte() << 8 | 0x30), 0);
    EXPECT_EQ(data->GetPosition(), 0);
    for (const KelLong code : {10, 0, 10}) EXPECT_EQ(SkipMarkerSegment(*data, 0xFFFF), code);
  }
}

TEST(Headers, OrdersAndRepetitions) {
  HostMemory memory;
  const std::string coc = "53 02 00 03 01 01 00 00", qcc = "5D 02 20 10", rgn = "5E 02 00 05",
                    poc = "5F 00 00 0001 01 01 00";
  EXPECT_EQ(MainCode(kSIZ + kRest), KelOK) << "SOC may be missing";
  EXPECT_EQ(MainCode("4F!|" + kSIZ + '|' + kQCD + "|4F!|" + kCOD + "|D9!"), KelOK);
  for (const std::string& early : {kCOD, kQCD, coc, qcc, rgn, poc}) {
    EXPECT_EQ(MainCode(early + '|' + kSIZ + kRest), KelErrBadMarker) << early;
    EXPECT_EQ(TileCode(early), KelOK) << "a tile-part header needs no SIZ";
  }
  EXPECT_EQ(MainCode(kSIZ + '|' + kSIZ + kRest), KelErrBadMarker);
  for (const std::string& partly : {kCOD + '|' + kQCD, kSIZ + '|' + kQCD, kSIZ + '|' + kCOD}) {
    EXPECT_EQ(MainCode(partly + '|' + kSOT), KelErrBadMarker);
  }
  for (const std::string& wrong : {std::string("4F!"), kSIZ, kSOT, std::string("64 =1")}) {
    EXPECT_EQ(TileCode(wrong), KelErrBadMarker) << wrong;
  }
  EXPECT_EQ(TileCode("D9!"), KelOK);
  EXPECT_EQ(ReadSet("90 0001 00000203 04 05 00", false).result.code, KelErrBadMarker);

  // The first COD and POC hold; the last QCD, and the last COC, QCC and RGN of a component.
  const ReadSet read(kSIZ + '|' + kCOD + "|52 00 04 0009 01 05 01 01 00 00|" + coc +
                         "|53 02 00 04 01 01 00 00|" + qcc + "|5D 02 20 18 08|" + poc +
                         "|5F 00 00 0001 01 01 04|" + rgn + "|5E 02 00 06|" + kQCD + "|5C 20 80|" +
                         kSOT,
                     true);
  ASSERT_EQ(read.result.code, KelOK);
  EXPECT_EQ(read.set.numLayers, 3);
  EXPECT_EQ(read.set.progressionChanges->order[0], 0);
  EXPECT_EQ(read.set.numComponentStyles + read.set.numComponentQuants, 2U);
  EXPECT_EQ(FindComponentStyle(read.set, 2)->numLevels, 4);
  EXPECT_EQ(FindComponentStyle(read.set, 1), nullptr);
  EXPECT_EQ(FindComponentQuant(read.set, 2)->exponents[1], 1);
  EXPECT_EQ(List(read.set.quantisation->exponents, 3), " 16,0,0") << "nothing is left of the first";
  EXPECT_EQ(read.set.regions[2].shift, 6);
}

// The width of component indices turns at 257 components.
TEST(Headers, WidthOfComponentIndices) {
  HostMemory memory;
  for (const std::uint32_t Csiz : {256U, 257U}) {
    const std::string index = Csiz == 257 ? "0100" : "FF", zero = Csiz == 257 ? "0000" : "00";
    const ReadSet read(Siz("100 80 0 0 64 80 0 0", Csiz) + "|53" + index +
                           "01 00 01 01 00 00 22|5D" + index + "22 5123|5F 00" + zero + "0001 01" +
                           index + "02" + kRest,
                       true);
    ASSERT_EQ(read.result.code, KelOK);
    const std::int32_t last = static_cast<std::int32_t>(Csiz) - 1;
    ASSERT_TRUE(FindComponentStyle(read.set, last) && FindComponentQuant(read.set, last));
    EXPECT_EQ(FindComponentStyle(read.set, last)->precinctHeightExps[0], 2);
    EXPECT_EQ(FindComponentQuant(read.set, last)->mantissas[0], 0x123);
    EXPECT_EQ(read.set.progressionChanges->componentEnd[0], last);
  }
}

// What is announced but has not arrived must not be obtained.
TEST(Headers, MemoryFollowsTheData) {
  HostMemory memory;
  std::string siz = kSIZ.substr(0, kSIZ.size() - 22) + "FFFF 070101";  // 65535 components
  memory.ResetPeak();
  for (const std::string& header : {siz, kSIZ + "|5F 00 =65000", kSIZ + "|64 00 =65000"}) {
    EXPECT_EQ(ReadSet(header, true).result.code, KelErrBadMarker);
  }
  EXPECT_LT(memory.LargestRequest(), 1500U);
}

/// Copies a record with one of its requests refused after another, then changes the copy.
template <class Record, class Copy, class Change, class Release>
void CheckCopy(HostMemory& memory, const Record& source, Copy copy, Change change,
               Release release) {
  Record made{};
  test::SweepRefusals(memory, [&] {
    const KelLong code = copy(&made, &source);
    if (code != KelOK) return code;
    EXPECT_EQ(Describe(made), Describe(source));
    change(made);
    release(made);
    return code;
  });
  EXPECT_EQ(copy(nullptr, &source), KelErrBadParam);
  EXPECT_EQ(copy(&made, nullptr), KelErrBadParam);
}

// Copies that share or cut arrays; blocks that a refused request leaves behind.
TEST(Headers, CopiesAndRefusals) {
  HostMemory memory;
  ReadSet read(kFull, true);
  const std::string before = Describe(read.set);
  const auto change = [](std::int32_t* array, int last) { array[0] = array[last] = 77; };
  CheckCopy(
      memory, read.set.componentStyles[0], CopyCodingStyle,
      [&](KelCodingStyle& s) { change(s.precinctHeightExps, kMaxLevels); }, ReleaseCodingStyle);
  CheckCopy(
      memory, read.set.componentQuants[0], CopyQuantParams,
      [&](KelQuantParams& q) { change(q.mantissas, kQuantEntries - 1); }, ReleaseQuantParams);
  CheckCopy(
      memory, *read.set.progressionChanges, CopyProgressionChanges,
      [&](KelProgressionChanges& c) { c.order[0] = 9; }, ReleaseProgressionChanges);
  EXPECT_EQ(Describe(read.set), before);
  EXPECT_EQ(read.set.componentQuants[0].exponents[kQuantEntries - 1], -23);
  read.set.progressionChanges->present = 0;
  KelProgressionChanges absent{};
  EXPECT_EQ(CopyProgressionChanges(&absent, read.set.progressionChanges), KelOK);
  EXPECT_TRUE(absent.count == 0 && absent.order == nullptr);
  EXPECT_EQ(AllocProgressionChanges(nullptr, 1), KelErrBadParam);
  ReleaseHeaderParams(&read.set);  // and once more at scope end
  ReleaseHeaderParams(nullptr);

  const std::string more = "|53 01 00 00 01 01 00 00|5D 02 00 08|53 00 00 00 01 01 00 00|" + kSOT;
  const std::string header = kFull.substr(0, kFull.rfind('|')) + more;
  test::SweepRefusals(memory, [&] { return ReadSet(header, true).result.code; });
  test::SweepRefusals(memory, [&] { return ReadSet(kSOT + kPOC + "|93!", false).result.code; });
}

}  // namespace
