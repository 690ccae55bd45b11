// The sample container: size, kind, buffer and the cached range of its samples.
//
// Conversions of the samples live in KelRecast and KelResample.
#include "kel/KelImageData.h"

#include <cstring>
#include <new>

#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "samples/KelImageDataAccess.h"

namespace kel {

KelImageData* NewImage() {
  return new (KelMalloc(sizeof(KelImageData))) KelImageData;
}

void ReleaseImage(KelImageData*& image) noexcept {
  if (image == nullptr) return;
  image->FreeImageBuffer();
  KelFree(image);
  image = nullptr;
}

void InstallSamples(KelImageData& image, OwnedBuffer samples, KelLong width, KelLong height,
                    KelLong sampleBytes, KelLong bufferType) noexcept {
  image.FreeImageBuffer();
  image.ImageBuffer = samples.Release();
  image.Width = width;
  image.Height = height;
  image.SizeOfDataType = sampleBytes;
  image.ImageBufferType = bufferType;
  ForgetDynRange(image);
}

void CompactRows(KelImageData& image, KelLong trueWidth) {
  if (trueWidth < 0 || trueWidth >= image.Width) return;
  const BufferLock lock(image.ImageBuffer);
  if (!lock) Raise(KelErrNoMemory, kModuleImageMap);
  const std::uint64_t paddedBytes = PlaneBytes(image.Width, 1, image.SizeOfDataType);
  const std::uint64_t rowBytes = PlaneBytes(trueWidth, 1, image.SizeOfDataType);
  auto* samples = lock.As<std::uint8_t>();
  for (std::uint64_t row = 1; row < AsCount(image.Height); ++row) {
    // A row may overlap the place that it moves to, which the host's copy does not allow for.
    std::memmove(samples + row * rowBytes, samples + row * paddedBytes,
                 static_cast<std::size_t>(rowBytes));
  }
  image.Width = trueWidth;
  ForgetDynRange(image);
}

}  // namespace kel

KelImageData::~KelImageData() = default;

KelLong KelImageData::InitKelImageData(KelLong width, KelLong height, KelLong sampleBytes,
                                       KelLong bufferType, KelBufID_I* buffer) {
  Width = width;
  Height = height;
  SizeOfDataType = sampleBytes;
  ImageBufferType = bufferType;
  ImageBuffer = buffer;
  kel::ForgetDynRange(*this);
  if (buffer != nullptr) return KelOK;

  const std::uint64_t sizeBytes = kel::PlaneBytes(width, height, sampleBytes);
  kel::OwnedBuffer samples = kel::OwnedBuffer::Make(sizeBytes);
  if (!samples) return KelErrNoMemory;
  {
    const kel::BufferLock lock(samples.Get());
    if (!lock && sizeBytes != 0) return KelErrNoMemory;
    kel::KelMemSet(lock.As<void>(), 0, sizeBytes);
  }
  ImageBuffer = samples.Release();
  return KelOK;
}

KelLong KelImageData::SetWidth(KelLong width) {
  Width = width;
  return KelOK;
}

KelLong KelImageData::SetHeight(KelLong height) {
  Height = height;
  return KelOK;
}

void KelImageData::SetImageBuffer(KelBufID_I* buffer) {
  ImageBuffer = buffer;
  kel::ForgetDynRange(*this);
}

void KelImageData::FreeImageBuffer() {
  if (ImageBuffer != nullptr) {
    kel::KelUnlockBuf(ImageBuffer);
    kel::KelFreeBuf(ImageBuffer);
  }
  ImageBuffer = nullptr;
}
