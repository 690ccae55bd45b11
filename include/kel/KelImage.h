// KelImage, the image object: encodes or decodes one image through host callbacks.
//
// Every operation marked "guarded" catches what fails inside it, keeps the details for
// GetErrorDetails and returns the failure's KelResult (or the neutral value named). On an object
// that was not initialised, guarded operations return 31 (GetNextFrame 15) and queries 0, false or
// null; an encoder's operation on a decoder, or the reverse, returns 15. After a failure the host
// calls Die in any case.
//
// One object is used by one thread at a time; distinct objects share only the registered memory
// callbacks. Callbacks run on the calling thread, inside the call. The library computes with
// rounding to nearest and restores the host's rounding mode.
#ifndef KEL_IMAGE_H
#define KEL_IMAGE_H

#include "KelColor.h"
#include "KelDamage.h"
#include "KelFileRecords.h"
#include "KelGeometry.h"
#include "KelImageData.h"
#include "KelMemory.h"
#include "KelOptions.h"
#include "KelStream.h"
#include "KelTileComponent.h"
#include "KelTypes.h"

namespace kel {
struct ImageHandle;
}

/// Progress and abort callbacks; each may be null. Only AbortRequested may throw: the others also
/// run while an operation that has failed is put in order.
class KEL_API KelUserActions {
 public:
  KelLong (*AbortRequested)() = nullptr;                          ///< nonzero: stop the work
  void (*BeginProgress)() = nullptr;                              ///< a progress run starts
  void (*EndProgress)() = nullptr;                                ///< it ends, after a last report
  void (*ReportProgress)(KelLong done, KelLong total) = nullptr;  ///< steps done of all
};

/// Where the encoder fetches its samples. At least one of the two fetch callbacks must be set.
///
/// A fetch hands over a buffer of its own: the library locks, unlocks and frees it through the
/// registered callbacks, so it must be one that FreeBuf can free, and never one that the host
/// goes on using. Rows follow each other without padding but to whole bytes. Samples are
/// unsigned: one byte each for a depth of 8, one word in the host's byte order for 16, and for
/// other depths packed, most significant bit first. A callback that fails stores a result code
/// in *error (0 before the call), which the encoding operation returns; null without an error
/// ends the tile without coding it. A callback may throw: guarded operations then return 31.
class KEL_API KelImageDataProcs {
 public:
  KelImageDataProcs& operator=(const KelImageDataProcs& source) = default;
  KelImageDataProcs(const KelImageDataProcs& source) = default;
  KelImageDataProcs() = default;

  void* clientData = nullptr;  ///< first argument of every callback
  /// All interleaved channels of one tile, sample by sample; may be null. A component is taken
  /// from it when its index is below GetNumInterleaved, it is not subsampled and its depth equals
  /// component 0's.
  KelBufID_I* (*GetTileInterleaved)(void* clientData, KelLong tile, KelLong* error) = nullptr;
  /// One component of one tile, as many samples as its tile-component has (GetWidth, GetHeight
  /// of KelTileComponent); may be null.
  KelBufID_I* (*GetTileComponent)(void* clientData, KelLong component, KelLong tile,
                                  KelLong* error) = nullptr;
  /// How many channels the interleaved buffer holds; required with GetTileInterleaved.
  KelLong (*GetNumInterleaved)(void* clientData) = nullptr;
  /// Asked once at InitEncoder; its value is not used. May be null.
  KelLong (*GetReserved)(void* clientData) = nullptr;
};

/// Where the encoder looks at interleaved samples row by row, in the host's own memory, in place of
/// a buffer of each tile; see KelImage::SetRowProcs. Only GetTileRows may throw: guarded operations
/// then return 31.
class KEL_API KelRowProcs {
 public:
  void* clientData = nullptr;  ///< first argument of every callback
  /// The address of a row of a tile, counted from 0: samples as in GetTileInterleaved. *numRows
  /// rows from there on, at least one, begin every *strideBytes bytes; both are for the callback to
  /// set, and more rows than the tile has do no harm. They stay as they are until the next call for
  /// the tile, or ReleaseTileRows. Rows are asked for once, from the first to the last. Null with a
  /// result code in *error, or without one, as a fetch.
  const void* (*GetTileRows)(void* clientData, KelLong tile, KelLong row, KelLong* numRows,
                             std::int64_t* strideBytes, KelLong* error) = nullptr;
  /// The rows of a tile are not looked at any longer, whether all of them were asked for or not;
  /// called once for a tile of which a row was asked for. May be null.
  void (*ReleaseTileRows)(void* clientData, KelLong tile) = nullptr;
};

/// The host's callbacks for one image object.
class KEL_API KelClientProcs {
 public:
  KelClientProcs& operator=(const KelClientProcs& source) = default;
  KelClientProcs(const KelClientProcs& source) = default;
  KelClientProcs() = default;

  KelUserActions* UserActions = nullptr;        ///< may be null
  KelImageDataProcs* ImageDataProcs = nullptr;  ///< required by the encoder
};

/// What the host wants a frame to deliver, per channel (component). Arrays have NumChannels
/// entries. See KelImage::GetNextFrame for where the samples land.
class KEL_API KelFrameData {
 public:
  KelLong NumChannels = 0;
  void** OutBuffers = nullptr;      ///< one buffer per channel for the whole decoded image, or null
  void* Reserved0 = nullptr;        ///< not interpreted
  void* Reserved1 = nullptr;        ///< not interpreted
  KelLong* OutStrides = nullptr;    ///< bytes from row to row in each buffer
  KelLong* InBitDepths = nullptr;   ///< 8 asks for the fast 8-bit paths, with OutBitDepths 8
  KelLong* OutBitDepths = nullptr;  ///< bits per delivered sample
  KelLong* OutSigned = nullptr;     ///< 1 signed, 0 unsigned; the fast paths need 0
  void* Reserved2 = nullptr;        ///< not interpreted
  void* Reserved3 = nullptr;        ///< not interpreted
  double* OutMax = nullptr;         ///< output range; 255 and 0 for ordinary 8-bit output
  double* OutMin = nullptr;
};

/// The image's client-data record.
class KEL_API KelClientData {
 public:
  void* data = nullptr;  ///< released by Die
};

/// Type of a channel.
enum KelChannelType : KelLong {
  KelChannelColor = 0,
  KelChannelOpacity = 1,
  KelChannelPremultiplied = 2,
  KelChannelUnspecified = 65535
};

/// Kind of transparency.
enum KelOpacityType : KelLong {
  KelOpacityPlain = 0,
  KelOpacityPremultiplied = 1,
  KelOpacityChromaKey = 2,
  KelOpacityNone = 4,
  KelOpacityOther = 5
};

class KEL_API KelImage {
 public:
  KelImage() : handle_(nullptr) {}
  KelImage(const KelImage& source) = default;             ///< shares the state
  KelImage& operator=(const KelImage& source) = default;  ///< shares the state
  virtual ~KelImage();                                    ///< releases nothing: call Die

  // Both directions.

  /// Whether the stream's next 12 bytes, which stay consumed, begin a code stream or file that
  /// the library decodes. Nothing of the image object is used.
  bool FileIsKel(KelCodeStm* stream);
  /// The same for a block, which must hold 13 bytes at least.
  bool FileIsKel(KelCompressedData* data);
  /// Guarded. Releases everything that the object holds, whatever state it is in; afterwards the
  /// object may be initialised again. Results of queries are void then. Returns 0.
  KelLong Die();
  /// A copy of the details of the last failure; cleared by an initialisation, never by a success.
  KelException GetErrorDetails() const;
  /// The place of the failure that GetErrorDetails tells of; line -1 without one.
  KelErrorPlace GetErrorPlace() const;
  KelMemFuncs* GetMemObj() const;

  // Decoding.

  /// Guarded. Reads everything before the first tile-part: boxes, main header, geometry.
  ///
  /// stream and data: where the compressed bytes come from; data is used when both are given. A
  /// seekable stream must begin with the file; one that cannot seek is taken as of the 0xAB
  /// flavour. options (required, with EncOpt) must outlive Die, and receives the description of
  /// the image. procs may be null. *resolutions, unless null, receives an array of one number
  /// per component, the resolution to be decoded (the level count means full size); it comes from
  /// the registered Malloc and belongs to the host, which releases it with its Free.
  ///
  /// Returns 0; 3 when not a byte could be read; 8; 10, 18, 29 for a bad or unsupported main
  /// header; 15 for missing arguments or tiling that is not allowed; 17 for unknown data; 21, 22,
  /// 25, 26 for bad boxes; 29 also for signed components and code blocks larger than 8 x 8.
  KelLong InitDecoder(KelCodeStm* stream, KelCompressedData* data, KelDecOpt* options,
                      KelClientProcs* procs, KelULong** resolutions,
                      KelDecodePixelAspectRatio aspect);

  /// Guarded for KelException only. Decodes everything that has arrived and was not decoded yet,
  /// and brings the output up to date. Call it again whenever more data have arrived.
  ///
  /// data: the compressed bytes that have arrived so far, from the first byte of the file on;
  /// null reads on from the stream given to InitDecoder, or from the last block. The block must
  /// stay valid during the call. resolutions is not read: the resolutions chosen by InitDecoder
  /// hold.
  ///
  /// A packet that the end of the data cuts off is left for the next frame. A tile whose packets
  /// have all been decoded is finished, and later frames do not touch it while the host asks for
  /// the same thing; when the flags, the orientation or the contents of frame change, decoding
  /// starts again from the first tile-part. A stream that cannot seek gives all its data, also
  /// those that arrived after InitDecoder, to the first frame; it cannot be started again.
  ///
  /// skipConversion: leave out the inverse component transform. skipRecast: leave the samples as
  /// 32-bit integers or floats centred on zero. frame null means skipRecast and no host buffers.
  ///
  /// Where samples land. A channel's host buffer is usable when its depth OutBitDepths is 8 or
  /// 16, its address is not null and its stride holds a row of the image at the decoded
  /// resolution and orientation. A usable buffer always receives the samples of every tile that has
  /// data at their place in the image: sample (x, y) of the decoded resolution at buffer + (y - Y0)
  /// * stride + (x - X0) * bytes, with (X0, Y0) the first sample of the image area; rotated output
  /// at the place that rotating the whole image gives. 16-bit samples have the host's byte order.
  /// The tile-component's output image (GetTileComponent, GetOutputImage) holds the samples too, in
  /// the form of KelImageData::RecastData_Rotation with method 0; only the direct path for single
  /// irreversible planes, taken when address, stride and the padded row length are multiples of 16,
  /// writes the host buffer alone (TileCompDataIsValid is then false). With skipRecast only that
  /// path writes host buffers.
  ///
  /// Damage to the data costs no more than it must: behind a place where they make no sense,
  /// decoding goes on at the next tile-part, of this tile or another. GetDamage tells what was met.
  ///
  /// Progress is reported tile by tile. The abort callback is asked before every tile, and after
  /// every million samples decoded; a frame that it stops returns 28, and the next one goes on.
  ///
  /// Returns 0; 8; 28; 15 when a tile has no reachable tile-part although data of another tile are
  /// there, or a tile-part header's 10, 18 or 29: the first such code, after all other tiles have
  /// been decoded and delivered. A later frame may continue.
  KelLong GetNextFrame(KelCompressedData* data, KelULong* resolutions, bool skipConversion,
                       bool skipRecast, KelFrameData* frame);

  /// Guarded (0). Number of GetNextFrame calls so far, failed ones included.
  KelULong NumFramesDecoded();
  /// Guarded (0). Position in the data that the last frame reached, at most 2^32 - 1.
  KelULong BytesConsumedInLastFrame();
  /// Guarded. 0; 15, without effect, for a value other than 0, 90, 180 and 270. Applies from the
  /// next frame on.
  KelLong SetOrientationForDecode(KelImageOrientation orientation);
  KelImageOrientation GetOrientationForDecode() const;
  /// Guarded. The resolution of the frames to come, in every component: `levels` below full size, 0
  /// being full size; a component of fewer levels comes at its lowest. It replaces what
  /// InitDecoder's aspect chose. Higher resolutions are not decoded, have no memory and, where the
  /// data can be moved in, are not read. Sample (x, y) of the reduced image stands for the canvas
  /// at (x, y) * 2^levels. Tiles decoded at another resolution start again. Returns 0; 15 outside 0
  /// to 32.
  KelLong SetDecodeReduction(KelLong levels);
  /// Guarded. The rectangle [x0, x1) x [y0, y1) of the canvas, clipped to the image, that the
  /// frames to come are to show: only tiles that touch it are read and delivered, and the host's
  /// buffers stand for it instead of the image. In a component's samples its edges are divided by
  /// the subsampling and by 2^reduction, rounded up. Output images hold whole tiles as ever. Tiles
  /// decoded already are not decoded again: what their output images hold is copied to its new
  /// place. Returns 0; 15 for a rectangle that shows nothing of the image.
  KelLong SetDecodeRegion(KelLong x0, KelLong x1, KelLong y0, KelLong y1);
  /// Guarded. What may be traded for speed in the tiles that frames to come deliver; both are false
  /// after InitDecoder. singlePrecision: the irreversible filter and its colours to samples of 8
  /// bits are computed in single instead of double precision. Now and then a sample is then one
  /// level off, by the same on every machine; deeper samples are not affected. withoutOutputImages:
  /// where the host's buffer takes the whole of a tile-component that ends as bytes without
  /// rotation, no output image is made beside it (TileCompDataIsValid is then false); such a tile
  /// is decoded again when the host's buffers move. Returns 0.
  KelLong SetDecodeManner(bool singlePrecision, bool withoutOutputImages);
  /// Guarded. Gives back everything that a tile holds: coefficients, records, output images'
  /// samples. A later frame that wants the tile decodes it again, unless the data are gone. Returns
  /// 0; 15 for a tile out of range.
  KelLong ReleaseTile(KelLong tile);
  /// Guarded (0). How many places of damage have been met in the frames so far, in the order of the
  /// data; no more than 4096 are kept. 0 when nothing is wrong.
  KelLong GetNumDamages() const;
  /// Guarded. Copies the n-th of them, from 0 on, to *damage. Returns 0; 15 for n out of range or a
  /// null pointer.
  KelLong GetDamage(KelLong n, KelDamage* damage) const;
  /// Whether every packet of a tile that the decoded resolution needs has been decoded.
  bool TileIsComplete(KelLong tile) const;
  /// Whether nothing of a tile has been read, nor any of its handles been asked for, which makes
  /// records of all of them: in a picture of many tiles only the others can tell anything. True
  /// also for a tile out of range.
  bool TileIsUntouched(KelLong tile) const;

  // Encoding. Order: InitEncoder; CompressAndWriteTile for every tile in increasing order; Die.

  /// Guarded. Checks and keeps the options, prepares one record per tile and component, and
  /// writes the boxes and the main header to the stream. The options' RateMode becomes 5, the
  /// code-block exponents 3, and RoiStyle 2 with a region. options, stream and procs must outlive
  /// Die.
  ///
  /// Returns 0; 8; 32 when the stream did not take the headers; 15 for a missing argument, a
  /// read-only stream, or options that cannot be coded: an image offset or tile-grid offset, an
  /// empty image, more than 65535 tiles, subsampling outside 1..255, unequal subsampling under a
  /// colour transform, depths outside 1..28, levels outside 0..32, indices of mask or transparency
  /// channels out of range, and a transparency channel among the colour channels (below
  /// NumColorChannels).
  KelLong InitEncoder(KelEncOpt* options, KelCodeStm* stream, KelClientProcs* procs);
  /// Guarded. From the next tile on, samples come row by row, where a tile takes one pass over its
  /// interleaved channels and nothing else: one component, or three colours that are transformed
  /// together. Other tiles, and previews, are fetched as ever, so the callbacks that InitEncoder
  /// took stay. The record is copied; null takes it back. What is coded is the same. Returns 0; 15
  /// without GetTileRows or without GetTileInterleaved.
  KelLong SetRowProcs(const KelRowProcs* procs);
  /// Guarded. Writes the boxes and the main header again at the start of a seekable stream, else
  /// at its current position; *bytes, unless null, receives their size. For use before the first
  /// tile only.
  KelLong WriteKelHeaders(KelULong* bytes);
  /// Guarded. Fetches, codes and writes one tile; the last tile also writes the end marker and
  /// flushes the stream. *bytes, unless null, receives the tile's size plus 2. Returns 0; the
  /// fetch's code; 8; 15 for a tile out of range, a progression order other than 1 and 4, or
  /// precincts that divide the tile; 28 when the abort callback, asked after each component, wants
  /// it, with nothing of the tile written; 29 when a tile-part, or the stream without a
  /// KelLargeStream, would pass 2^31 - 1 bytes; 32 when the stream did not take what was written,
  /// which cannot be gone on with.
  KelLong CompressAndWriteTile(KelLong tile, KelULong* bytes);
  /// Guarded. CompressAndWriteTile without the count.
  KelLong CompressTile(KelLong tile);
  /// Guarded. Codes every tile without writing, for the size queries. Returns 28 when the abort
  /// callback asked for it.
  KelLong CompressImage();
  /// Guarded. Tiles times components: the steps that CompressImage reports, which with a region
  /// leaves out the component of its mask.
  KelLong NumProgresionStepsInCompressImage();
  /// Guarded. Tile-parts that the chosen order writes.
  KelLong NumProgressionStepsInEncodeImage();
  /// Count that FindQualityNumbersEmbedded found.
  KelLong GetNumQualitySteps() const;
  /// Guarded (null). The list of quality steps, 101 entries; *count receives 0. The first entry
  /// holds the quality percentage when the byte target is at most 100.
  KelLong* FindQualityNumbersEmbedded(KelLong* count);
  /// Byte counts by which a host may offer targets to choose from: about a hundredth of the colour
  /// channels' uncompressed size, and about 107 % of it, with the headers. They follow from the
  /// geometry alone and bound nothing: a flat picture takes less, noise without loss more.
  KelLong GetMinCodeStreamLength();
  KelLong GetMaxCodeStreamLength();
  /// Guarded (-1). A length that the file does not pass whatever its samples are, coded at the
  /// options' present quality, from its first byte to its last; 2^31 - 1 when it may pass that, and
  /// coding may then return 29. Typically twice the uncompressed size: what to obtain for a stream
  /// that must not run out.
  KelLong GetCodeStreamLengthBound();
  /// Guarded. Coded bytes of the extra channels; -1 before everything is compressed.
  KelLong GetAlphaChannelCodeStreamSize();
  /// Coded bytes of the transparency channel; -1 before everything is compressed.
  KelLong GetTransparencyCodeStreamSize();
  /// Reads a target in bytes as a share of the colour channels' uncompressed size and stores the
  /// percentage, less a few per cent of it by a fixed table, as the options' TargetQuality (1 to
  /// 100). Returns the target less those per cent. The samples are not looked at, so what the file
  /// takes may be far below the target or above it: whoever needs a size codes and compares. Valid
  /// after InitEncoder and before the first tile.
  KelLong QualityForTarget(KelLong targetBytes);
  /// Guarded. A size adjusted for the tile-part headers of another organisation: 0 layers,
  /// 1 resolutions, 4 components; -1 for any other.
  KelLong UpdateCodestreamSize(KelLong fromOrganisation, KelLong size, KelLong toOrganisation);
  KelLong EncodeImage(KelLong mode, KelLong* sizes, float* ratios);    ///< does nothing; 0
  KelLong OptimizeImage(KelLong mode, KelLong* sizes, float* ratios);  ///< does nothing; 0
  KelLong GetNumComponentsDoneInProgPlay() const;                      ///< always 30

  // Preview (encoder). After InitEncoder, in any order with the coding of tiles, which it does not
  // affect. A host that has set RateMode to something other than 5 after InitEncoder gets them
  // without quantisation.

  /// Guarded. What a decoder would make of a tile coded with the present options, at full
  /// resolution: the samples of every colour component.
  ///
  /// Each component shown gets one image, which its tile-component's GetOutputImage and
  /// GetProgData both return; it belongs to the image object until the tile's next preview, the
  /// coding of the tile, or Die. A component without samples to show has none (null). The samples
  /// are integers of the component's depth, in the forms of KelImageData::RecastData: 8-bit ones as
  /// they are, others scaled so that the largest sample becomes half the range, 2^(depth - 1).
  ///
  /// Returns 0, also when the host hands over no samples without an error (there are no images
  /// then); 15 for a tile out of range; the fetch's code; 8. After a failure the tile has no
  /// preview, and the encoder can go on.
  KelLong GetPreviewData(KelLong tile);
  /// Guarded. The same for a rectangle [x0, x1) x [y0, y1) of the canvas, clipped to the tile, at
  /// resolution r from 0 to NumLevels (full size), or for component 0 alone: with a component
  /// transform that is the luminance.
  ///
  /// In a component's samples the rectangle is divided by its subsampling, edges rounded up, taken
  /// relative to the tile-component's first sample, and scaled by the size at resolution r over
  /// the full size, rounded down. Returns 15 also for r out of range and when no component shown
  /// has a sample in the rectangle.
  KelLong GetPreviewData(KelLong tile, KelLong x0, KelLong x1, KelLong y0, KelLong y1,
                         KelLong resolution, bool luminanceOnly);
  /// Whether previews include the transparency component, and the other components from
  /// NumColorChannels on but the region mask; false until set. These are shown as lossless: at
  /// full resolution the host's samples unchanged, whatever the depth.
  void SetAlphaChannelsForPreview(bool transparency, bool extraChannels);
  /// A rectangle [x0, x1) x [y0, y1) of the canvas, clipped to one component of one tile and
  /// divided by its subsampling, with edges rounded up; enlarged by the least power of two that
  /// reaches a factor above 1 (3 gives 4), or reduced by the least one that its inverse does not
  /// exceed (0.3 gives a quarter). 16-bit samples are limited to 32768. The samples are those of
  /// the component's preview when it shows the whole tile-component, else the host's.
  ///
  /// *width and *height, unless null, receive the size. The result comes from the registered
  /// Malloc; it belongs to the caller, who calls its FreeImageBuffer and releases it with the
  /// registered Free. It has no buffer for depths other than 8 and 16, when a reduced rectangle
  /// has no sample left, and when the host hands over no samples without an error. Unguarded:
  /// raises 15 for indices out of range, an empty rectangle and a factor outside 2^-15 to 2^15; 8,
  /// also for a result of 2^30 samples or more; the fetch's code.
  KelImageData* Zoom(KelLong tile, KelLong component, float factor, KelLong x0, KelLong x1,
                     KelLong y0, KelLong y1, KelLong* width, KelLong* height);

  // Queries, valid after a successful initialisation.

  KelLong GetNumTiles() const;
  KelLong GetNumTileComps() const;
  KelLong GetNumComponents() const;
  KelLong GetMaxRes() const;  ///< decomposition levels of the main header
  /// Levels of component 0 in a tile; -1 when another component of the tile has a different
  /// count, and for a tile out of range.
  KelLong GetMaxRes(KelLong tile) const;
  KelImageGeometry* GetGeometryParams() const;
  KelLong* GetBitDepths() const;  ///< bits per sample, one entry per component
  KelCodeStm* GetCodeStream() const;
  KelEncOpt* GetEncodeOptions() const;
  KelDecOpt* GetDecodeOptions() const;
  KelClientData* GetClientData() const;
  /// The handle of a tile-component; null when an index is out of range or memory runs out.
  KelTileComponent* GetTileComponent(KelLong tile, KelLong component) const;
  /// The ICC profile with the highest precedence or the best approximation; null for an encoder
  /// and when there is none.
  __tagICCProfile* GetICCProfile() const;
  __tagColorSpecList* GetColorSpecList() const;
  bool UUIDPresent() const;
  KelLong GetNumUUIDBoxes() const;
  __tagKelUUID* GetUUIDBoxes() const;
  bool XMLPresent() const;
  KelLong GetNumXMLBoxes() const;
  __tagKelXML* GetXMLBoxes() const;
  bool ResolutionInfoPresent() const;
  bool PalettePresent() const;
  __tagKelPalette* GetPalette() const;
  KelLong GetNumColorChannels() const;
  KelChannelType GetComponentType(KelLong component) const;
  /// Guarded. The component that carries colour n (from 1 on); -1 when none does.
  KelLong GetChannelIndex(KelLong n);
  bool TransparencyChannelPresent() const;
  KelOpacityType GetTransparencyType() const;
  KelChromaKey* GetChromaKey() const;  ///< null unless transparency is a chroma key
  /// The index of the channel-definition entry whose opacity applies to colour n; -1 when there is
  /// none.
  KelLong GetTransparencyChannelNum(KelLong n) const;
  /// The index of the channel-definition entry whose opacity applies to the whole image; without
  /// definitions, the last component when the file names an opacity; -1 when there is none.
  KelLong GetGlobalTransparencyChannelNum() const;

 private:
  kel::ImageHandle* handle_;
};

#endif
