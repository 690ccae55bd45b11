// The container of samples and the functions on colours, in any order and with any arguments, over
// samples that are the rest of the input. An input begins with a byte that says which request for
// memory is refused, then two that say the size and one the kind of samples, then eight operations
// of six bytes each.
#include <cmath>
#include <cstring>

#include "FuzzSupport.h"
#include "kel/Kel.h"

namespace {

using fuzz::Require;

constexpr int kNumSteps = 8;

/// A number that is mostly small, and sometimes at an end of its range.
KelLong Number(fuzz::Input& input) {
  const std::uint32_t byte = input.U8();
  constexpr KelLong kEnds[] = {-1, 255, 256, 65535, 65536, INT32_MAX, INT32_MIN, -65536};
  return byte < 248 ? static_cast<KelLong>(byte % 70) : kEnds[byte - 248];
}

void Fill(KelImageData& image, fuzz::Input& input) {
  if (image.ImageBuffer == nullptr || image.Width <= 0 || image.Height <= 0) return;
  const std::size_t bytes = static_cast<std::size_t>(image.Width) *
                            static_cast<std::size_t>(image.Height) *
                            static_cast<std::size_t>(image.SizeOfDataType);
  void* const to = KelGetMemObj()->LockBuf(image.ImageBuffer);
  const std::size_t given = std::min(bytes, input.left);
  if (to == nullptr || given == 0) return;
  for (std::size_t at = 0; at < bytes; ++at) {
    static_cast<std::uint8_t*>(to)[at] = input.next[at % given];
  }
  KelGetMemObj()->UnlockBuf(image.ImageBuffer);
}

void Measure(KelImageData& image, KelLong low, KelLong high) {
  float least = 0, most = 0, below = -1, above = -1;
  const KelLong code = image.GetDynRange(&least, &most);
  Require(code == KelOK || code == KelErrNoMemory);
  const KelLong again =
      image.GetDynRangeAndSpillOverRatios(low, high, &least, &most, &below, &above);
  Require(again == KelOK || again == KelErrNoMemory);
  if (again == KelOK) Require(below >= 0 && below <= 1 && above >= 0 && above <= 1);
}

void Step(KelImageData& image, fuzz::Input& input) {
  const std::uint32_t which = input.U8();
  const KelLong a = Number(input), b = Number(input), c = Number(input), d = Number(input);
  const auto method = static_cast<KelRecastMeth>(input.U8() & 3);
  constexpr KelImageOrientation kTurns[] = {KelOrientation0, KelOrientation90, KelOrientation180,
                                            KelOrientation270};
  KelLong code = KelOK;
  switch (which % 8) {
    case 0:
      code = image.RecastData(a, (which & 8) != 0, b, c, d, method);
      break;
    case 1:
      code = image.RecastDataTo8BppUnsigned(a, b, c, method);
      break;
    case 2:
      code = image.RecastDataTo16BppUnsigned(a, b, c, method);
      break;
    case 3:
      code =
          image.RecastData_Rotation(a, (which & 8) != 0, b, c, d, method, kTurns[which >> 4 & 3]);
      break;
    case 4:
      code = image.CropData(a, b, c, d);
      break;
    case 5:
      code = image.Interpolate(a, b, c, d);
      break;
    case 6:
      Measure(image, a, b);
      break;
    default: {
      KelColorSpec entry{};
      entry.method = static_cast<KelULong>(a);
      entry.enumeratedSpace = static_cast<KelULong>(b);
      KelCIEParams& params = entry.cie;
      const auto bitsA = static_cast<KelULong>(c), bitsB = static_cast<KelULong>(d);
      if (InitDefaultCIEParams(which >> 4, &params, bitsA, bitsB) == KelOK) {
        Require(CIEParamsAreDefaults(&params, bitsA, bitsB) == 1);
      }
      ColorSpecIsKelCompatibile(&entry);
    }
  }
  Require(code == KelOK || code == KelErrNoMemory);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const std::uint32_t refused = input.U8();
  test::HostMemory memory;
  memory.LimitBytes(1 << 22);
  memory.RefuseRequest(refused);
  KelImageData image;
  try {
    const KelLong width = Number(input), height = Number(input);
    const std::uint32_t kind = input.U8();
    const KelLong bytes = (kind & 1) != 0 ? 4 : (kind & 2) != 0 ? 2 : 1;
    image.InitKelImageData(width, height, bytes, bytes == 4 && (kind & 4) != 0 ? 1 : 0, nullptr);
    std::uint8_t script[6 * kNumSteps] = {};
    for (std::uint8_t& byte : script) byte = static_cast<std::uint8_t>(input.U8());
    Fill(image, input);
    for (int i = 0; i < kNumSteps; ++i) {
      fuzz::Input step{script + std::ptrdiff_t{6} * i, 6};
      try {
        Step(image, step);
      } catch (const KelException& failure) {
        Require(failure.errCode == KelErrNoMemory);
      }
    }
  } catch (const KelException& failure) {
    Require(failure.errCode == KelErrNoMemory);
  }
  image.FreeImageBuffer();
  Require(memory.Outstanding() == 0);
  return 0;
}
