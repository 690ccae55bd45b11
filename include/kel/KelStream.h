// Compressed data on their way in and out: a stream over three host callbacks, or a block of
// bytes in the host's memory.
//
// Positions and counts are signed 32-bit numbers of bytes; a KelLargeStream beside the stream
// object has positions of 64 bits. A KelCodeStm belongs to the host, which keeps it and its
// KelStreamProcs alive until the Die of the image object that uses it.
#ifndef KEL_STREAM_H
#define KEL_STREAM_H

#include "KelTypes.h"

/// The host's stream callbacks. They may throw: guarded operations then return 31, but for
/// GetNextFrame, which lets pass what is no KelException.
class KEL_API KelStreamProcs {
 public:
  KelStreamProcs& operator=(const KelStreamProcs& source) = default;
  KelStreamProcs(const KelStreamProcs& source) = default;
  KelStreamProcs() = default;

  /// First argument of every callback; never read by the library.
  void* clientData = nullptr;
  /// Delivers up to count bytes; returns their number, 0 at the end of data, negative on failure.
  /// Fewer bytes than asked are allowed at any time.
  KelLong (*Read)(void* clientData, void* destination, KelLong count) = nullptr;
  /// Takes count bytes; returns the number taken, negative on failure.
  KelLong (*Write)(void* clientData, const void* source, KelLong count) = nullptr;
  /// Moves to a position; returns it, negative on failure. The library always passes origin 1,
  /// which means that the offset counts from the start of the data.
  KelLong (*Seek)(void* clientData, KelLong origin, KelLong offset) = nullptr;
};

/// A block of compressed bytes in memory, owned by the host.
class KEL_API KelCompressedData {
 public:
  /// the bytes; they must stay valid during each call that uses them
  const std::uint8_t* data = nullptr;
  KelULong length = 0;  ///< their number
};

/// A stream object over the host's callbacks, with the library's own position and a write
/// buffer. A copy shares the write buffer with its source.
///
/// Write strategies: a seekable stream gathers writes of up to 32768 bytes in a cache of 65536
/// bytes; a stream that is not seekable keeps all output in memory until flushWriteBuffer.
class KEL_API KelCodeStm {
 public:
  KelCodeStm() {}  ///< Without callbacks; InitKelCodeStm must follow.
  KelCodeStm(const KelCodeStm& source) = default;
  KelCodeStm& operator=(const KelCodeStm& source) = default;
  virtual ~KelCodeStm();  ///< Releases nothing: flushWriteBuffer releases the write buffer.

  /// Stores the six values, sets the position to 0 and forgets any write buffer.
  void InitKelCodeStm(KelLong totalLengthBytes, bool isLengthUnknown, bool isSeekable,
                      bool isReadOnly, bool isWriteOnly, KelStreamProcs* streamProcs);

  /// Reads through the host's Read, whose result it returns; a result of 0 or more advances the
  /// position by it. The write buffer is not consulted.
  KelLong read(std::uint8_t* destination, KelLong count);

  /// Writes count bytes by the strategy of the stream. Returns the number taken, or the host's
  /// negative result with the position unchanged; a negative number also when the host does not
  /// take all that was held from earlier writes, which is lost then. Raises 8 when the write buffer
  /// cannot be obtained.
  KelLong write(const std::uint8_t* source, KelLong count);

  /// Moves to offset (origin 1) or by offset (origin 0). Returns the new position; -8 for
  /// another origin, a negative target or a host that refuses the move or what was held; -4 when
  /// the stream is not seekable and the target lies outside the write buffer.
  KelLong seek(KelLong origin, KelLong offset);

  /// Hands the buffered bytes to Write, releases the buffer and returns Write's result; 0 when
  /// nothing is buffered. Bytes are written up to the current write index: after seeking back to
  /// patch, seek forward again first.
  KelLong flushWriteBuffer();

  KelLong GetCurPos() const { return curPos; }
  KelLong GetTotalLength() const { return totalLength; }
  KelStreamProcs* GetStmProcs() const { return procs; }
  bool IsReadable() const { return !writeOnly; }
  bool IsSeekable() const { return seekable; }
  bool StmLengthUnknown() const { return lengthUnknown; }
  bool ReadOnly() const { return readOnly; }
  bool WriteOnly() const { return writeOnly; }

  KelLong totalLength = 0;          ///< data length that the host declared, in bytes; never updated
  bool lengthUnknown = false;       ///< the host does not know the length
  bool seekable = false;            ///< Seek can position anywhere; selects the write strategy
  bool readOnly = false;            ///< the encoder refuses such a stream
  bool writeOnly = false;           ///< the stream cannot be read
  KelStreamProcs* procs = nullptr;  ///< not owned
  KelLong curPos = 0;               ///< the library's idea of the absolute position
  std::uint8_t* wbuf = nullptr;     ///< write buffer, null when none
  KelLong wbufCap = 0;              ///< its capacity in bytes
  /// Write index in the buffer; curPos - wbufFill is the position of the buffer's first byte.
  KelLong wbufFill = 0;
};

/// Positions of 64 bits beside a stream object, for files beyond 2^31 - 1 bytes.
///
/// The host sets the callbacks and calls InitStream; the stream object is then used like any other.
/// What the library does with it at 64-bit positions goes through these callbacks: it reads, moves
/// and writes beyond 2^31 - 1, where another stream object ends or is refused. Each tile-part stays
/// below 2^31 bytes. The stream object's own numbers (position, total length) stop at 2^31 - 1.
/// The record belongs to the host, which keeps it at its place as long as the stream object is
/// used.
class KEL_API KelLargeStream {
 public:
  KelLargeStream() {}
  KelLargeStream(const KelLargeStream&) = delete;
  KelLargeStream& operator=(const KelLargeStream&) = delete;

  /// Initialises a stream object that leads here: InitKelCodeStm with callbacks of the library's.
  /// The host's stream stands at position 0.
  void InitStream(KelCodeStm* stream, std::int64_t totalLengthBytes, bool isLengthUnknown,
                  bool isSeekable, bool isReadOnly, bool isWriteOnly);

  // The host's callbacks. Read and Write are those of KelStreamProcs.
  void* clientData = nullptr;  ///< first argument of every callback; never read by the library
  KelLong (*Read)(void* clientData, void* destination, KelLong count) = nullptr;
  KelLong (*Write)(void* clientData, const void* source, KelLong count) = nullptr;
  /// Moves to a position counted from the start of the data; returns it, negative on failure.
  std::int64_t (*Seek)(void* clientData, std::int64_t position) = nullptr;

  std::int64_t totalLength = 0;  ///< as InitStream was told
  /// Where the host's next byte is read or written; what a write buffer holds lies behind.
  std::int64_t position = 0;
  KelStreamProcs procs;  ///< the stream object's, which lead here
};

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(KelStreamProcs) == 16 && sizeof(KelCompressedData) == 8 &&
                  sizeof(KelCodeStm) == 4 + 4 + 4 + 5 * 4,
              "field widths on 32-bit hosts");
#endif

#endif
