// The signature test. A bare code stream begins with SOC and SIZ of one flavour; a file with the
// 12-byte signature box of one layout.
#include "format/KelSignature.h"

#include <algorithm>
#include <array>

namespace kel {
namespace {

struct Signature {
  Flavour flavour;
  std::uint32_t length;
  std::array<std::uint8_t, format::kSignatureBytes> bytes;
};

constexpr std::array<Signature, 4> kSignatures = {{
    {Flavour::kAB, 4, {0xAB, format::kSOC, 0xAB, format::kSIZ}},
    {Flavour::kAB, 12, {0, 0, 0, 12, 'w', 'e', 'a', 'b', 'z', 'o', 'l', 't'}},
    {Flavour::kFF, 4, {0xFF, format::kSOC, 0xFF, format::kSIZ}},
    {Flavour::kFF, 12, {0, 0, 0, 12, 'j', 'P', ' ', ' ', 0x0D, 0x0A, 0x87, 0x0A}},
}};

}  // namespace

std::optional<Flavour> RecogniseSignature(const std::uint8_t* bytes) {
  for (const Signature& signature : kSignatures) {
    if (std::equal(bytes, bytes + signature.length, signature.bytes.begin())) {
      return signature.flavour;
    }
  }
  return std::nullopt;
}

std::optional<Flavour> RecogniseSignature(KelCodeStm& stream) {
  std::array<std::uint8_t, format::kSignatureBytes> bytes{};
  std::uint32_t filled = 0;
  while (filled < format::kSignatureBytes) {
    const auto wanted = static_cast<KelLong>(format::kSignatureBytes - filled);
    const KelLong delivered = stream.read(bytes.data() + filled, wanted);
    if (delivered <= 0 || delivered > wanted) return std::nullopt;
    filled += static_cast<std::uint32_t>(delivered);
  }
  return RecogniseSignature(bytes.data());
}

std::optional<Flavour> RecogniseSignature(const KelCompressedData& data) {
  if (data.data == nullptr || data.length <= format::kSignatureBytes) return std::nullopt;
  return RecogniseSignature(data.data);
}

}  // namespace kel
