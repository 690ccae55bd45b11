// KelTileComponent, the host's handle onto one component of one tile inside an image object.
//
// Handles belong to the image object and live until its Die. Images read through a handle belong
// to the image object; an image set through it is handed over: the library releases its buffer
// and the object itself, which must therefore come from the registered Malloc. What it replaces is
// released at once.
#ifndef KEL_TILE_COMPONENT_H
#define KEL_TILE_COMPONENT_H

#include "KelGeometry.h"
#include "KelImageData.h"
#include "KelOptions.h"

namespace kel {
struct TileCompRecord;
struct TileCompCell;
}  // namespace kel

class KEL_API KelTileComponent {
 public:
  KelTileComponent() : cell_(nullptr) {}
  KelTileComponent(const KelTileComponent& source) = default;
  KelTileComponent& operator=(const KelTileComponent& source) = default;

  /// Decoder: the reconstructed samples. Encoder: the preview. Its buffer is null until there
  /// are samples. Rows are GetWidth() samples apart, which may exceed the tile-component's width:
  /// unrotated decoder output is padded to a multiple of 16 samples.
  KelImageData* GetOutputImage() const;
  void SetOutputImage(KelImageData* image);
  /// Encoder: the preview, the same image as GetOutputImage until the host sets one of them.
  KelImageData* GetProgData() const;
  void SetProgData(KelImageData* image);
  /// Decoder: coefficients of a tile that is not complete yet, kept between frames, else null.
  KelImageData* GetWaveletData() const;
  /// Marks the image's buffer as the library's to release. Must not be called on a decoder's tile
  /// between its first and its last frame.
  void SetWaveletData(KelImageData* image);
  /// Forgets the image without releasing it.
  void ReleaseWaveletData();

  KelTileGeometry* GetTileGeometryParams() const;
  KelLong GetWidth() const;   ///< samples across at full resolution
  KelLong GetHeight() const;  ///< samples down at full resolution
  /// The encoder options in force: the image's, or the private copy that extra channels share.
  KelEncOpt* GetEncOpt() const;
  KelDecOpt* GetDecOpt() const;

  /// Decoder: output of the last frame exists. Cleared when decoding of the tile starts anew.
  bool TileCompDataReady() const;
  void SetTileCompDataReady();
  void ResetTileCompDataReady();
  /// Decoder: that output is in GetOutputImage.
  bool TileCompDataIsValid() const;
  void SetTileCompDataIsValid();
  void ResetTileCompDataIsValid();

  /// Ties the handle to a record of the library; not for hosts, nor used by the library. Raises 8.
  void Init(kel::TileCompRecord* record);

 private:
  friend struct kel::TileCompRecord;
  kel::TileCompCell* cell_;
};

#endif
