// The session's accounts and limits, streams, and work on several threads.
#include <kel/Kel.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <numeric>
#include <set>
#include <thread>

#include "TestImages.hpp"

namespace {

using namespace kel::host;
using test::ErrorOf;

TEST(Session, CountsEveryKindOfBlockAndReturnsToZero) {
  const Session session;
  KelMemFuncs& memory = *KelGetMemObj();
  void* plain = memory.Malloc(1000);
  void* aligned = memory.AlignedMalloc(500, 256);
  EXPECT_EQ(Session::CurrentBytes(), 1500U);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(aligned) % 256, 0U);
  KelBufID_I* buffer = memory.AllocAlignedBuf(100, 128);
  auto* bytes = static_cast<std::uint8_t*>(memory.LockBuf(buffer));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(bytes) % 128, 0U);
  std::fill_n(bytes, 100, std::uint8_t{0xEE});
  EXPECT_EQ(buffer->bufType, 1) << "the identifier stands clear of the bytes";
  const std::uint64_t most = Session::CurrentBytes();
  EXPECT_GE(most, 1600U);
  memory.UnlockBuf(buffer);
  memory.FreeBuf(buffer);
  memory.Free(plain);
  memory.AlignedFree(aligned);
  memory.Free(nullptr);
  EXPECT_EQ(Session::CurrentBytes(), 0U);
  EXPECT_EQ(Session::PeakBytes(), most);
  Session::ResetPeak();
  EXPECT_EQ(Session::PeakBytes(), 0U);
}

TEST(Session, LimitIsExactAndGivenBack) {
  const Session session(1000);
  KelMemFuncs& memory = *KelGetMemObj();
  void* all = memory.Malloc(1000);
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(memory.Malloc(1), nullptr);
  EXPECT_EQ(memory.AllocBuf(1), nullptr);
  memory.Free(all);
  EXPECT_EQ(memory.Malloc(0xFFFFFFFF), nullptr) << "a request that would wrap the sum";
  EXPECT_EQ(Session::CurrentBytes(), 0U) << "refused requests must not be charged";
}

TEST(Session, KeepsBlocksForTheirSizeUntilAnotherNeedsThem) {
  const Session session;
  KelMemFuncs& memory = *KelGetMemObj();
  constexpr KelULong kSize = 1 << 20;
  void* first = memory.Malloc(kSize);
  memory.Free(first);
  EXPECT_GE(Session::KeptBytes(), kSize);
  EXPECT_EQ(Session::CurrentBytes(), 0U);
  void* again = memory.Malloc(kSize - 1000);
  EXPECT_EQ(again, first) << "a little less fits too";
  EXPECT_EQ(Session::KeptBytes(), 0U);
  void* second = memory.Malloc(kSize);
  memory.Free(again);
  memory.Free(second);
  void* larger = memory.Malloc(3 * kSize);
  EXPECT_EQ(Session::KeptBytes(), 0U) << "kept blocks would add to the peak";
  memory.Free(larger);
  void* small = memory.Malloc(kSize / 2);
  EXPECT_EQ(Session::KeptBytes(), 0U) << "nor may a small request sit beside a large kept block";
  memory.Free(small);
}

TEST(Session, ReservationsCountAgainstTheLimitWhileTheyLive) {
  const Session session(std::uint64_t{64} << 20);
  KelMemFuncs& memory = *KelGetMemObj();
  {
    MemoryReservation room(std::uint64_t{64} << 20, "a test");
    const MemoryReservation moved = std::move(room);
    EXPECT_EQ(memory.Malloc(1), nullptr);
  }
  EXPECT_EQ(Session::CurrentBytes(), 0U);
  const Error error =
      ErrorOf([] { MemoryReservation((std::uint64_t{64} << 20) + 1, "the decoded image"); });
  EXPECT_EQ(error.Kind(), Failure::kMemory);
  EXPECT_EQ(error.Sentence(),
            "64 MiB are needed for the decoded image, more than the memory limit of 64 MiB leaves");
  EXPECT_EQ(ErrorOf([] { MakeImage(100000, 100000, 3, 8); }).Kind(), Failure::kMemory);
}

TEST(Session, AccountsAreKeptApartAndSurviveTheirSessions) {
  auto first = std::make_unique<Session>(1000);
  KelMemFuncs* const memory = KelGetMemObj();
  void* early = memory->Malloc(900);
  {
    const Session second(500);
    EXPECT_EQ(KelGetMemObj(), memory);
    EXPECT_EQ(Session::Limit(), 500U) << "the last one on this thread";
    void* block = memory->Malloc(400);
    EXPECT_EQ(Session::CurrentBytes(), 400U);
    ForEachIndex(2, 2, [&](unsigned, std::size_t) { EXPECT_EQ(Session::Limit(), 500U); });
    std::thread([] { EXPECT_EQ(Session::Limit(), 1000U) << "a thread without one"; }).join();
    memory->Free(early);  // charged to the first
    EXPECT_EQ(Session::CurrentBytes(), 400U);
    memory->Free(block);
  }
  EXPECT_EQ(Session::CurrentBytes(), 0U);
  {
    const MemoryReservation late(10, "a test");
    const Session other;
    first.reset();
    EXPECT_EQ(KelGetMemObj(), memory) << "the library stops with its last user";
  }
  EXPECT_EQ(KelGetMemObj(), nullptr);
  EXPECT_FALSE(Session::IsRunning());
  EXPECT_EQ(Session(5).Limit(), 5U) << "and starts again";
}

// A program that uses the library by itself beside the kit must keep the callbacks that it gave.
TEST(Session, CallbacksOfOthersStayInForce) {
  static std::atomic<int> requests;
  KelMemFuncs own;
  {
    const Session session;
    own = *KelGetMemObj();
  }
  requests = 0;
  own.Malloc = [](KelULong size) {
    ++requests;
    return std::malloc(size);
  };
  own.Free = [](void* address) { std::free(address); };
  ASSERT_EQ(KelLibInit(&own), KelOK);
  {
    const Session session(std::uint64_t{1} << 20);
    EXPECT_EQ(KelGetMemObj(), &own);
    const Image image = test::NoiseImage(40, 30, 3, 8);
    MemorySink sink;
    EncodeParams params;
    params.lossless = true;
    Encode(image, params, sink);
    MemorySource source(sink.bytes);
    test::ExpectSamePlanes(image, Decode(source));
  }
  EXPECT_EQ(KelGetMemObj(), &own);
  EXPECT_GT(requests, 0);
  KelLibShutDown();
}

// Lost updates of the counters would leave bytes behind.
TEST(Session, CountersAreThreadSafe) {
  const Session session;
  KelMemFuncs& memory = *KelGetMemObj();
  ForEachIndex(4, 4, [&](unsigned, std::size_t) {
    for (KelULong i = 1; i < 5000; ++i) memory.Free(memory.Malloc(i % 97));
  });
  EXPECT_EQ(Session::CurrentBytes(), 0U);
  EXPECT_GE(Session::PeakBytes(), 96U);
}

// State that objects share although nothing says so; a thread sanitizer sees it.
TEST(Session, ThreadsWithSessionsAndObjectsOfTheirOwnGetTheSame) {
  constexpr std::size_t kThreads = 8;
  std::vector<Bytes> files(kThreads);
  std::vector<std::uint64_t> left(kThreads, 1);
  const auto work = [&](std::size_t i) {
    const Session session(std::uint64_t{64} << 20);
    MemorySink sink;
    EncodeParams params;
    params.tileWidth = params.tileHeight = 64;
    params.threads = 2;
    Encode(test::NoiseImage(150, 130, 3, 8), params, sink);
    MemorySource source(sink.bytes);
    DecodeParams decoding;
    decoding.threads = 2;
    const Image image = Decode(source, decoding);
    files[i] = sink.bytes;
    left[i] = image.width == 150 ? Session::CurrentBytes() : 1;
  };
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < kThreads; ++i) {
    EXPECT_EQ(left[i], 0U);
    EXPECT_EQ(files[i], files[0]);
  }
}

TEST(Errors, CarryTheLibrarysDetails) {
  KelException raised;
  raised.errCode = KelErrBadMarker;
  raised.lineNum = 120;
  raised.srcFile = "common/src/KelHeaders";
  const Error error(Failure::kInput, std::string(CodeSentence(raised.errCode)), raised);
  EXPECT_EQ(error.Details(), "KelErrBadMarker, common/src/KelHeaders:120");
  const Error placed(Failure::kInput, "refused", raised, {"common/src/decode/X.cpp", 120});
  EXPECT_EQ(placed.Details(), "KelErrBadMarker, common/src/decode/X.cpp:120");
  EXPECT_EQ(error.Code(), KelErrBadMarker);
  const Error file(Failure::kInput, "x.kel", "cannot be opened");
  EXPECT_STREQ(file.what(), "x.kel: cannot be opened");
  EXPECT_EQ(FormatBytes(1023), "1023 bytes");
  EXPECT_EQ(FormatBytes(1536), "1.5 KiB");
  EXPECT_EQ(FormatBytes(std::uint64_t{64} << 20), "64 MiB");
  EXPECT_EQ(FormatBytes(UINT64_MAX), "16777216 TiB") << "beyond the last unit";
}

TEST(Streams, ReadAllGathersShortReads) {
  Bytes expected(200001);
  std::iota(expected.begin(), expected.end(), std::uint8_t{0});
  std::size_t at = 0;
  CallbackSource source([&](std::span<std::uint8_t> to) {
    const std::size_t count = std::min({to.size(), expected.size() - at, std::size_t{4099}});
    std::copy_n(expected.begin() + static_cast<std::ptrdiff_t>(at), count, to.begin());
    at += count;
    return count;
  });
  Bytes storage;
  EXPECT_TRUE(std::ranges::equal(ReadAll(source, storage), expected));

  MemorySource memory(expected);
  Bytes unused;
  EXPECT_EQ(ReadAll(memory, unused).data(), expected.data()) << "memory needs no copy";
  EXPECT_TRUE(unused.empty());
  CallbackSource nothing([](std::span<std::uint8_t>) { return std::size_t{0}; });
  EXPECT_TRUE(ReadAll(nothing, storage).empty());
}

TEST(Streams, FilesSayWhatIsWrong) {
  const test::Folder folder;
  EXPECT_EQ(ErrorOf([&] { FileSource(folder.Path("none")); }).Kind(), Failure::kInput);
  EXPECT_EQ(ErrorOf([&] { FileSink(folder.Path("no/where")); }).Kind(), Failure::kOutput);
  FileSink full("/dev/full");
  const Error error = ErrorOf([&] {
    full.Write(Bytes(10));
    full.Finish();
  });
  EXPECT_EQ(error.File(), "/dev/full");
  EXPECT_EQ(error.Sentence(), "cannot be written: No space left on device");
  {
    FileSink sink(folder.Path("file"));
    sink.Write(Bytes{'a', 'b', 'c'});
    sink.Finish();
  }
  FileSource source(folder.Path("file"));
  Bytes storage;
  EXPECT_EQ(ReadAll(source, storage).size(), 3U);
}

TEST(Parallel, EveryIndexOnceInOrderOnTheThreadsAsked) {
  for (const unsigned threads : {1U, 3U, 50U}) {
    std::vector<std::atomic<int>> visits(20);
    std::atomic<std::size_t> last{0};
    ForEachIndex(visits.size(), threads, [&](unsigned worker, std::size_t index) {
      EXPECT_LT(worker, threads);
      if (threads == 1) {
        EXPECT_EQ(index, last++);
      }
      ++visits[index];
    });
    for (const auto& count : visits) EXPECT_EQ(count, 1);
  }
  ForEachIndex(0, 4, [](unsigned, std::size_t) { FAIL() << "there is nothing to do"; });
}

TEST(Parallel, TheFirstExceptionStopsTheRestAndReachesTheCaller) {
  std::atomic<int> started{0};
  const auto work = [&](unsigned, std::size_t index) {
    ++started;
    if (index == 5) throw std::runtime_error("five");
  };
  EXPECT_THROW(ForEachIndex(100000, 1, work), std::runtime_error);
  EXPECT_EQ(started, 6);
  EXPECT_THROW(ForEachIndex(100000, 4, work), std::runtime_error);
}

}  // namespace
