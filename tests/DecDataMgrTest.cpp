// The decoder's byte source: whatever the window and the host do, the same bytes come out.
#include "KelDecDataMgr.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>

#include "DataSource.h"
#include "HostMemory.h"
#include "base/KelRaise.h"

namespace {

using namespace kel;
using namespace test;
using DecDataMgr = test::LibraryTest;

Bytes Ramp(std::size_t n) {
  Bytes ramp(n);
  for (std::size_t i = 0; i < n; ++i) ramp[i] = static_cast<std::uint8_t>(i * 167 + (i >> 8));
  return ramp;
}

/// Everything that a walk of mixed reads over a source delivers, positions included.
std::string Transcript(DataSource& data) {
  std::string log;
  const auto note = [&](std::uint64_t value) { log += std::to_string(value) + ' '; };
  std::uint32_t random = 7;
  while (!data->AtEnd()) {
    random = random * 1664525 + 1013904223;
    const std::uint32_t n = random >> 20 & 31;
    std::uint8_t copied[32] = {};
    const std::uint32_t step = random >> 29;
    if (step == 0) note(data->ReadByte());
    if (step == 1) note(data->ReadUInt(static_cast<int>(n & 7)));
    if (step == 2) note(data->ReadBytes(copied, n));
    if (step == 3) note(data->SkipForward(n));
    if (step == 4) note(data->EnsureBuffered(1) == kBufferedOk ? data->PeekByte(0) : 256);
    for (const std::uint8_t byte : copied) note(byte);
    for (std::uint32_t i = 0; step > 4 && i < 1 + (n & 3); ++i) {
      note(data->ReadBits(static_cast<int>(n) + 1));
      if (data->UnreadBits() == 0) continue;
      note(data->LastByte());  // a window that slides between keeps the byte with unread bits
      if (data->EnsureBuffered(1) == kBufferedOk) note(data->ReadPointer()[-1]);
    }
    note(static_cast<std::uint64_t>(data->GetPosition()));
  }
  note(data->ReadByte());
  note(data->ReadPastEnd());
  note(data->ReadUInt(4));
  note(data->SkipForward(5));
  return log;
}

TEST_F(DecDataMgr, WindowsNeverShow) {
  const Bytes bytes = Ramp(3001);
  DataSource block(bytes, Flavour::kAB);
  const std::string expected = Transcript(block);
  EXPECT_GT(expected.size(), 1000U);
  for (const std::uint32_t capacity : {1U, 2U, 3U, 7U, 64U, 204800U}) {
    for (const KelLong mostPerRead : {1, 5, INT32_MAX}) {
      for (const bool seekable : {true, false}) {
        DataSource stream(bytes, Flavour::kAB, {false, seekable, capacity, mostPerRead});
        EXPECT_EQ(Transcript(stream), expected) << capacity << ' ' << seekable << mostPerRead;
      }
    }
  }
}

TEST_F(DecDataMgr, BehindTheEndAreOnes) {
  for (const bool inMemory : {true, false}) {
    DataSource data({0x12, 0x34, 0x56}, Flavour::kFF, {inMemory});
    EXPECT_EQ(data->ReadBits(4), 1U);
    EXPECT_EQ(data->ReadBits(12), 0x234U);
    EXPECT_FALSE(data->AtEnd());
    EXPECT_EQ(data->EnsureBuffered(2), kDataEnded);
    EXPECT_EQ(data->PeekByte(0), 0x56U) << "a failed request must not lose what there is";
    EXPECT_EQ(data->PeekByte(1), 0xFFU);
    EXPECT_FALSE(data->ReadPastEnd());
    EXPECT_EQ(data->ReadUInt(3), 0x56FFFFU);
    EXPECT_TRUE(data->ReadPastEnd());
    EXPECT_TRUE(data->AtEnd());
    EXPECT_EQ(data->GetPosition(), 3) << "bytes that do not exist are not counted";
    EXPECT_EQ(data->ReadUInt(0) + data->ReadUInt(5), 0U);
    ASSERT_TRUE(data->MoveTo(1));
    EXPECT_FALSE(data->ReadPastEnd());
    EXPECT_EQ(data->ReadUInt(2), 0x3456U);
  }
  DataSource nothing({}, Flavour::kFF, {false});
  EXPECT_TRUE(!nothing.isThere && nothing->AtEnd());
  DataSource empty({}, Flavour::kFF);
  EXPECT_TRUE(empty->AtEnd());
}

// Requests beyond the capacity; loads of a few bytes each, which would crawl through a file.
TEST_F(DecDataMgr, RequestsAndLoads) {
  DataSource data(Ramp(300000), Flavour::kFF, {false});
  EXPECT_EQ(data.host->reads, 1);
  EXPECT_EQ(data->Available(), kFirstLoadBytes);
  EXPECT_EQ(data->EnsureBuffered(kWindowBytes + 1), kAboveCapacity);
  EXPECT_EQ(data->EnsureBuffered(kWindowBytes), kBufferedOk);
  EXPECT_EQ(data->SkipForward(250000), 250000U);
  data.host->reads = 0;
  for (int i = 0; i < 50000; ++i) data->ReadByte();
  EXPECT_TRUE(data->AtEnd());
  EXPECT_LT(data.host->reads, 8);
}

TEST_F(DecDataMgr, MovesInABlock) {
  DataSource data(Ramp(10), Flavour::kFF);
  EXPECT_TRUE(data->MoveTo(11)) << "at or behind the end is the end";
  EXPECT_EQ(data->GetPosition(), 10);
  EXPECT_FALSE(data->MoveTo(-1));
}

TEST_F(DecDataMgr, MovesInAStream) {
  DataSource data(Ramp(300), Flavour::kFF, {false, true, 100});
  EXPECT_TRUE(data->MoveTo(10));
  EXPECT_EQ(data.host->seeks, 0) << "inside the window, without the host";
  EXPECT_TRUE(data->MoveTo(299));
  EXPECT_EQ(data->ReadByte(), data.bytes[299]);
  EXPECT_TRUE(data->AtEnd());
  EXPECT_TRUE(data->MoveTo(5)) << "a move back ends the end";
  EXPECT_FALSE(data->AtEnd());
  EXPECT_FALSE(data->MoveTo(std::int64_t{1} << 40) || data->MoveTo(-1));
  data.host->refuseSeek = true;
  EXPECT_FALSE(data->MoveTo(200));
  EXPECT_EQ(data->ReadByte(), data.bytes[5]) << "a refused move must lose nothing";

  DataSource deaf(Ramp(300), Flavour::kFF, {false, false});
  EXPECT_FALSE(deaf->MoveTo(301) || deaf->MoveTo(-1) || deaf->IndexAllowed());
  deaf->ReadUInt(4);
  EXPECT_TRUE(deaf->MoveTo(1)) << "inside the window no stream has to move";
  EXPECT_EQ(deaf->ReadByte(), deaf.bytes[1]);

  // A read past the window leaves nothing in it that a move could come back to.
  DataSource bypassed(Ramp(300), Flavour::kFF, {false, true, 100});
  std::uint8_t many[200];
  EXPECT_EQ(bypassed->ReadBytes(many, 200), 200U);
  EXPECT_TRUE(bypassed->MoveTo(150));
  EXPECT_EQ(bypassed->ReadByte(), bypassed.bytes[150]);
}

// Skips that turn backwards, stay where they are, or pass the end and are not noticed.
TEST_F(DecDataMgr, SkipsEndAtTheEnd) {
  const Bytes bytes = Ramp(1000);
  const Delivery deliveries[] = {
      {true}, {false, true, 64}, {false, false, 64}, {false, true, 64, 1}};
  for (const Delivery& how : deliveries) {
    for (const std::uint64_t n : {std::uint64_t{993}, std::uint64_t{994}, std::uint64_t{100000},
                                  std::uint64_t{0xFFFFFFF0}, UINT64_MAX}) {
      DataSource data(bytes, Flavour::kFF, how);
      data->ReadBits(32);
      data->ReadBits(17);
      EXPECT_EQ(data->SkipForward(n), 993U);
      EXPECT_EQ(data->GetPosition(), 1000);
      EXPECT_TRUE(data->AtEnd());
      EXPECT_EQ(data->UnreadBits(), 0);
      EXPECT_EQ(data->SkipForward(n), 0U);
    }
    DataSource data(bytes, Flavour::kFF, how);
    EXPECT_EQ(data->SkipForward(999), 999U);
    EXPECT_EQ(data->ReadByte(), bytes[999]);
    EXPECT_FALSE(data->ReadPastEnd());
  }
  DataSource refusing(bytes, Flavour::kFF, {false, true, 64});
  refusing.host->refuseSeek = true;
  EXPECT_EQ(refusing->SkipForward(500), 500U);
  EXPECT_EQ(refusing->ReadByte(), bytes[500]);

  DataSource strayed(bytes, Flavour::kFF, {false, true, 64});
  strayed.host->procs.Seek = [](void*, KelLong, KelLong) -> KelLong { return 3; };
  strayed->SkipForward(500);
  EXPECT_TRUE(strayed->AtEnd()) << "a host that moves elsewhere must not lead in circles";
}

TEST_F(DecDataMgr, HostsThatLieDeliverNothing) {
  for (const KelLong lie : {-1, INT32_MAX, static_cast<KelLong>(kFirstLoadBytes) + 1}) {
    DataSource data(Ramp(4), Flavour::kFF, {false});
    EXPECT_EQ(data->ReadByte(), data.bytes[0]);
    data.host->readResult = lie;
    EXPECT_EQ(data->EnsureBuffered(4), kDataEnded);
    EXPECT_EQ(data->ReadUInt(4), 0xA74EF5FFU) << "what had arrived stays";
    std::uint8_t two[2];
    EXPECT_EQ(data->ReadBytes(two, 2), 0U);
    EXPECT_FALSE(data->InitFromStream(10, 10, data.host->Stream(), Flavour::kFF));
  }
}

// A frame gives back what it did not consume, and later frames find the positions of earlier ones.
TEST_F(DecDataMgr, StateAcrossFrames) {
  DataSource data(Ramp(300), Flavour::kAB, {false});
  data->SkipForward(20);
  data->SavePositionB();
  data->ReadUInt(3);
  data->SavePositionA();
  data->SetIndexAllowed(false);
  EXPECT_FALSE(data->IndexAllowed());
  data->ResetDataMgr();
  EXPECT_EQ(data.host->position, 23U);
  EXPECT_EQ(data->GetPosition(), 23);
  EXPECT_EQ(data->ReadByte(), data.bytes[23]) << "a window that was given back is loaded again";

  data->InitFromMemory({data.bytes.data(), 300}, Flavour::kFF);
  EXPECT_TRUE(data->IndexAllowed());
  EXPECT_EQ(data->MarkerByte(), 0xFFU);
  data->ReturnToPositionB();
  EXPECT_EQ(data->GetPosition(), 20);
  data->ReturnToPositionA();
  EXPECT_EQ(data->ReadByte(), data.bytes[23]);
}

TEST_F(DecDataMgr, RefusedWindowsNameTheModule) {
  memory.RefuseRequest(2);  // behind the manager's own
  const auto make = [] { DataSource(Ramp(10), Flavour::kFF, {false}); };
  EXPECT_STREQ(RaisedBy(make).srcFile, kModuleDecDataMgr);
}

}  // namespace
