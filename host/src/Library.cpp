// Calls into the library, and its image object for decoding.
#include "Library.hpp"

#include <algorithm>
#include <new>
#include <set>

#include "kel/host/limits.hpp"
#include "kel/host/session.hpp"

namespace kel::host {

void RequireSession() {
  if (!Session::IsRunning()) {
    throw Error(Failure::kParameter, "the library is not started: make a kel::host::Session first");
  }
}

void ThrowFailure(const KelException& raised, Failure kind, const KelErrorPlace& place) {
  std::string sentence(CodeSentence(raised.errCode));
  if (raised.errCode == KelErrNoMemory) {
    kind = Failure::kMemory;
    if (Session::Limit() != 0) {
      sentence = "more memory is needed than the limit of " + FormatBytes(Session::Limit());
    }
  }
  if (raised.errCode == KelErrAborted) {
    kind = Failure::kTime;
    sentence = "the time limit was reached";
  }
  throw Error(kind, sentence, raised, place);
}

void ThrowIndexFailure(const KelStreamIndex& index, KelLong code, Failure kind, ByteView bytes) {
  KelException raised = index.GetErrorDetails();
  const KelErrorPlace place = index.GetErrorPlace();
  raised.errCode = code;
  if (code == KelErrUnsupported) RefuseOrdinary(bytes, raised, place);
  ThrowFailure(raised, kind, place);
}

void AskForTime(KelUserActions& actions) {
  actions.AbortRequested = [] { return static_cast<KelLong>(TimeIsUp()); };
}

void RefuseOrdinary(ByteView bytes, const KelException& raised, const KelErrorPlace& place) {
  constexpr std::uint8_t kFile[] = {0, 0, 0, 12, 'j', 'P', ' ', ' '};
  constexpr std::uint8_t kStream[] = {0xFF, format::kSOC};
  const auto begins = [&](ByteView start) {
    return bytes.size() >= start.size() && std::equal(start.begin(), start.end(), bytes.begin());
  };
  if (!begins(kFile) && !begins(kStream)) return;
  throw Error(Failure::kInput,
              "an ordinary JPEG 2000 file, whose samples are coded in another way than Kel's",
              raised, place);
}

void Check(KelLong code, const KelImage& image, Failure kind) {
  if (code == KelOK) return;
  KelException raised = image.GetErrorDetails();
  KelErrorPlace place = image.GetErrorPlace();
  if (raised.errCode != code) {  // a code that was returned without being recorded
    raised.ClearErrState();
    raised.errCode = code;
    place = {nullptr, -1};
  }
  ThrowFailure(raised, kind, place);
}

KelTileComponent& TileComponent(const KelImage& image, std::size_t tile, std::size_t component) {
  KelTileComponent* handle =
      image.GetTileComponent(static_cast<KelLong>(tile), static_cast<KelLong>(component));
  if (handle == nullptr) {
    throw Error(Failure::kMemory, std::string(CodeSentence(KelErrNoMemory)));
  }
  return *handle;
}

KelLong Index::Open(ByteView bytes) {
  RequireSession();
  if (bytes.empty()) throw Error(Failure::kInput, "there are no data");
  const KelCompressedData block{bytes.data(), static_cast<KelULong>(bytes.size())};
  return index_.InitIndex(nullptr, &block);
}

Index::Index(ByteView bytes) : Index() {  // so that the destructor runs when this throws
  const KelLong code = Open(bytes);
  if (code != KelOK) ThrowIndexFailure(index_, code, Failure::kInput, bytes);
}

Index::~Index() {
  index_.Die();
}

std::unique_ptr<Index> Index::OfArrived(ByteView bytes) {
  if (bytes.empty()) return nullptr;
  std::unique_ptr<Index> index(new Index);
  const KelLong code = index->Open(bytes);
  if (code == KelOK) return index;
  if (index->index_.DataEndInHeader()) return nullptr;
  ThrowIndexFailure(index->index_, code, Failure::kInput, bytes);
}

std::span<const KelIndexComponent> Index::Components() const {
  return {Facts().components, static_cast<std::size_t>(Facts().geometry->Csiz)};
}

const KelIndexTileParts& Index::TileParts() {
  const KelIndexTileParts* parts = index_.GetTileParts();
  if (parts == nullptr) ThrowIndexFailure(index_, KelErrNoMemory, Failure::kMemory);
  return *parts;
}

const KelIndexPackets* Index::Packets(const KelIndexWant& want) {
  const KelIndexPackets* packets = index_.GetPackets(&want);
  if (packets == nullptr && index_.GetErrorDetails().errCode == KelErrNoMemory) {
    ThrowIndexFailure(index_, KelErrNoMemory, Failure::kMemory);
  }
  return packets;
}

bool Index::HasPackets() {
  // Bodies of more bytes than this are taken for packets without a look.
  constexpr std::uint64_t kSamplesPerByte = 1 << 14;
  constexpr KelULong kLowestOnly = format::kMostLevels;
  const KelIndexTileParts& found = TileParts();
  const KelImageGeometry& grid = *Facts().geometry;
  const auto side = [](KelLong from, KelLong to) { return static_cast<std::uint64_t>(to - from); };
  const std::uint64_t area = side(grid.XOsiz, grid.Xsiz) * side(grid.YOsiz, grid.Ysiz);
  std::uint64_t bodyBytes = 0;
  std::set<KelULong> asked;
  for (const KelIndexTilePart& part : std::span(found.parts, found.count)) {
    if (part.headerBytes == 0 || part.length <= part.headerBytes) continue;
    bodyBytes += part.length - part.headerBytes;
    if (bodyBytes > area / kSamplesPerByte) return true;
    if (!asked.insert(part.tile).second) continue;
    const KelIndexWant lowest{part.tile, -1, kLowestOnly, 1}, all{part.tile, -1, 0, 0};
    const KelIndexPackets* packets = Packets(lowest);
    if (packets == nullptr || packets->count == 0) continue;
    const auto hasBytes = [](const KelIndexPacket& packet) {
      return packet.length > format::kCountBytes;
    };
    if (std::any_of(packets->packets, packets->packets + packets->count, hasBytes)) return true;
    // Empty ones alone make a picture of one colour when none is missing.
    packets = Packets(all);
    if (packets != nullptr && packets->areAll) return true;
  }
  return false;
}

Decoder::Decoder(ByteView bytes) {
  if (bytes.empty()) throw Error(Failure::kInput, "there are no data");
  block_ = {bytes.data(), static_cast<KelULong>(bytes.size())};
  Open(nullptr);
}

Decoder::Decoder(KelCodeStm& stream) {
  Open(&stream);
}

void Decoder::Open(KelCodeStm* stream) {
  RequireSession();
  Raising(Failure::kInput, [&] { options_.InitToDefaults(); });
  AskForTime(actions_);
  procs_.UserActions = &actions_;
  try {
    const KelLong code = image_.InitDecoder(stream, stream != nullptr ? nullptr : &block_,
                                            &options_, &procs_, &resolutions_, KelAspectFull);
    if (code == KelErrUnsupported) {
      RefuseOrdinary({block_.data, block_.length}, image_.GetErrorDetails(),
                     image_.GetErrorPlace());
    }
    Check(code, image_, Failure::kInput);
  } catch (...) {
    Release();
    throw;
  }
}

Decoder::~Decoder() {
  Release();
}

void Decoder::Release() {
  image_.Die();
  options_.Die();
  KelGetMemObj()->Free(resolutions_);
}

void Decoder::SetExact(bool exact) {
  Check(image_.SetDecodeManner(!exact, true), image_, Failure::kInput);
}

KelLong Decoder::DecodeFrame(ByteView bytes, bool raw, KelFrameData* frame) {
  block_ = {bytes.data(), static_cast<KelULong>(bytes.size())};
  return DecodeFrame(raw, frame);
}

KelLong Decoder::DecodeFrame(bool raw, KelFrameData* frame) {
  KelLong code = KelOK;
  try {
    code = image_.GetNextFrame(block_.data != nullptr ? &block_ : nullptr, resolutions_, false, raw,
                               frame);
  } catch (const std::bad_alloc&) {  // the one operation whose guard lets such failures pass
    code = KelErrNoMemory;
  }
  if (code == KelErrNoMemory || code == KelErrAborted) Check(code, image_, Failure::kMemory);
  return code;
}

}  // namespace kel::host
