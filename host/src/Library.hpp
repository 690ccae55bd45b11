// The library's calls and objects as the host kit uses them: failures become exceptions, and what
// the library asks to be torn down is torn down by destructors.
#ifndef KEL_HOST_LIBRARY_HPP
#define KEL_HOST_LIBRARY_HPP

#include <kel/Kel.h>

#include <memory>
#include <span>
#include <utility>

#include "kel/host/errors.hpp"
#include "kel/host/streams.hpp"

namespace kel::host {

/// Throws Error (kParameter) when no session runs.
void RequireSession();

/// Throws what a failure of the library means: kMemory for code 8, kTime for 28, which comes where
/// the time is over or the caller wants no more, else the kind given.
[[noreturn]] void ThrowFailure(const KelException& raised, Failure kind,
                               const KelErrorPlace& place = {nullptr, -1});

/// Of data that the library does not support: throws when they are in the flavour that other coders
/// write.
void RefuseOrdinary(ByteView bytes, const KelException& raised,
                    const KelErrorPlace& place = {nullptr, -1});

/// Checks the result of an operation of an image object.
void Check(KelLong code, const KelImage& image, Failure kind);

/// A tile-component's handle; throws Error (kMemory) when the library cannot make it.
KelTileComponent& TileComponent(const KelImage& image, std::size_t tile, std::size_t component);

/// Throws what an index object failed with last, with the code that it returned.
[[noreturn]] void ThrowIndexFailure(const KelStreamIndex& index, KelLong code, Failure kind,
                                    ByteView bytes = {});

/// Lets the library ask whether the time is over, or the caller wants no more.
void AskForTime(KelUserActions& actions);

/// Runs a call that may raise KelException.
template <class Call>
decltype(auto) Raising(Failure kind, Call&& call) {
  try {
    return std::forward<Call>(call)();
  } catch (const KelException& raised) {
    ThrowFailure(raised, kind);
  }
}

/// The library's index of bytes in memory, which must outlive it.
class Index {
 public:
  /// Reads everything before the first tile-part; throws Error (kInput, kMemory).
  explicit Index(ByteView bytes);
  ~Index();
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  /// The same; nothing when the data end before the first tile-part.
  static std::unique_ptr<Index> OfArrived(ByteView bytes);

  const KelIndexFacts& Facts() const { return *index_.GetFacts(); }
  std::span<const KelIndexComponent> Components() const;
  /// Throws Error (kMemory).
  const KelIndexTileParts& TileParts();
  /// Whether some tile has a packet with bytes or all of its packets, or the data are so many for
  /// the image's samples that damage may hide a packet. Before that nothing but an announced size
  /// speaks for planes. Throws Error (kMemory).
  bool HasPackets();

 private:
  Index() = default;
  KelLong Open(ByteView bytes);
  /// Null where there are none to be told of; throws Error (kMemory).
  const KelIndexPackets* Packets(const KelIndexWant& want);

  KelStreamIndex index_;
};

/// An image object set up to decode bytes in memory, which must outlive it, or a stream.
class Decoder {
 public:
  /// Reads everything before the first tile-part; throws Error (kInput, kMemory).
  explicit Decoder(ByteView bytes);
  /// The same of a stream that can seek, which must outlive it too.
  explicit Decoder(KelCodeStm& stream);
  ~Decoder();
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  KelImage& Object() { return image_; }
  const KelImage& Object() const { return image_; }
  /// What was found in the data.
  const KelEncOpt& Found() const { return *options_.EncOpt; }

  /// Samples are written to the frame's planes alone, where the library can; those of up to 8 bits
  /// by sums in double precision, or faster ones. For the frames to come.
  void SetExact(bool exact);
  /// Decodes what is new in the bytes, which begin with those given before. Returns the library's
  /// code; throws Error (kMemory, kTime).
  KelLong DecodeFrame(ByteView bytes, bool raw, KelFrameData* frame);
  /// Decodes what the decoder was made with.
  KelLong DecodeFrame(bool raw, KelFrameData* frame);

 private:
  void Open(KelCodeStm* stream);
  void Release();

  KelUserActions actions_;
  KelClientProcs procs_;
  KelDecOpt options_;
  KelImage image_;
  KelCompressedData block_{};
  KelULong* resolutions_ = nullptr;
};

}  // namespace kel::host

#endif
