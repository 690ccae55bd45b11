// An encoder under arbitrary options, with arbitrary records beside the samples, on a stream that
// may fail, and with previews, zoom and size queries in between: it refuses, or what it wrote can
// be decoded. Lossless components come back as they were.
#include <algorithm>
#include <bit>
#include <iterator>
#include <limits>

#include "EncodeHost.h"
#include "FuzzSupport.h"

namespace {

using fuzz::Require;

/// A number that is mostly small, and sometimes at an end of its range.
KelLong Number(fuzz::Input& input) {
  const std::uint32_t byte = input.U8();
  constexpr KelLong kEnds[] = {-1, 255, 256, 65535, 65536, INT32_MAX, INT32_MIN, -65536};
  return byte < 248 ? static_cast<KelLong>(byte % 40) : kEnds[byte - 248];
}

float Fraction(fuzz::Input& input) {
  constexpr float kEnds[] = {0.0F,
                             -1.0F,
                             1e30F,
                             -1e30F,
                             std::numeric_limits<float>::infinity(),
                             -std::numeric_limits<float>::infinity(),
                             std::numeric_limits<float>::quiet_NaN(),
                             1e-30F};
  const std::uint32_t byte = input.U8();
  return byte < 248 ? static_cast<float>(byte) / 2 - 20 : kEnds[byte - 248];
}

/// Records that a host hands over, over the bytes of the input.
struct Records {
  explicit Records(fuzz::Input& input) {
    for (KelLong& value : numbers) value = Number(input);
    const std::size_t n = std::min<std::size_t>(input.left, 32);
    std::copy_n(input.next, n, bytes);
    const auto length = [&](int i) { return static_cast<KelULong>(numbers[i] & 31); };
    comment = {bytes, length(0)};
    xml = {length(1), bytes};
    uuid = {length(2), {}, bytes};
    profile = {length(3), bytes};
    spec.method = static_cast<KelULong>(numbers[4] & 3);
    spec.precedence = static_cast<KelULong>(numbers[5]);
    spec.enumeratedSpace = static_cast<KelULong>(numbers[6]);
    spec.cie.kind = static_cast<KelULong>(numbers[7] & 3);
    spec.cie.rangeA = static_cast<KelULong>(numbers[8]);
    spec.cie.illuminantKind = static_cast<KelULong>(numbers[9] & 3);
    spec.iccProfile = spec.method >= 2 ? &profile : nullptr;
    specs = {1, &spec};
    std::fill(std::begin(depths), std::end(depths), static_cast<std::uint8_t>(numbers[10]));
    for (std::uint8_t*& column : columns) column = bytes;
    // Three entries of the deepest stand in the bytes, whichever the layout.
    palette.numEntries = static_cast<KelULong>(numbers[11] & 3);
    palette.numColumns = static_cast<KelULong>(numbers[12] & 3);
    palette.depths = depths;
    palette.columns = columns;
    palette.layout = static_cast<KelULong>(numbers[13] & 1);
  }
  void HandTo(KelEncOpt& options, std::uint32_t which) {
    if ((which & 1) != 0) options.Comment = &comment;
    if ((which & 2) != 0) options.ColorSpecList = &specs;
    if ((which & 4) != 0) options.XMLPresent = true;
    if ((which & 8) != 0) options.UUIDPresent = true;
    if ((which & 16) != 0) options.PalettePresent = true;
    options.NumXMLBoxes = options.NumUUIDBoxes = 1;
    options.XMLBoxes = &xml;
    options.UUIDBoxes = &uuid;
    options.Palette = &palette;
    options.ResolutionInfoPresent = (which & 32) != 0;
  }

  KelLong numbers[14];
  std::uint8_t bytes[128] = {};
  KelComment comment;
  __tagKelXML xml;
  __tagKelUUID uuid;
  __tagICCProfile profile;
  KelColorSpec spec{};
  __tagColorSpecList specs;
  std::uint8_t depths[4];
  std::uint8_t* columns[4];
  __tagKelPalette palette{};
};

/// Changes some options to any value.
void Change(KelEncOpt& o, fuzz::Input& input) {
  KelLong* const numbers[] = {
      &o.RoiMaskComponent, &o.RoiStyle,         &o.NumColorChannels,  &o.TransparencyComponent,
      &o.TransparencyType, &o.NumLevels,        &o.Irreversible,      &o.RateMode,
      &o.RateParamA,       &o.RateParamB,       &o.ChooseIndices,     &o.NumLayers,
      &o.ProgressionOrder, &o.QualityScale,     &o.CodeBlockWidthExp, &o.CodeBlockHeightExp,
      &o.PrecinctWidthExp, &o.PrecinctHeightExp};
  bool* const flags[] = {&o.RoiEnabled,
                         &o.ExtraChannelCodingParams,
                         &o.TransparencyPresent,
                         &o.TransparencyCoded,
                         &o.ComponentTransform,
                         &o.RateFlag,
                         &o.ProgressPerCall,
                         &o.CbBypass,
                         &o.CbVertCausal,
                         &o.UseSOP,
                         &o.UseEPH};
  for (std::uint32_t n = input.U8() % 12; n > 0; --n) {
    const std::uint32_t which = input.U8() % (std::size(numbers) + std::size(flags));
    if (which < std::size(numbers)) {
      *numbers[which] = Number(input);
    } else {
      *flags[which - std::size(numbers)] = (input.U8() & 1) != 0;
    }
  }
  o.TargetQuality = Fraction(input);
  o.ResolutionX = Fraction(input);
  o.ResolutionY = Fraction(input);
}

/// Previews, zoom and queries between the tiles.
void Look(KelImage& encoder, fuzz::Input& input) {
  const std::uint32_t what = input.U8();
  const KelLong tile = Number(input), x0 = Number(input), x1 = Number(input), y0 = Number(input),
                y1 = Number(input);
  if ((what & 1) != 0) encoder.SetAlphaChannelsForPreview((what & 2) != 0, (what & 4) != 0);
  if ((what & 8) != 0) encoder.GetPreviewData(tile);
  if ((what & 16) != 0) {
    encoder.GetPreviewData(tile, x0, x1, y0, y1, Number(input), (what & 2) != 0);
  }
  if ((what & 32) != 0) {
    const float factor = Fraction(input) / 16;
    try {
      KelImageData* const shown =
          encoder.Zoom(tile, Number(input), factor, x0, x1, y0, y1, nullptr, nullptr);
      if (shown != nullptr) shown->FreeImageBuffer();
      KelGetMemObj()->Free(shown);
    } catch (const KelException&) {
      // What cannot be shown is raised.
    }
  }
  if ((what & 64) != 0) {
    KelLong count = 0;
    encoder.FindQualityNumbersEmbedded(&count);
    encoder.UpdateCodestreamSize(x0, y0, x1);
    encoder.GetMinCodeStreamLength();
    encoder.GetMaxCodeStreamLength();
    encoder.GetAlphaChannelCodeStreamSize();
  }
  if ((what & 128) != 0) encoder.QualityForTarget(y1);
}

test::Picture PictureFrom(fuzz::Input& input) {
  const std::size_t count = 1 + input.U8() % 5;
  std::vector<KelLong> sampling(count, 1);
  sampling.back() = 1 + static_cast<KelLong>(input.U8() & 1);
  const KelLong width = 1 + static_cast<KelLong>(input.U8() % 48);
  const KelLong height = 1 + static_cast<KelLong>(input.U8() % 48);
  std::vector<KelLong> depths(count, 1 + static_cast<KelLong>(input.U8() % 28));
  if ((input.U8() & 1) != 0) depths.back() = 8;
  return test::MakePicture(width, height, depths, sampling,
                           static_cast<test::Content>(input.U8() % 3));
}

/// Leading components that can stand in one buffer.
KelLong NumAlike(const test::Picture& picture) {
  const bool isLast = picture.depths.back() == picture.depths[0] && picture.xRsiz.back() == 1;
  return static_cast<KelLong>(picture.Count()) - (isLast ? 0 : 1);
}

/// What was written is whole, and its lossless components are as they were handed over.
void CheckWritten(const test::Bytes& file, const test::Picture& picture, const KelEncOpt& options) {
  const test::Decoded decoded = test::Decode(file);
  Require(decoded.initCode == KelOK && decoded.frameCode == KelOK && decoded.isComplete);
  const bool areAll = options.Irreversible == 0 && !options.RoiEnabled &&
                      options.ExtraChannelCodingParams && options.TransparencyCoded;
  if (!areAll) return;
  Require(decoded.planes.size() == picture.Count());
  for (std::size_t c = 0; c < picture.Count(); ++c) Require(decoded.planes[c] == picture.planes[c]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const std::uint32_t form = input.U8(), refused = input.U8(), failed = input.U8();
  test::HostMemory memory;
  memory.LimitBytes(1 << 25);
  const test::Picture picture = PictureFrom(input);
  const KelLong tileWidth =
      std::max<KelLong>(1 + static_cast<KelLong>(input.U8() % 64), picture.width / 3 + 1);
  Records records(input);
  test::HostStream stream({}, (form & 1) != 0);
  if ((form & 2) != 0) stream.writesToFail = static_cast<int>(failed);
  try {
    test::EncodeHost host(picture, tileWidth, std::max<KelLong>(picture.height / 2, 1));
    records.HandTo(host.options, input.U8());
    Change(host.options, input);
    if ((form & 4) != 0) host.numInterleaved = NumAlike(picture);
    if ((form & 8) != 0) host.failFetch = 1 + static_cast<int>(failed & 15);
    if ((form & 16) != 0) host.abortAfter = static_cast<int>(failed & 31);
    memory.RefuseRequest(refused);
    KelLong code = host.Init(stream);
    if (code == KelOK) {
      Require(host.encoder.GetCodeStreamLengthBound() != 0);
      if ((form & 32) != 0) host.encoder.CompressImage();
      for (KelLong t = 0; t < host.encoder.GetNumTiles() && code == KelOK; ++t) {
        Look(host.encoder, input);
        code = host.encoder.CompressAndWriteTile(t, nullptr);
      }
    }
    host.encoder.Die();
    if (stream.stream.wbuf != nullptr) stream.stream.flushWriteBuffer();
    Require(code != KelErrUnexpected);
    memory.RefuseRequest(0);
    if (code == KelOK && stream.writesToFail < 0 && host.failFetch == 0) {
      CheckWritten(stream.bytes, picture, host.options);
    }
  } catch (const KelException& failure) {
    Require(failure.errCode == KelErrNoMemory || failure.errCode == KelErrBadParam);
  }
  if (stream.stream.wbuf != nullptr) stream.stream.flushWriteBuffer();
  Require(memory.Outstanding() == 0);
  return 0;
}
