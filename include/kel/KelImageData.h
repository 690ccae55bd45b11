// KelImageData, the one container of samples: a rectangle of one component's samples, row by
// row without gaps, in a buffer of the host.
//
// Ownership: FreeImageBuffer releases the buffer through the host's callbacks, whoever obtained
// it. The constructor makes an empty container, the destructor releases nothing. Copies share the
// buffer, so only one of them may release it. Recasts return the code of a failure; the other
// operations have no guard: where one is documented to raise, a KelException passes to the host.
#ifndef KEL_IMAGE_DATA_H
#define KEL_IMAGE_DATA_H

#include "KelMemory.h"
#include "KelTypes.h"

/// Orientation of decoded output: degrees of rotation.
enum KelImageOrientation : KelLong {
  KelOrientation0 = 0,
  KelOrientation90 = 90,
  KelOrientation180 = 180,
  KelOrientation270 = 270
};

/// Which source range a recast maps onto the target range. With M = 2^B - 1 for a source depth
/// of B bits and samples shifted by 2^(B-1):
enum KelRecastMeth : KelLong {
  KelRecastNominal = 0,  ///< [0, M], samples clamped to it
  KelRecastData = 1,     ///< [data minimum, data maximum], no clamping
  KelRecastDataMax = 2,  ///< [0, data maximum], clamped below at 0
  KelRecastDataMin = 3   ///< [data minimum, M], clamped above at M
};

/// Samples of one component.
class KEL_API KelImageData {
 public:
  KelImageData() {}
  KelImageData(const KelImageData& source) = default;
  KelImageData& operator=(const KelImageData& source) = default;
  virtual ~KelImageData();

  /// Stores the four values. A null buffer: obtains width x height x sampleBytes bytes,
  /// zero-filled; returns 8 when no buffer results for a size of zero, and raises 8 when one of
  /// another size is refused or cannot be held. A given buffer is adopted unchanged. Returns 0.
  KelLong InitKelImageData(KelLong width, KelLong height, KelLong sampleBytes, KelLong bufferType,
                           KelBufID_I* buffer);

  KelLong GetWidth() const { return Width; }
  KelLong GetHeight() const { return Height; }
  /// Store any value without a check or reallocation; return 0.
  KelLong SetWidth(KelLong width);
  KelLong SetHeight(KelLong height);
  KelLong GetSizeofImageDataType() const { return SizeOfDataType; }
  void SetSizeOfImageDataType(KelLong sampleBytes) { SizeOfDataType = sampleBytes; }
  void SetImageBufferType(KelLong bufferType) { ImageBufferType = bufferType; }
  KelBufID_I* GetImageBuffer() const { return ImageBuffer; }
  /// Installs a buffer without releasing the previous one; the dynamic range becomes unknown.
  void SetImageBuffer(KelBufID_I* buffer);
  /// Unlocks and frees the buffer, if there is one.
  void FreeImageBuffer();

  // Recasts: turn 32-bit samples centred on zero (a decoder's raw output) into unsigned samples
  // of numBits bits, scaled from the source range into [outMin, outMax]. bitDepth is the depth B
  // of the source. Each replaces the buffer by a new one; afterwards the buffer type is 0 and
  // the sample size numBits / 8 (0 below 8 bits: rows are then packed, most significant bit
  // first, into (width x numBits + 7) / 8 bytes each). Return 0, also when there is no buffer or
  // the samples are not 32 bits wide, bitDepth is outside 1..38 or numBits outside 1..32 (nothing
  // changes then); 8 when the new buffer cannot be obtained, the container unchanged. Values are
  // scaled in single precision, exact up to 24 bits. All make the dynamic range unknown.

  /// Any depth. Signed output changes nothing in the arithmetic: a negative value is stored in
  /// two's complement.
  KelLong RecastData(KelLong bitDepth, bool signedOutput, KelLong numBits, KelLong outMax,
                     KelLong outMin, KelRecastMeth method);
  /// To bytes. Method 0 from 8 bits: the sample plus 128, rounded and clamped, whatever the range.
  KelLong RecastDataTo8BppUnsigned(KelLong bitDepth, KelLong outMax, KelLong outMin,
                                   KelRecastMeth method);
  /// To 16-bit words of the host's byte order. Below 16 bits outMax is lowered to 2^B - 1 and the
  /// results are shifted left by 16 - B.
  KelLong RecastDataTo16BppUnsigned(KelLong bitDepth, KelLong outMax, KelLong outMin,
                                    KelRecastMeth method);
  /// With rotation; for 90 and 270 degrees the width and the height change places. Rotated
  /// samples go through the general arithmetic, which has no shift at 16 bits: below 16 bits of
  /// source depth they are scaled differently from unrotated ones. Another orientation installs
  /// a zero-filled buffer.
  KelLong RecastData_Rotation(KelLong bitDepth, bool signedOutput, KelLong numBits, KelLong outMax,
                              KelLong outMin, KelRecastMeth method,
                              KelImageOrientation orientation);

  /// Cuts out the box (x0, x1, y0, y1); 1- and 2-byte samples only. A box that is empty or not
  /// inside the image, and other sample sizes, leave the samples alone. The dynamic range becomes
  /// unknown. Returns 0; raises 8.
  KelLong CropData(KelLong x0, KelLong x1, KelLong y0, KelLong y1);

  /// Bilinear enlargement to newWidth x newHeight, source samples stepX and stepY apart. Parts of
  /// the grid beyond the new size are cut off. An empty source, and a size or step below 1, leave
  /// the container as it is. Returns 0; raises 8.
  KelLong Interpolate(KelLong newWidth, KelLong newHeight, KelLong stepX, KelLong stepY);

  /// Smallest and largest sample, from the cache when it is valid. Returns 0; 8 when the buffer
  /// cannot be locked; 15 for a buffer type other than 0 and 1. When there is nothing to measure,
  /// the cache as it stands.
  KelLong GetDynRange(float* minimum, float* maximum);
  bool DynRangeIsValid() const { return DynRangeMax >= DynRangeMin; }
  /// Measures again, and also the share of samples below lowLimit and above highLimit (both
  /// strict, 0 to 1). Results as GetDynRange; ratios 0 when there is nothing to measure.
  KelLong GetDynRangeAndSpillOverRatios(KelLong lowLimit, KelLong highLimit, float* minimum,
                                        float* maximum, float* belowRatio, float* aboveRatio);

  KelLong Width = 0;           ///< samples per row
  KelLong Height = 0;          ///< rows
  KelLong SizeOfDataType = 0;  ///< bytes per sample: 1, 2 or 4 (0: packed rows)
  /// 0 integers (unsigned 8, unsigned 16, signed 32 bits), 1 floats
  KelLong ImageBufferType = 0;
  KelBufID_I* ImageBuffer = nullptr;  ///< the samples; null when none
  float DynRangeMin = 1;  ///< cached range; invalid while the maximum is below the minimum
  float DynRangeMax = 0;
};

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(KelImageData) == 8 * 4, "field widths on 32-bit hosts");
#endif

#endif
