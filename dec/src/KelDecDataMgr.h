// The decoder's byte source: reads compressed data from a memory block or through a sliding
// window over a stream, keeps two saved positions, and finds tile-parts.
//
// Positions count from where the block or the stream began. In memory mode the window is the
// whole block. Reading past the end of the data yields 0xFF bytes and never fails. Moves and
// buffer requests return small codes that stay inside the library; memory that cannot be obtained
// raises 8. Host streams may deliver fewer bytes than asked at any time: a request reads on until
// it is met or Read returns 0 or less; a Read that claims more than was asked counts as failed.
// A failed read is the end of the data; what arrived before it stays readable, and whoever must not
// take one for the other can ask.
//
// Bit reading: `unreadBits` low bits of `lastByte`, which is the byte before the read position,
// have not been consumed; 0 to 7 between calls, 0 after every byte read and every move. While bits
// are unread their byte stays in front of the read position, also when the window slides. The
// block decoder copies this state into a local cursor over the window, runs, and writes it back.
#ifndef KEL_DEC_DATA_MGR_H
#define KEL_DEC_DATA_MGR_H

#include <cstdint>

#include "base/KelBytes.h"
#include "base/KelMemFuncDefs.h"
#include "format/KelSignature.h"
#include "kel/KelFormat.h"
#include "kel/KelStream.h"

namespace kel {

// Codes of buffer requests and moves. They stay inside the library.
inline constexpr int kBufferedOk = 0;
inline constexpr int kAboveCapacity = 5;  ///< EnsureBuffered: more than the window can hold
inline constexpr int kDataEnded = -1;     ///< EnsureBuffered: fewer bytes are left

/// Window sizes of the decoder, in bytes. Given: hosts see them in what Read is asked for.
inline constexpr std::uint32_t kFirstLoadBytes = 102400;
inline constexpr std::uint32_t kWindowBytes = 204800;

struct DamageLog;
struct KelTilePartEntry;
struct KelTilePartIndex;

/// What stands where a tile-part may end.
enum class Boundary : std::uint8_t {
  kMarker,   ///< SOT or EOC
  kDataEnd,  ///< the data end here, or inside such a marker
  kNone      ///< something else, or the data end before
};

/// The result of a search: where the SOT stands, or the position that none begins before.
struct SotSearch {
  bool isFound;
  std::int64_t position;
};

class KelDecDataMgr {
 public:
  // ---- Set-up and state ----

  /// Reads a block of the host's memory, which must stay valid. Saved positions and tile grid of
  /// an earlier use survive.
  void InitFromMemory(const KelCompressedData& block, Flavour flavour);
  /// Reads a stream from where it stands, with a first load of min(firstLoad, capacity) bytes.
  /// False when not a byte arrived. The tile-part queries need a capacity of 64 bytes at least.
  [[nodiscard]] bool InitFromStream(std::uint32_t firstLoad, std::uint32_t capacity,
                                    KelCodeStm* stream, Flavour flavour);
  /// A stream that has ended may have grown: it is asked again.
  void ExpectMore();
  /// Whether a read of the stream has failed since this was asked last; the data are then not held
  /// to end where it did.
  bool TakeReadFailure();
  /// Releases the window; a seekable stream is moved back by the bytes read but not consumed.
  void ResetDataMgr();
  /// Releases everything, half-built managers included; may run twice.
  void Release() noexcept;

  /// How many bytes the first load after a move asks of the stream; further loads double it, up to
  /// a most. No more than that is read through to pass over it.
  void SetLoads(std::uint32_t afterMove, std::uint32_t most) {
    loadAfterMove_ = afterMove;
    mostLoad_ = most;
  }
  void SetTileGrid(std::int32_t across, std::int32_t down);
  /// Forgets the tile-part index.
  void FreeTilePartIndex() noexcept;

  Flavour GetFlavour() const { return flavour_; }
  /// First byte of every marker in this flavour.
  std::uint32_t MarkerByte() const { return MarkerByteOf(flavour_); }
  bool InMemory() const { return memoryMode_; }
  std::int64_t GetPosition() const;
  void SavePositionA() { positionA_ = GetPosition(); }
  void SavePositionB() { positionB_ = GetPosition(); }
  std::int64_t PositionB() const { return positionB_; }
  void ReturnToPositionA() { MoveTo(positionA_); }
  void ReturnToPositionB() { MoveTo(positionB_); }
  /// Memory mode: always. Stream mode: while allowed and the stream is seekable.
  bool IndexAllowed() const;
  /// Box reading clears the flag, so that a stream is not walked past its code stream.
  void SetIndexAllowed(bool allowed) { indexAllowed_ = allowed; }

  // ---- Reading ----

  /// Makes n unread bytes available in the window.
  int EnsureBuffered(std::uint64_t n) { return n <= Available() ? kBufferedOk : Load(n); }
  /// The same for any number: the window of a stream grows with the bytes as they arrive.
  int Hold(std::uint64_t n);
  /// Unread bytes in the window.
  std::uint64_t Available() const { return static_cast<std::uint64_t>(windowEnd_ - readPosition_); }
  /// The next byte; 0xFF past the end of the data.
  std::uint32_t ReadByte() {
    unreadBits_ = 0;
    if (readPosition_ == windowEnd_ && Load(1) != kBufferedOk) return ByteBehindEnd();
    return lastByte_ = *readPosition_++;
  }
  /// The byte k places ahead, not consumed; 0xFF past the end. The caller has ensured k + 1 bytes.
  std::uint32_t PeekByte(std::uint64_t k) const {
    return k < Available() ? readPosition_[k] : 0xFF;
  }
  /// A big-endian number of n = 1 to 4 bytes; 0 for another n.
  std::uint32_t ReadUInt(int n) {
    if (n < 1 || n > 4) return 0;
    if (Available() < 4) return ReadUIntByBytes(n);
    const std::uint32_t value = LoadBE32(readPosition_) >> (32 - 8 * n);
    readPosition_ += n;
    lastByte_ = readPosition_[-1];
    unreadBits_ = 0;
    return value;
  }
  /// Copies up to n bytes and returns their number.
  std::uint64_t ReadBytes(std::uint8_t* destination, std::uint64_t n);
  /// The next n = 1 to 32 bits, most significant first.
  std::uint32_t ReadBits(int n);
  /// Drops the unread bits of the current byte.
  void AlignToByte() { unreadBits_ = 0; }
  /// Not a byte is left, which a stream is asked for when the window is used up.
  bool AtEnd() { return EnsureBuffered(1) != kBufferedOk; }
  /// Whether a byte past the end has been delivered since the last initialisation or move.
  bool ReadPastEnd() const { return readPastEnd_; }

  // ---- Moves ----

  /// Moves forward by n bytes or to the end of the data, whichever comes first: inside the window,
  /// by a seek, or by reading and dropping. Returns the bytes passed over; when they are fewer
  /// than n, AtEnd holds.
  std::uint64_t SkipForward(std::uint64_t n);
  /// Moves to an absolute position; at or past the end of a block means its end. Inside the window
  /// any stream can be moved. False, with nothing moved, when a stream refuses.
  bool MoveTo(std::int64_t position);

  // ---- Tile-parts ----

  bool IsSOT();       ///< the next two bytes are SOT and its segment has arrived whole
  bool IsEOCOrEnd();  ///< EOC, fewer than two bytes left, or an SOT segment cut off
  bool ReadEOC();     ///< consumes two bytes, unless at the end; true when they were EOC
  // Fields of an SOT segment at the read position.
  std::uint32_t PeekSotIsot() { return PeekBytesAt(format::kIsotAt, 2); }
  std::uint32_t PeekSotPsot() { return PeekBytesAt(format::kPsotAt, 4); }
  std::uint32_t PeekSotTPsot() { return PeekBytesAt(format::kTPsotAt, 1); }
  std::uint32_t PeekSotTNsot() { return PeekBytesAt(format::kTNsotAt, 1); }
  bool IsEOC();
  /// An SOT segment stands here that names a tile of the grid.
  bool IsValidSOT();
  /// MoveTo, where the next bytes may be all that is read.
  bool MoveToPeek(std::int64_t position);
  /// What stands at a position where a tile-part may end, not before the read position, which comes
  /// back; only without willBeRead it may stay with a marker that stands there. A marker counts
  /// although one of its fields is damaged. With willBeRead the bytes on the way are loaded.
  Boundary LookForBoundary(std::int64_t position, bool willBeRead);
  /// Looks for an SOT segment from a position on, not before the read position, which comes back:
  /// one that is followed by another marker of its header, with a tile of the grid and possible
  /// lengths and numbers. A stream that cannot seek keeps in its window what it passes over.
  SotSearch SearchSOT(std::int64_t from);
  /// The entry of a tile-part, found by walking on if need be; null when it cannot be reached.
  const KelTilePartEntry* FindTilePart(std::int32_t tile, std::int32_t part);
  /// The tile-parts found so far, or null.
  const KelTilePartIndex* TileParts() const { return index_; }
  /// More data may have arrived behind those that the index knows.
  void RefreshTileParts();
  /// Whether tile-parts are read whole once they are read; otherwise much of them is passed over.
  void SetReadsWholeParts(bool readsWhole) { passesOver_ = !readsWhole; }
  /// Where what is wrong with tile-parts is noted; null: nowhere.
  void SetDamageLog(DamageLog* log) { damages_ = log; }

  // ---- Window, for the block decoder's cursor ----

  const std::uint8_t* ReadPointer() const { return readPosition_; }
  int UnreadBits() const { return unreadBits_; }
  /// The byte whose low UnreadBits() bits are unread.
  std::uint32_t LastByte() const { return lastByte_; }
  /// Puts the read position to `next`, inside the window, with `unread` bits of the byte before it
  /// unread.
  void ResumeAt(const std::uint8_t* next, int unread) {
    readPosition_ = next;
    unreadBits_ = unread;
    if (unread != 0) lastByte_ = next[-1];
  }

 private:
  std::uint64_t ReadFrom(std::uint8_t* destination, std::uint64_t count);
  int Load(std::uint64_t n);
  void MakeRoom(std::uint64_t n);
  bool ReadIntoWindow();
  void EmptyWindow();
  void ReleaseWindow() noexcept;
  void SetWindow(const std::uint8_t* start, std::uint64_t length);
  bool SeekStream(std::int64_t position);
  std::uint64_t SkipBySeek(std::uint64_t n);
  std::uint64_t Drop(std::uint64_t n);
  std::uint32_t ByteBehindEnd();
  std::uint32_t ReadUIntByBytes(int n);
  std::uint32_t ReadBitsByBytes(int n);
  std::uint32_t PeekBytesAt(std::uint64_t offset, int count);
  bool NextIs(std::uint32_t secondByte);
  bool IsMovable() const { return memoryMode_ || (stream_ != nullptr && isSeekable_); }
  const KelTilePartEntry* WalkToTilePart(std::int32_t tile, std::int32_t part);
  const std::uint8_t* FindSOT(const std::uint8_t* from) const;
  Boundary BoundaryAt(std::uint64_t ahead) const;

  bool memoryMode_;
  Flavour flavour_;
  bool readFailed_;
  bool endOfData_;  ///< the stream has delivered its last byte
  bool indexAllowed_;
  bool readPastEnd_;
  std::uint8_t lastByte_;
  int unreadBits_;
  const std::uint8_t* windowStart_;
  const std::uint8_t* windowEnd_;
  const std::uint8_t* readPosition_;
  // Stream mode. One byte in front of the window's memory keeps the byte before its first one.
  std::uint8_t* window_;
  std::uint64_t capacity_, firstLoad_;
  std::uint64_t windowBytes_;  ///< obtained for the window
  std::uint64_t loadAfterMove_, mostLoad_;
  std::uint64_t nextLoad_;  ///< bytes asked of the stream at the next load
  KelCodeStm* stream_;
  std::int64_t streamPosition_;  ///< of the window's end
  std::int64_t endsBefore_;      ///< the data do not reach this position
  std::int64_t knownEnd_;        ///< of the data, once a move has met it; else negative
  bool passesOver_;              ///< much of the tile-parts is not read
  bool isSeekable_;              ///< as the stream said when it was taken
  KelTilePartIndex* index_;
  DamageLog* damages_;
  std::int32_t tilesAcross_, tilesDown_;
  std::int64_t positionA_, positionB_;
};

/// Bytes whose number the data announce.
struct GatheredBytes {
  OwnedArray<std::uint8_t> bytes;
  std::uint64_t length;

  /// Big-endian numbers at a place inside.
  std::uint32_t U16At(std::uint64_t offset) const { return LoadBE16(bytes.Data() + offset); }
};

/// Copies `length` bytes from the read position on, or as many as arrive; `behind` more can be read
/// behind them. From a stream room is obtained as they arrive, first for `firstPiece`, so that a
/// length alone obtains little. Raises 8.
GatheredBytes GatherBytes(KelDecDataMgr& data, std::uint64_t length, std::uint64_t firstPiece,
                          std::uint64_t behind);

}  // namespace kel

#endif
