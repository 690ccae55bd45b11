// Recognising data by their first 12 bytes.
#ifndef KEL_SIGNATURE_H
#define KEL_SIGNATURE_H

#include <cstdint>
#include <optional>

#include "kel/KelFormat.h"
#include "kel/KelStream.h"

namespace kel {

/// The two flavours of the code-stream syntax, named by the first byte of every marker. Each goes
/// with a box layout of its own.
enum class Flavour : std::uint8_t {
  kAB = 0xAB,  ///< markers AB xx, boxes of the library's own layout
  kFF = 0xFF   ///< markers FF xx, boxes of the standard layout
};

constexpr std::uint8_t MarkerByteOf(Flavour flavour) {
  return static_cast<std::uint8_t>(flavour);
}

/// The flavour that 12 bytes begin, as a bare code stream or as a file; nothing when neither.
std::optional<Flavour> RecogniseSignature(const std::uint8_t* bytes);

/// The same for a stream's next 12 bytes, which stay consumed, and for a block, which must hold
/// 13 bytes at least.
std::optional<Flavour> RecogniseSignature(KelCodeStm& stream);
std::optional<Flavour> RecogniseSignature(const KelCompressedData& data);

}  // namespace kel

#endif
