// Everything that the kit asks of its host refused once: the n-th request for memory by the
// library or by the kit, the n-th lock, read and write, for every n. A flow ends with an exception
// or with the right result, gives everything back, and what lives on afterwards works.
#include <kel/host.hpp>

#include <cstdlib>
#include <functional>
#include <new>

#include "HostMemory.h"
#include "TestImages.hpp"
#include "Tool.hpp"

namespace {

thread_local std::size_t refuseNew = 0;  ///< 1: the next one; 0: none

}  // namespace

void* operator new(std::size_t size) {
  if (refuseNew != 0 && --refuseNew == 0) throw std::bad_alloc();
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

namespace {

using namespace kel::host;

enum class Fault { kRequest, kNew, kTransfer, kShortRead };

/// Counts reads and writes, and refuses one of them.
struct Transfers {
  Fault fault = Fault::kTransfer;
  std::size_t refuseAt = 0;

  bool Fails(Fault kind) { return fault == kind && refuseAt != 0 && --refuseAt == 0; }
  void Read() {
    if (Fails(Fault::kTransfer)) throw Error(Failure::kInput, "a read that fails");
  }
};

struct FaultyRanges : MemoryRanges {
  FaultyRanges(ByteView bytes, Transfers& itsTransfers)
      : MemoryRanges(bytes), transfers(itsTransfers) {}
  bool IsNear() const override { return false; }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override {
    transfers.Read();
    MemoryRanges::Fetch(from, to);
  }
  Transfers& transfers;
};

struct FaultySource : MemorySource {
  FaultySource(ByteView bytes, Transfers& itsTransfers)
      : MemorySource(bytes), transfers(itsTransfers) {}
  std::optional<ByteView> View() override { return std::nullopt; }
  std::size_t Read(std::span<std::uint8_t> to) override {
    transfers.Read();
    const bool isShort = transfers.Fails(Fault::kShortRead) && to.size() > 1;
    return MemorySource::Read(isShort ? to.first(to.size() / 2) : to);
  }
  std::size_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> to) const override {
    transfers.Read();
    return MemorySource::ReadAt(offset, to);
  }
  Transfers& transfers;
};

struct FaultySink : MemorySink {
  explicit FaultySink(Transfers& itsTransfers) : transfers(itsTransfers) {}
  void Write(ByteView more) override {
    if (transfers.Fails(Fault::kTransfer)) throw Error(Failure::kOutput, "a write that fails");
    MemorySink::Write(more);
  }
  Transfers& transfers;
};

Bytes SamplesOf(const Image& image) {
  Bytes samples;
  for (const Plane& plane : image.planes) {
    for (std::uint32_t y = 0; y < plane.Height(); ++y) {
      const auto* row = plane.Row<std::uint8_t>(y);
      samples.insert(samples.end(), row, row + plane.Width() * plane.BytesPerSample());
    }
  }
  return samples;
}

/// A flow's result in bytes; the second call, after a failure of the first, is refused nothing.
using Flow = std::function<Bytes(Transfers&)>;
/// Makes a flow whose objects outlive a failure.
using MakeFlow = std::function<Flow()>;

class Failures : public testing::Test {
 protected:
  void Sweep(const MakeFlow& make) {
    Bytes expected;
    for (const Fault fault : {Fault::kRequest, Fault::kNew, Fault::kTransfer, Fault::kShortRead}) {
      std::optional<test::HostMemory> memory;
      if (fault == Fault::kRequest) memory.emplace().RefuseLocksToo();
      const Session session;
      if (expected.empty()) {
        Transfers none;
        expected = make()(none);
        ASSERT_FALSE(expected.empty());
      }
      bool wasRefused = true;
      for (std::size_t n = 1; wasRefused && !HasFailure(); ++n) {
        SCOPED_TRACE("kind " + std::to_string(static_cast<int>(fault)) + ", number " +
                     std::to_string(n));
        wasRefused = Refuse(make, fault, n, expected, memory ? &*memory : nullptr);
      }
    }
  }

 private:
  bool Refuse(const MakeFlow& make, Fault fault, std::size_t n, const Bytes& expected,
              test::HostMemory* memory) {
    const std::size_t outstanding = memory != nullptr ? memory->Outstanding() : 0;
    bool wasRefused = false;
    {
      const Flow flow = make();
      Transfers transfers{fault, n};
      if (memory != nullptr) memory->RefuseRequest(n);
      if (fault == Fault::kNew) refuseNew = n;
      bool threw = false;
      Bytes result;
      try {
        result = flow(transfers);
      } catch (const Error&) {
        threw = true;
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      wasRefused = memory != nullptr      ? memory->HasRefused()
                   : fault == Fault::kNew ? std::exchange(refuseNew, 0) == 0
                                          : transfers.refuseAt == 0;
      if (memory != nullptr) memory->RefuseRequest(0);
      transfers.refuseAt = 0;
      EXPECT_TRUE(wasRefused || !threw);
      EXPECT_TRUE(threw || result == expected);
      EXPECT_TRUE(!threw || flow(transfers) == expected) << "what outlives a failure is broken";
    }
    EXPECT_EQ(Session::CurrentBytes(), 0U);
    EXPECT_EQ(memory != nullptr ? memory->Outstanding() : 0, outstanding);
    return wasRefused;
  }
};

Bytes Encoded(bool checksums = false, unsigned depth = 8) {
  const Session session;
  EncodeParams params;
  params.lossless = true;
  params.levels = 1;
  params.tileWidth = 8;
  params.checksums = checksums;
  params.threads = 1;
  MemorySink sink;
  Encode(test::NoiseImage(16, 8, 1, depth), params, sink);
  return sink.bytes;
}

/// A flow without anything that lives longer than it.
MakeFlow Simple(const Flow& flow) {
  return [flow] { return flow; };
}

TEST_F(Failures, OfDecoding) {
  const Bytes bytes = Encoded();
  for (const bool isPart : {false, true}) {
    Sweep(Simple([&](Transfers& transfers) {
      FaultySource source(bytes, transfers);
      DecodeParams params;
      params.threads = 1;
      params.reduce = isPart ? 1 : 0;
      if (isPart) params.region = Region{3, 2, 9, 5};
      return SamplesOf(Decode(source, params));
    }));
  }
  const Bytes deep = Encoded(false, 12);
  Sweep([&]() -> Flow {
    return [&bytes = deep, at = std::size_t{0},
            decoder = std::make_shared<ProgressiveDecoder>()](Transfers&) mutable {
      constexpr std::size_t kPiece = 120;
      while (at < bytes.size()) {
        const ByteView piece = ByteView(bytes).subspan(at, std::min(kPiece, bytes.size() - at));
        try {
          decoder->Feed(piece);
        } catch (const Error&) {
          at += piece.size();
          throw;
        }
        at += piece.size();
      }
      return SamplesOf(decoder->GetImage());
    };
  });
}

TEST_F(Failures, OfPictures) {
  const Bytes bytes = Encoded();
  Sweep([&]() -> Flow {
    struct Held {
      explicit Held(ByteView view) : ranges(view, none) {}
      Transfers none;
      FaultyRanges ranges;
      std::optional<Picture> picture;
    };
    return [held = std::make_shared<Held>(bytes)](Transfers& transfers) {
      held->none = transfers;
      Bytes samples;
      try {
        if (!held->picture) held->picture.emplace(held->ranges);
        samples = SamplesOf(held->picture->Decode({0, 0, 16, 8}, 1));
        const Bytes part = SamplesOf(held->picture->Decode({5, 1, 6, 6}));
        samples.insert(samples.end(), part.begin(), part.end());
      } catch (...) {
        transfers = held->none;
        throw;
      }
      transfers = held->none;
      return samples;
    };
  });
}

TEST_F(Failures, OfTrimmingCheckingAndRepairing) {
  const Bytes bytes = Encoded(true);
  Bytes damaged = bytes;
  damaged[damaged.size() - 60] ^= 0x55;
  Sweep(Simple([&](Transfers& transfers) {
    FaultyRanges source(bytes, transfers);
    FaultySink sink(transfers);
    Trim(source, {1, Region{0, 0, 8, 8}}, sink);
    return sink.bytes;
  }));
  Sweep(Simple([&](Transfers& transfers) {
    FaultyRanges source(damaged, transfers);
    const CheckReport report = Check(source);
    return Bytes{static_cast<std::uint8_t>(report.numFlaws),
                 static_cast<std::uint8_t>(report.packets),
                 static_cast<std::uint8_t>(report.checksums)};
  }));
  Sweep(Simple([&](Transfers& transfers) {
    FaultyRanges source(damaged, transfers);
    FaultySink sink(transfers);
    Repair(source, sink);
    return sink.bytes;
  }));
}

TEST_F(Failures, OfEncoding) {
  const Image image = test::NoiseImage(16, 8, 3, 8);
  Sweep(Simple([&](Transfers& transfers) {
    EncodeParams params;
    params.sizeLimit = 700;
    params.levels = 1;
    params.threads = 1;
    params.checksums = true;
    FaultySink sink(transfers);
    Encode(image, params, sink);
    return sink.bytes;
  }));
}

TEST_F(Failures, OfImageFiles) {
  const Image image = test::NoiseImage(5, 4, 3, 8);
  for (const std::string name : {"a.png", "a.tif", "a.jpg", "a.ppm", "a.npy"}) {
    SCOPED_TRACE(name);
    Transfers none;
    FaultySink file(none);
    kel::tool::WriteImage(image, name, file);
    Sweep(Simple([&](Transfers& transfers) {
      FaultySink sink(transfers);
      kel::tool::WriteImage(image, name, sink);
      return sink.bytes;
    }));
    Sweep(Simple([&](Transfers& transfers) {
      FaultySource source(file.bytes, transfers);
      BufferedSource buffered(source);
      const auto rows = kel::tool::OpenImage(buffered);
      ImageRowSink sink;
      CopyRows(*rows, sink);
      return SamplesOf(sink.image);
    }));
  }
}

}  // namespace
