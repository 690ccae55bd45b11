// The library frame: memory layer and owners, failure record, guard.
#include "base/KelMemFuncDefs.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "HostMemory.h"
#include "api/KelApiGlue.h"
#include "base/KelRaise.h"

namespace {

using namespace kel;
using namespace test;

TEST(Memory, RefusalRaisesTheFullRecord) {
  HostMemory memory;
  for (auto request :
       {+[] { KelMalloc(1); }, +[] { KelCalloc(1, 1); }, +[] { KelAlignedMalloc(1); },
        +[] { KelAllocBuf(1); }, +[] { KelAllocAlignedBuf(1); }}) {
    memory.RefuseRequest(1);
    const KelException failure = RaisedBy(request);
    EXPECT_TRUE(failure.errCode == KelErrNoMemory && failure.errLevel == 3);
    EXPECT_STREQ(failure.srcFile, "common/src/KelMemFuncDefs");
    EXPECT_GT(failure.lineNum, 0);
  }
}

// A size that wraps to a small one must never reach the host.
TEST(Memory, SizesBeyond32BitsAreRefusedWithoutAsking) {
  HostMemory memory;
  const std::size_t before = memory.Requests();
  EXPECT_EQ(RaisedBy([] { KelMalloc(0x100000000); }).errCode, KelErrNoMemory);
  EXPECT_EQ(RaisedBy([] { KelCalloc(0x10001, 0x10000); }).errCode, KelErrNoMemory);
  EXPECT_EQ(RaisedBy([] { KelCalloc(std::uint64_t{1} << 63, 2); }).errCode, KelErrNoMemory);
  EXPECT_EQ(RaisedBy([] { KelAllocBuf(0x100000001); }).errCode, KelErrNoMemory);
  EXPECT_EQ(RaisedBy([] { ScratchArray<double>::Make(0x20000000); }).errCode, KelErrNoMemory);
  EXPECT_EQ(memory.Requests(), before);
}

// A block for nothing that is taken for a refusal; bytes lost by growing and shrinking, or moved
// without need.
TEST(Memory, SizeZeroAndRealloc) {
  KelMemFuncs funcs{};
  funcs.Malloc = [](KelULong) -> void* { return nullptr; };
  funcs.AllocBuf = [](KelULong) -> KelBufID_I* { return nullptr; };
  RegisterMemFuncs(&funcs);
  EXPECT_TRUE(KelMalloc(0) == nullptr && KelCalloc(0, 8) == nullptr && KelAllocBuf(0) == nullptr);
  KelLibShutDown();
  EXPECT_EQ(KelGetMemObj(), nullptr);
  EXPECT_EQ(RaisedBy([] { KelMalloc(1); }).errCode, KelErrNoMemory) << "not started";
  KelFree(nullptr);
  HostMemory memory;
  auto* block = static_cast<char*>(KelMalloc(4));
  std::memcpy(block, "abc", 4);
  EXPECT_EQ(KelRealloc(block, 4, 4), block);
  block = static_cast<char*>(KelRealloc(block, 4, 100));
  EXPECT_STREQ(block, "abc");
  block = static_cast<char*>(KelRealloc(block, 100, 2));
  EXPECT_EQ(std::memcmp(block, "ab", 2), 0);
  KelFree(block);
}

// A host with a callback less would crash in the first operation that needs it.
TEST(Memory, AnIncompleteHostIsRefused) {
  const HostMemory memory;
  KelMemFuncs* const host = KelGetMemObj();
  EXPECT_EQ(KelLibInit(nullptr), KelErrBadParam);
  const auto refusesWithout = [&](auto field) {
    KelMemFuncs some = *host;
    some.*field = nullptr;
    return KelLibInit(&some) == KelErrBadParam && KelGetMemObj() == host;
  };
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::AllocBuf));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::AllocAlignedBuf));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::LockBuf));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::UnlockBuf));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::FreeBuf));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::Malloc));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::Free));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::AlignedMalloc));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::AlignedFree));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::MemCopy));
  EXPECT_TRUE(refusesWithout(&KelMemFuncs::MemSet));
}

TEST(Memory, OnlyTheLibrarysBuffersAreTouched) {
  KelMemFuncs funcs{};
  static int calls;
  calls = 0;
  funcs.LockBuf = [](KelBufID_I*) -> void* { return ++calls, &calls; };
  funcs.UnlockBuf = funcs.FreeBuf = [](KelBufID_I*) { ++calls; };
  RegisterMemFuncs(&funcs);
  for (const std::uint8_t type : {0, 2, 7, 8, 255}) {
    KelBufID_I foreign;
    foreign.bufType = type;
    EXPECT_EQ(KelLockBuf(&foreign), nullptr);
    KelUnlockBuf(&foreign);
    KelFreeBuf(&foreign);
  }
  EXPECT_EQ(calls, 0);
  KelLibShutDown();
}

// Owners give back exactly once, also when moved, assigned over, or left by an exception.
TEST(Memory, OwnersReleaseOnce) {
  HostMemory memory;
  struct Record {
    int value;
  };
  {
    auto record = OwnedRecord<Record>::Make();
    EXPECT_EQ(record->value, 0);
    OwnedRecord<Record> other(std::move(record));
    other = OwnedRecord<Record>::Make();
    auto array = OwnedArray<int>::Make(5);
    EXPECT_EQ(array[4], 0);
    array = OwnedArray<int>::Make(7);
    EXPECT_EQ(array.Size(), 7U);
    auto scratch = ScratchArray<float>::Make(3);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(scratch.Data()) % 64, 0U);
    auto buffer = OwnedBuffer::MakeAligned(32);
    const BufferLock lock(buffer.Get());
    EXPECT_TRUE(lock);
    EXPECT_EQ(memory.Outstanding(), 4U);
    KelFree(array.Release());
    EXPECT_EQ(array.Size(), 0U);
  }
  EXPECT_EQ(memory.Outstanding(), 0U);
  try {
    const auto array = OwnedArray<int>::Make(5);
    ScopeGuard guard([] {});
    Raise(KelErrBadParam, kModuleImage);
  } catch (const KelException&) {
  }
  EXPECT_EQ(memory.Outstanding(), 0U);
}

TEST(Memory, GrowByOneKeepsWhatIsThere) {
  HostMemory memory;
  int* values = nullptr;
  std::uint32_t used = 0;
  std::uint32_t obtained = 0;
  for (int i = 0; i < 100; ++i) {
    GrowByOne(values, used, obtained);
    values[used++] = i;
  }
  EXPECT_LT(memory.Requests(), 10U) << "growth must be geometric";
  for (int i = 0; i < 100; ++i) EXPECT_EQ(values[i], i);
  KelFree(values);
}

TEST(Guard, TurnsFailuresIntoCodesAndRestoresRounding) {
  Failure details;
  const auto guard = [&](KelLong (*call)()) {
    return Guard(&details, call, [](KelLong code) { return code; });
  };
  std::fesetround(FE_UPWARD);
  EXPECT_EQ(guard([]() -> KelLong {
              EXPECT_EQ(std::fegetround(), FE_TONEAREST);
              Raise(KelErrUnsupported, kModuleHeaders);
            }),
            KelErrUnsupported);
  EXPECT_EQ(std::fegetround(), FE_UPWARD);
  std::fesetround(FE_TONEAREST);
  EXPECT_STREQ(details.srcFile, kModuleHeaders);
  EXPECT_NE(std::strstr(details.file, "MemoryTest.cpp"), nullptr);
  EXPECT_EQ(guard([]() -> KelLong { throw std::runtime_error("other"); }), 31);
  EXPECT_STREQ(details.srcFile, "common/src/KelApiGlue");
  EXPECT_EQ(details.errLevel, 3);
  EXPECT_EQ(guard([]() -> KelLong { return 7; }), 7);
  EXPECT_EQ(details.errCode, 31) << "a success clears nothing";
  EXPECT_EQ(guard([]() -> KelLong { throw KelException(); }), 0);
  EXPECT_EQ(details.file, nullptr) << "a host's own record has no place";
  EXPECT_THROW(static_cast<void>(GuardKelExceptions(&details, []() -> KelLong { throw 1; })), int);
  details.Clear();
  EXPECT_TRUE(details.errCode == 0 && details.lineNum == -1 && details.srcFile == nullptr);
  EXPECT_STREQ(details.GetErrString(), "Not Available Yet");
}

// Negative numbers, results beyond the type, halves.
TEST(Integers, DivisionAndSaturationAtTheEdges) {
  EXPECT_TRUE(CeilDiv(7, 2) == 4 && CeilDiv(-7, 2) == -3 && FloorDiv(-7, 2) == -4);
  EXPECT_TRUE(CeilShift(3, 1) == 2 && CeilShift(INT32_MAX, 40) == 1 && CeilShift(-1, 3) == 0);
  EXPECT_EQ(SaturatingMul(std::uint64_t{1} << 40, std::uint64_t{1} << 40), UINT64_MAX);
  EXPECT_EQ(SaturatingAdd(UINT64_MAX, 1), UINT64_MAX);
  for (const auto& [value, rounded] : {std::pair{0.5, 0},
                                       {1.5, 2},
                                       {-2.5, -2},
                                       {1e30, INT32_MAX},
                                       {-1e30, INT32_MIN},
                                       {std::nan(""), 0}}) {
    EXPECT_EQ(RoundToInt32(value), rounded);
  }
}

}  // namespace
