// The code-stream object's read, write and seek rules, and the signature test.
#include "kel/KelStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "BitAssembler.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "kel/KelImage.h"

namespace {

using namespace test;
using CodeStm = test::LibraryTest;

Bytes Ramp(std::size_t n) {
  Bytes ramp(n);
  std::iota(ramp.begin(), ramp.end(), std::uint8_t{1});
  return ramp;
}

TEST_F(CodeStm, SeekRefusals) {
  HostStream host(Ramp(10));
  EXPECT_EQ(host.stream.seek(1, 5), 5);
  for (const auto& [origin, offset] : {std::pair{2, 0}, {1, -1}, {0, -6}, {0, INT32_MAX}}) {
    EXPECT_EQ(host.stream.seek(origin, offset), -8) << origin << ' ' << offset;
  }
  EXPECT_EQ(host.seeks, 1) << "refusals must not reach the host";
  host.refuseSeek = true;
  EXPECT_EQ(host.stream.seek(1, 3), -8);
  EXPECT_EQ(host.stream.GetCurPos(), 5);
}

TEST_F(CodeStm, HeldOutputCanBePatchedWithinItsCapacity) {
  HostStream host({}, false);
  const Bytes ramp = Ramp(100);
  EXPECT_EQ(host.stream.write(ramp.data(), 100), 100);
  EXPECT_EQ(host.stream.wbufCap, 10240);
  EXPECT_EQ(host.stream.seek(1, 0), 0);
  EXPECT_EQ(host.stream.wbufFill, 0);
  EXPECT_EQ(host.stream.seek(1, 10240), 10240);
  EXPECT_EQ(host.stream.seek(1, 10241), -4);
  EXPECT_EQ(host.stream.seek(1, 6), 6);
  const Bytes patch = {0xEE};
  host.stream.write(patch.data(), 1);
  host.stream.seek(0, 93);
  // More than the step asks for exactly what is needed; the step otherwise.
  const Bytes longer(10240 + 10140 + 1, 7);
  host.stream.write(longer.data(), static_cast<KelLong>(longer.size()));
  EXPECT_EQ(host.stream.wbufCap, 10240 + static_cast<KelLong>(longer.size()));
  EXPECT_EQ(host.writes + host.seeks, 0);
  EXPECT_EQ(host.stream.flushWriteBuffer(), 100 + static_cast<KelLong>(longer.size()));
  EXPECT_EQ(host.bytes.size(), 100 + longer.size());
  EXPECT_EQ(host.bytes[6], 0xEE);
  EXPECT_EQ(host.bytes[99], 100);
}

TEST_F(CodeStm, CacheOfASeekableStream) {
  HostStream host;
  const Bytes ramp = Ramp(65537);
  host.stream.write(ramp.data(), 32769);
  EXPECT_EQ(host.writes, 1) << "a long write with nothing cached goes straight through";
  EXPECT_EQ(host.stream.wbuf, nullptr);
  host.stream.write(ramp.data(), 32768);
  EXPECT_EQ(host.writes, 1) << "a short one is cached";
  host.stream.write(ramp.data(), 32768);
  EXPECT_EQ(host.writes, 1) << "the cache takes exactly 65536 bytes";
  host.stream.write(ramp.data(), 1);
  EXPECT_EQ(host.writes, 2) << "a full cache is flushed";
  EXPECT_EQ(host.stream.wbufFill, 1);
  EXPECT_EQ(host.stream.seek(1, 100), 100) << "outside the cache: flush and ask the host";
  EXPECT_EQ(host.writes, 3);
  EXPECT_EQ(host.bytes.size(), 32769U + 65536U + 1U);
  EXPECT_EQ(host.stream.flushWriteBuffer(), 0);
  EXPECT_EQ(host.writes, 3);
}

TEST_F(CodeStm, HostFailuresAreHandedBackWithThePositionUnchanged) {
  HostStream host(Ramp(10));
  std::uint8_t byte;
  host.readResult = -7;
  EXPECT_EQ(host.stream.read(&byte, 1), -7);
  host.writeResult = -9;
  const Bytes ramp = Ramp(40000);
  EXPECT_EQ(host.stream.write(ramp.data(), 40000), -9);
  EXPECT_EQ(host.stream.GetCurPos(), 0);
  host.stream.write(ramp.data(), 10);
  EXPECT_EQ(host.stream.flushWriteBuffer(), -9);
  EXPECT_EQ(host.stream.wbuf, nullptr);
}

TEST(Signature, FourPatternsAndNoOthers) {
  KelImage image;
  const auto streamIsKel = [&](const Bytes& bytes, KelLong mostPerRead = INT32_MAX) {
    HostStream host(bytes, false);
    host.mostPerRead = mostPerRead;
    const bool is = image.FileIsKel(&host.stream);
    EXPECT_EQ(host.stream.GetCurPos(), std::min<KelLong>(12, static_cast<KelLong>(bytes.size())));
    return is;
  };
  const Bytes weab = Hex("0000000C 77656162 7A6F6C74");
  const Bytes jp2 = Hex("0000000C 6A502020 0D0A870A");
  EXPECT_TRUE(streamIsKel(weab));
  EXPECT_TRUE(streamIsKel(jp2));
  EXPECT_TRUE(streamIsKel(jp2, 1)) << "a stream that delivers byte by byte";
  EXPECT_TRUE(streamIsKel(Hex("FF4FFF51 0000 0000 0000 0000")));
  EXPECT_TRUE(streamIsKel(Hex("AB4FAB51 0000 0000 0000 0000")));
  EXPECT_FALSE(streamIsKel(Hex("AB4FFF51 0000 0000 0000 0000")));
  EXPECT_FALSE(streamIsKel(Hex("0000000C 77656162 7A6F6C75")));
  EXPECT_FALSE(streamIsKel(Hex("FF4FFF51 0000 0000 0000 00"))) << "eleven bytes";

  Bytes block = weab;
  KelCompressedData data{block.data(), 12};
  EXPECT_FALSE(image.FileIsKel(&data)) << "a block needs a thirteenth byte";
  block.push_back(0);
  data = {block.data(), 13};
  EXPECT_TRUE(image.FileIsKel(&data));
  data.data = nullptr;
  EXPECT_FALSE(image.FileIsKel(&data));
}

}  // namespace
