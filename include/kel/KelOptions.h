// The option sets of the encoder and the decoder, and the enumerations they carry.
//
// A KelEncOpt is filled by the host and read by the encoder; a KelDecOpt contains a KelEncOpt
// that the decoder fills, so that after initialisation one record describes the image in either
// direction. Both belong to the host and must outlive the Die of the image object that uses
// them. These operations have no guard: where one is said to raise, a KelException passes to
// the host.
#ifndef KEL_OPTIONS_H
#define KEL_OPTIONS_H

#include "KelColor.h"
#include "KelFileRecords.h"
#include "KelGeometry.h"
#include "KelTypes.h"

/// Order of the packets of a tile: L layer, R resolution, C component, P position.
enum ProgressionOrder : KelLong { KelLRCP = 0, KelRLCP = 1, KelRPCL = 2, KelPCRL = 3, KelCPRL = 4 };

/// Which resolution a decoder delivers, as levels below the full one.
enum KelDecodePixelAspectRatio : KelLong {
  KelAspectFull = 0,           ///< every component in full
  KelAspectHalfChroma = 1,     ///< components 1 and 2 one level lower
  KelAspectQuarterChroma = 2,  ///< components 1 and 2 two levels lower, the others one
  KelAspectHalf = 3            ///< every component one level lower
};

/// Options of the encoder; for a decoder, what was found in the stream. Fields are undefined
/// until InitToDefaults or Clone, but for the owned ones, which are null: Die may be called in any
/// case. Defaults stand in brackets. Copies made by the language share the pointers. Text, comment
/// and file records are not owned.
class KEL_API KelEncOpt {
 public:
  /// Makes a geometry of the given canvas, tile size, component count and depth, without
  /// offsets or subsampling, then sets the defaults. Returns 0; raises 15 for tiling that is not
  /// allowed, 8 when memory runs out. Arrays and a geometry held before are not released: call
  /// Die first.
  KelLong InitToDefaults(KelLong width, KelLong height, KelLong tileWidth, KelLong tileHeight,
                         KelLong numComponents, KelLong bitDepth);
  /// The same with a deep copy of a geometry. Raises 15 for a null one.
  KelLong InitToDefaults(KelImageGeometry* geometry);
  /// Copies the coding parameters of *source with its geometry, LayerTargets and RateTable. The
  /// comment, the transparency and file-format groups, RoiStyle, QualityScale,
  /// ExtraChannelCodingParams, RateFlag, the rate parameters, RateLimit, ProgressPerCall, UseEPH
  /// and DebugFileName take their defaults. Returns 0; raises 15 for a null source or one without
  /// a geometry, 8.
  KelLong Clone(KelEncOpt* source);
  /// Releases the geometry, RateTable and LayerTargets and sets them to null; may be called more
  /// than once. The object itself belongs to whoever made it.
  void Die();
  KelImageGeometry* GetGeomParams() const { return GeomParams; }

  // Image. The encoder goes by GeomParams; the five numbers inform.
  KelLong ImageWidth;     ///< canvas width
  KelLong ImageHeight;    ///< canvas height
  KelLong TileWidth;      ///< tile width
  KelLong TileHeight;     ///< tile height
  KelLong NumComponents;  ///< number of components
  KelLong Reserved0;      ///< not interpreted [not set]
  /// canvas and tiling; owned [a new geometry]
  KelImageGeometry* GeomParams = nullptr;
  /// Path of a file that is created or emptied when InitEncoder fails and when an encoder is
  /// torn down; null or empty for none [null]
  const char* DebugFileName;
  void* Reserved1;  ///< not interpreted [null]

  // Region of interest, given as a mask in one of the components (nonzero = inside). That
  // component is not coded itself. Only irreversible colour components are affected: outside the
  // region they are quantised at TargetQuality, inside they keep full precision.
  bool RoiEnabled;           ///< [false]
  KelLong RoiMaskComponent;  ///< 0 to Csiz - 1, above 2 with a component transform [-1]
  KelLong RoiStyle;          ///< stored; InitEncoder sets 2 with a region [1]
  KelLong QualityScale;      ///< not interpreted [100]

  // Channels.
  /// Components from NumColorChannels on are written, losslessly, with parameters of their own;
  /// when false they are compressed for the size queries but not written [true]
  bool ExtraChannelCodingParams;
  KelLong NumColorChannels;       ///< leading components that are colours [number of components]
  bool TransparencyPresent;       ///< [false]
  bool TransparencyCoded;         ///< the transparency channel is written [true]
  KelLong TransparencyComponent;  ///< its component, NumColorChannels or above [-1]
  KelLong TransparencyType;       ///< 1 opacity, 2 premultiplied opacity [1]
  /// Apply the colour transform to components 0 to 2 (three colour channels of equal
  /// subsampling): reversible or irreversible as Irreversible says [false]
  bool ComponentTransform;

  // File format.
  KelComment* Comment;                ///< written into the main header [null]
  __tagColorSpecList* ColorSpecList;  ///< [null: sRGB or grey, by the component count]
  bool XMLPresent;                    ///< [false]
  KelLong NumXMLBoxes;                ///< [0]
  __tagKelXML* XMLBoxes;              ///< [null]
  bool UUIDPresent;                   ///< [false]
  KelLong NumUUIDBoxes;               ///< [0]
  __tagKelUUID* UUIDBoxes;            ///< [null]
  bool ResolutionInfoPresent;         ///< [false]
  float ResolutionX;                  ///< horizontal, samples per inch [0]
  float ResolutionY;                  ///< vertical, samples per inch [0]
  bool ChannelDefPresent;             ///< [false]
  /// Answers the channel queries; the encoder derives the definitions it writes from the channel
  /// fields above [null]
  KelChannelDefinition* ChannelDefs;
  bool PalettePresent;       ///< [false]
  __tagKelPalette* Palette;  ///< [null]

  // Coding.
  KelLong NumLevels;     ///< wavelet decomposition levels, 0 to 32 [5]
  KelLong Irreversible;  ///< 1 the 9/7 filter, 0 the reversible 5/3 filter (lossless) [1]
  /// InitEncoder sets 5, a decoder 3 for a boxed file. Previews alone read it later [0]
  KelLong RateMode;
  bool RateFlag;       ///< the byte target is the whole uncompressed size [false]
  KelLong RateParamA;  ///< quality percentage for the size queries when 1 to 100 [0]
  KelLong RateParamB;  ///< decoder: decoded bytes, or of the boxed file [0]
  /// Nonzero: irreversible components are coded with steps that weigh all errors alike and with
  /// indices chosen by error and bits, and what is empty takes no bytes. Less data at the same
  /// quality number, with about the same error; every decoder reads it. Components that a region of
  /// interest shapes and lossless ones are the same either way but for what is empty. TargetQuality
  /// then counts with its fraction, and the main header announces the steps that it had when the
  /// encoder was initialised; resolutions of few bytes share a tile-part. Takes the place of a
  /// field that was not interpreted [0]
  KelLong ChooseIndices;
  /// Nonzero: the header of every tile-part has a checksum of each of its packets, which
  /// KelStreamIndex::ExamineTile compares; other readers pass over them. Four bytes a packet and 14
  /// a tile-part. Takes the place of a field that was not interpreted [0]
  KelLong Checksums;
  KelLong Reserved2[3];  ///< not interpreted [0]
  KelLong RateLimit;     ///< not interpreted [-1]
  /// False: InitEncoder begins a progress run over the tiles. True: CompressImage begins and ends
  /// its own [false]
  bool ProgressPerCall;
  KelLong NumLayers;                ///< quality layers, 1 to 65535; each repeats the same data [1]
  KelLong* LayerTargets = nullptr;  ///< NumLayers values from the registered Malloc; owned [null]
  KelLong ProgressionOrder;         ///< a ProgressionOrder; 1 and 4 can be written [1]
  KelLong CodeBlockWidthExp;        ///< InitEncoder sets 3: blocks of 8 x 8 [5]
  KelLong CodeBlockHeightExp;       ///< [5]
  // Code-block style bits, announced in the header; they do not change the block coding [false]
  bool CbBypass;
  bool CbReset;
  bool CbTermAll;
  bool CbVertCausal;
  bool CbPredTerm;
  bool CbSegSymbols;
  bool UseSOP;                ///< announced; no SOP segments are written [false]
  bool UseEPH;                ///< announced; no EPH markers are written [false]
  KelLong PrecinctWidthExp;   ///< 15: one precinct; others only where a tile fits in one [15]
  KelLong PrecinctHeightExp;  ///< [15]
  KelULong CoderValue;        ///< not interpreted [0]
  /// Quality of irreversible coding, 1 to 100 (rounded, clamped), read when a tile is coded. With
  /// ChooseIndices it counts with its fraction, and from -40 on. 100 means a step of 1 in every
  /// subband; it is not lossless [40]
  float TargetQuality;
  KelLong* RateTable = nullptr;  ///< RateTableCount values from the registered Malloc; owned [null]
  KelLong RateTableCount;        ///< [0]
};

/// Options of the decoder.
class KEL_API KelDecOpt {
 public:
  KelDecOpt() : ForceComponentTransform(0), EncOpt(nullptr) {}

  /// Makes a zero-filled EncOpt; ForceComponentTransform is left alone. Returns 0; raises 8.
  KelLong InitToDefaults();
  /// Copies *source with a clone of its EncOpt. Returns 0; raises 15 for a null source or one
  /// without EncOpt, 8.
  KelLong Clone(KelDecOpt* source);
  /// Releases EncOpt with what it owns and sets it to null.
  void Die();

  /// Nonzero: fast 8-bit output treats components 0 to 2 as a transformed triple although the
  /// stream does not signal the component transform.
  KelLong ForceComponentTransform;
  KelLong Reserved[4] = {};  ///< not interpreted
  KelEncOpt* EncOpt;         ///< filled by InitDecoder; owned
};

#endif
