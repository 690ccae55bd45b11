// Stream objects with positions of 64 bits: moves and writes behind 2^31 - 1, and data that reach
// beyond 4 GiB, most of which is never looked at.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "EncodeHost.h"
#include "HostMemory.h"
#include "kel/KelIndex.h"

namespace {

using namespace test;
using LargeStream = test::LibraryTest;

/// How a call of the host's ends: with nothing done, a half of it, an exception.
enum class Fault { kFails, kHalf, kThrows };

/// A stream of any length that has bytes here and there, and zeros between. One call can go wrong.
class SparseStream {
 public:
  explicit SparseStream(bool seekable) {
    large.clientData = this;
    large.Read = [](void* self, void* to, KelLong count) {
      return static_cast<SparseStream*>(self)->Read(static_cast<std::uint8_t*>(to), count);
    };
    large.Write = [](void* self, const void* from, KelLong count) {
      const auto* bytes = static_cast<const std::uint8_t*>(from);
      auto& sparse = *static_cast<SparseStream*>(self);
      const bool trips = sparse.Trips();
      if (trips && sparse.fault == Fault::kFails) return KelLong{-1};
      if (trips) count /= 2;
      sparse.Append(Bytes(bytes, bytes + count));
      return count;
    };
    large.Seek = [](void* self, std::int64_t target) {
      auto& sparse = *static_cast<SparseStream*>(self);
      const bool trips = sparse.Trips();
      sparse.wasSeekAtFault = sparse.wasSeekAtFault || trips;
      if (trips && sparse.fault == Fault::kFails) return std::int64_t{-1};
      return sparse.position = trips ? target / 2 : target;
    };
    large.InitStream(&stream, 0, true, seekable, false, false);
  }

  void Append(const Bytes& bytes) {
    pieces[position] = bytes;
    position += static_cast<std::int64_t>(bytes.size());
    end = std::max(end, position);
  }

  /// Whether this call is the one that goes wrong.
  bool Trips() {
    if (callsToFault == 0 || --callsToFault != 0) return false;
    if (fault == Fault::kThrows) throw fault;
    return true;
  }

  KelLong Read(std::uint8_t* to, KelLong count) {
    const bool trips = Trips();
    if (trips && fault == Fault::kFails) return -1;
    if (trips) count = (count + 1) / 2;
    if (position >= end) return 0;
    const auto taken = static_cast<KelLong>(std::min<std::int64_t>(count, end - position));
    std::fill_n(to, taken, std::uint8_t{0});
    for (const auto& [start, bytes] : pieces) {
      const std::int64_t from = std::max(start, position);
      const std::int64_t before = start + static_cast<std::int64_t>(bytes.size());
      const std::int64_t length = std::min(before, position + taken) - from;
      if (length > 0) std::copy_n(bytes.data() + (from - start), length, to + (from - position));
    }
    position += taken;
    bytesRead += taken;
    return taken;
  }

  std::map<std::int64_t, Bytes> pieces;
  std::int64_t position = 0, end = 0, bytesRead = 0;
  Fault fault = Fault::kFails;
  int callsToFault = 0;  ///< 1: the next one; 0: none
  bool wasSeekAtFault = false;
  KelLargeStream large;
  KelCodeStm stream;
};

/// Runs a flow with the first, second, third ... call going wrong in every way, until none does.
template <class Flow>
void SweepFaults(Flow flow) {
  for (const Fault fault : {Fault::kFails, Fault::kHalf, Fault::kThrows}) {
    bool hasTripped = true;
    for (int n = 1; hasTripped && !testing::Test::HasFailure(); ++n) {
      SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)) + " in call " +
                   std::to_string(n));
      SparseStream host(true);
      host.fault = fault;
      flow(host, n);
      hasTripped = host.callsToFault == 0;
    }
  }
}

TEST_F(LargeStream, PositionsAreThoseOfTheHostBehindTheStreamObjectsOwn) {
  constexpr std::int64_t kFar = 5'000'000'000;
  SparseStream host(true);
  host.large.position = host.position = kFar;
  host.stream.curPos = INT32_MAX;
  const Bytes ten(10, 1), one(1, 7);
  EXPECT_EQ(host.stream.write(ten.data(), 10), 10);
  EXPECT_EQ(host.stream.seek(0, -4), INT32_MAX) << "inside the write buffer";
  EXPECT_EQ(host.stream.write(one.data(), 1), 1);
  EXPECT_EQ(host.stream.seek(0, 3), INT32_MAX);
  EXPECT_TRUE(host.pieces.empty());
  EXPECT_EQ(host.stream.seek(0, -1000), INT32_MAX) << "outside: the buffer goes to the host";
  EXPECT_EQ(host.pieces[kFar], Bytes({1, 1, 1, 1, 1, 1, 7, 1, 1, 1}));
  EXPECT_EQ(host.position, kFar + 10 - 1000);
  EXPECT_EQ(host.stream.seek(1, 12), 12);
  EXPECT_EQ(host.position, 12);
}

TEST_F(LargeStream, TheEncoderWritesOverTheBorder) {
  EncodeHost encode(MakePicture(60, 40, 1, 8), 32, 32);
  const Bytes expected = encode.Encode();
  SparseStream host(false);
  host.large.position = host.position = INT32_MAX - 200;
  host.stream.curPos = INT32_MAX - 200;
  HostStream unused;
  unused.stream = host.stream;
  EXPECT_EQ(encode.EncodeTo(unused), KelOK);
  Bytes written;
  for (const auto& [start, bytes] : host.pieces) {
    written.insert(written.end(), bytes.begin(), bytes.end());
  }
  EXPECT_EQ(written, expected);
}

/// The file with its tile-parts moved apart by others that no tile needs.
void MoveApart(const Bytes& file, SparseStream& host, KelLong gap = INT32_MAX) {
  KelStreamIndex index;
  const KelCompressedData block{file.data(), static_cast<KelULong>(file.size())};
  ASSERT_EQ(index.InitIndex(nullptr, &block), KelOK);
  const auto piece = [&](std::uint64_t from, std::uint64_t length) {
    const auto begin = file.begin() + static_cast<std::ptrdiff_t>(from);
    host.Append(Bytes(begin, begin + static_cast<std::ptrdiff_t>(length)));
  };
  piece(0, index.GetFacts()->firstTilePartOffset);
  const KelIndexTileParts& found = *index.GetTileParts();
  for (KelULong i = 0; i < found.count; ++i) {
    const KelIndexTilePart& part = found.parts[i];
    piece(part.offset, part.length);
    if (i + 1 == found.count || found.parts[i + 1].tile == part.tile) continue;
    const std::int64_t start = host.position;
    Bytes filling = Hex("AB90 000A 0000 00000000 C8 00 AB93");
    for (int b = 0; b < 4; ++b) filling[9 - b] = static_cast<std::uint8_t>(gap >> 8 * b);
    host.Append(filling);
    host.position = host.end = start + gap;
  }
  piece(file.size() - 2, 2);
  index.Die();
}

TEST_F(LargeStream, DataBeyondFourGibibytesAreDecodedAndIndexed) {
  Coding lossless;
  lossless.irreversible = 0;
  EncodeHost encode(MakePicture(64, 64, 1, 8, Content::kNoise), 32, 32, lossless);
  SparseStream host(true);
  MoveApart(encode.Encode(), host);
  ASSERT_GT(host.end, std::int64_t{6} << 30);

  KelDecOpt options;
  options.InitToDefaults();
  KelImage image;
  ASSERT_EQ(image.InitDecoder(&host.stream, nullptr, &options, nullptr, nullptr, KelAspectFull),
            KelOK);
  FrameRequest frame({8});
  for (int i = 0; i < 2; ++i) {  // the second frame has to find its way back
    Bytes samples(64 * 64);
    frame.buffers[0] = samples.data();
    frame.strides[0] = 64;
    EXPECT_EQ(image.GetNextFrame(nullptr, nullptr, false, false, &frame.data), KelOK);
    EXPECT_TRUE(std::equal(samples.begin(), samples.end(), encode.image.planes[0].samples.begin()));
    for (KelLong tile = 0; tile < 4; ++tile) image.ReleaseTile(tile);
  }
  EXPECT_EQ(image.GetNumDamages(), 0);
  image.Die();
  options.Die();

  host.position = host.large.position = 0;
  host.large.InitStream(&host.stream, host.end, false, true, true, false);
  KelStreamIndex index;
  ASSERT_EQ(index.InitIndex(&host.stream, nullptr), KelOK);
  const KelIndexTileParts& found = *index.GetTileParts();
  EXPECT_TRUE(found.areRegular);
  const KelIndexWant last{3, -1, 0, 0};
  const KelIndexRanges& ranges = *index.GetRanges(&last);
  EXPECT_TRUE(ranges.areAll);
  EXPECT_EQ(ranges.ranges[0].offset, found.parts[found.count - 1].offset -
                                         (ranges.bytes - found.parts[found.count - 1].length));
  EXPECT_GT(ranges.ranges[0].offset, std::uint64_t{6} << 30);
  index.Die();
  EXPECT_LT(host.bytesRead, 2'000'000) << "what lies between is read";
}

// A frame or a walk that a call of the host's has cut short: another one gets everything.
TEST_F(LargeStream, WhatACallThatWentWrongKeptBackComesLater) {
  Coding lossless;
  lossless.irreversible = 0;
  EncodeHost encode(MakePicture(64, 32, 1, 8, Content::kNoise), 32, 32, lossless);
  const Bytes file = encode.Encode();
  SweepFaults([&](SparseStream& host, int n) {
    MoveApart(file, host, 30000);
    host.callsToFault = n;
    host.position = 0;
    KelDecOpt options;
    options.InitToDefaults();
    KelImage image;
    const bool isOpen = image.InitDecoder(&host.stream, nullptr, &options, nullptr, nullptr,
                                          KelAspectFull) == KelOK;
    FrameRequest frame({8});
    Bytes samples(64 * 32);
    frame.buffers[0] = samples.data();
    frame.strides[0] = 64;
    for (int i = 0; i < 2 && isOpen; ++i) {
      try {
        image.GetNextFrame(nullptr, nullptr, false, false, &frame.data);
      } catch (Fault) {
      }
    }
    const auto& expected = encode.image.planes[0].samples;
    EXPECT_TRUE(!isOpen || std::equal(samples.begin(), samples.end(), expected.begin()));
    image.Die();
    options.Die();
  });
  SweepFaults([&](SparseStream& host, int n) {
    MoveApart(file, host, 30000);
    host.callsToFault = n;
    host.position = 0;
    KelStreamIndex index;
    if (index.InitIndex(&host.stream, nullptr) == KelOK) {
      const KelIndexTileParts* found = index.GetTileParts();
      if (found == nullptr) found = index.GetTileParts();
      // A move that is refused, or goes astray, is an end of the data.
      EXPECT_TRUE(found != nullptr && (found->areRegular || host.wasSeekAtFault));
    }
    index.Die();
  });
}

TEST_F(LargeStream, AnEncoderIsToldOfEveryCallThatWentWrong) {
  EncodeHost encode(MakePicture(300, 230, 1, 8, Content::kNoise), 150, 230,
                    {.irreversible = 0, .levels = 0});
  const Bytes expected = encode.Encode();
  ASSERT_GT(expected.size(), 65536U) << "no more than one write";
  SweepFaults([&](SparseStream& host, int n) {
    host.callsToFault = n;
    HostStream unused;
    unused.stream = host.stream;
    const KelLong code = encode.EncodeTo(unused);
    Bytes written;
    for (const auto& [start, bytes] : host.pieces) {
      written.resize(std::max(written.size(), static_cast<std::size_t>(start) + bytes.size()));
      std::copy(bytes.begin(), bytes.end(), written.begin() + start);
    }
    EXPECT_EQ(code == KelOK, written == expected) << code;
  });
}

}  // namespace
