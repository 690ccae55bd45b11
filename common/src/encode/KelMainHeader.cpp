// The main header's records, filled from options and geometry, and its writing.
//
// The options must have passed the encoder's checks: nothing is checked here.
#include "encode/KelMainHeader.h"

#include <algorithm>

#include "KelStreamWrite.h"
#include "base/KelRaise.h"
#include "encode/KelMainStream.h"
#include "encode/KelTileRows.h"
#include "format/KelHeadersWrite.h"
#include "transform/KelQuant.h"

namespace kel {
namespace {

/// Most bytes of a comment: what Lcom can count, less itself and Rcom.
constexpr std::uint32_t kMostCommentBytes = format::kMostSegmentBytes - 4;

/// The records of a main header, filled from options and geometry. The set's pointers lead into
/// the owners beside it.
struct MainHeader {
  KelHeaderParams set{};
  KelCodingStyle style{};
  KelQuantParams quant{}, unitQuant{};
  KelSizParams sizes{};
  std::int32_t exponents[kQuantEntries] = {};
  std::int32_t mantissas[kQuantEntries] = {};
  OwnedArray<std::uint8_t> samplings;  ///< across, then down
  OwnedArray<std::uint8_t> bitDepths, isSigned;
  OwnedArray<KelCodingStyle> componentStyles;
  OwnedArray<KelQuantParams> componentQuants;
};

void FillSizes(const KelEncOpt& o, MainHeader& h) {
  const KelImageGeometry& g = *o.GeomParams;
  const std::size_t count = static_cast<std::size_t>(h.set.Csiz);
  h.samplings = OwnedArray<std::uint8_t>::Make(2 * std::uint64_t{count});
  h.bitDepths = OwnedArray<std::uint8_t>::Make(count);
  h.isSigned = OwnedArray<std::uint8_t>::Make(count);
  h.set.sizes = &h.sizes;
  h.set.bitDepths = h.bitDepths.Data();
  h.set.isSigned = h.isSigned.Data();
  h.sizes.Xsiz = static_cast<std::uint32_t>(g.Xsiz);
  h.sizes.Ysiz = static_cast<std::uint32_t>(g.Ysiz);
  h.sizes.XTsiz = static_cast<std::uint32_t>(g.XTsiz);
  h.sizes.YTsiz = static_cast<std::uint32_t>(g.YTsiz);
  h.sizes.XRsiz = h.samplings.Data();
  h.sizes.YRsiz = h.samplings.Data() + count;
  std::fill_n(h.bitDepths.Data(), count, static_cast<std::uint8_t>(AnnouncedDepth(o)));
  std::size_t index = 0;
  for (KelLong c = 0; c < g.Csiz; ++c) {
    if (!IsInMainStream(o, c)) continue;
    h.sizes.XRsiz[index] = static_cast<std::uint8_t>(g.XRsiz[c]);
    h.sizes.YRsiz[index++] = static_cast<std::uint8_t>(g.YRsiz[c]);
  }
}

void FillCodingStyle(const KelEncOpt& o, MainHeader& h) {
  h.set.codingStyle = &h.style;
  h.set.seenCOD = 1;
  h.set.usesEPH = o.UseEPH ? 1 : 0;
  h.set.usesSOP = o.UseSOP ? 1 : 0;
  h.set.numLevels = o.NumLevels;
  h.set.progressionOrder = o.ProgressionOrder;
  h.set.numLayers = o.NumLayers;
  h.set.componentTransform = o.ComponentTransform && o.NumColorChannels >= 3 ? 1 : 0;
  h.set.irreversible = o.Irreversible != 0 ? 1 : 0;
  h.style.cbBypass = o.CbBypass ? 1 : 0;
  h.style.cbReset = o.CbReset ? 1 : 0;
  h.style.cbTermAll = o.CbTermAll ? 1 : 0;
  h.style.cbPredTerm = o.CbPredTerm ? 1 : 0;
  h.style.cbSegSymbols = o.CbSegSymbols ? 1 : 0;
  h.style.defaultPrecinctWidthExp = o.PrecinctWidthExp;
  h.style.defaultPrecinctHeightExp = o.PrecinctHeightExp;
  h.style.blockWidthExp = o.CodeBlockWidthExp;
  h.style.blockHeightExp = o.CodeBlockHeightExp;
}

void FillQuantisation(const KelEncOpt& o, MainHeader& h) {
  // Steps of 1 have the nominal ranges for exponents and no mantissas, as reversible coding has.
  StepsToExpMant(nullptr, AnnouncedDepth(o), {0, o.NumLevels}, true, h.exponents, h.mantissas);
  h.set.quantisation = &h.quant;
  h.set.seenQCD = 1;
  h.quant.quantised = o.Irreversible != 0 ? 1 : 0;
  h.quant.guardBits = GuardBits(AnnouncedDepth(o));
  h.quant.exponents = h.exponents;
  h.quant.mantissas = h.mantissas;
  h.quant.numLevels = o.NumLevels;
  h.unitQuant = h.quant;
}

void PointTo(const ChosenSteps& steps, KelQuantParams& quant) {
  // Only read.
  quant.exponents = const_cast<std::int32_t*>(steps.exponents);
  quant.mantissas = const_cast<std::int32_t*>(steps.mantissas);
}

/// Announces the steps of the first irreversible component for all, and those of others that differ
/// in segments of their own.
void FillAnnouncedSteps(const KelEncOpt& o, const EncoderState& encoder, MainHeader& h) {
  const ChosenSteps* ofAll = nullptr;
  for (KelLong c = 0; c < o.GeomParams->Csiz; ++c) {
    const ChosenSteps* const steps = IsInMainStream(o, c) ? AnnouncedStepsOf(encoder, c) : nullptr;
    if (steps == nullptr || steps == ofAll) continue;
    if (ofAll == nullptr) {
      ofAll = steps;
      PointTo(*steps, h.quant);
      continue;
    }
    KelQuantParams& quant = h.componentQuants[h.set.numComponentQuants++];
    quant = h.unitQuant;
    quant.component = StreamIndex(o, c);
    PointTo(*steps, quant);
  }
}

/// Segments of the extra channels' own: reversible, without precincts.
void FillExtraChannels(const KelEncOpt& o, MainHeader& h) {
  const KelLong firstExtra = StreamIndex(o, o.NumColorChannels);
  const std::uint64_t count = AsCount(h.set.Csiz - firstExtra);
  if (count == 0) return;
  h.componentStyles = OwnedArray<KelCodingStyle>::Make(count);
  h.set.seenCOC = 1;
  h.set.componentStyles = h.componentStyles.Data();
  h.set.numComponentStyles = static_cast<std::uint32_t>(count);
  std::size_t i = 0;
  for (KelLong c = o.NumColorChannels; c < o.GeomParams->Csiz; ++c) {
    if (!IsInMainStream(o, c)) continue;
    KelCodingStyle& style = h.componentStyles[i];
    style = h.style;
    style.component = firstExtra + static_cast<KelLong>(i);
    style.numLevels = o.NumLevels;
    style.defaultPrecinctWidthExp = style.defaultPrecinctHeightExp = format::kWholePrecinct;
    KelQuantParams& quant = h.componentQuants[h.set.numComponentQuants++];
    quant = h.unitQuant;
    quant.component = style.component;
    quant.quantised = 0;
    quant.guardBits = GuardBits(o.GeomParams->BitDepths[c]);
    ++i;
  }
}

void FillComment(const KelEncOpt& o, MainHeader& h) {
  const KelComment* comment = o.Comment;
  if (comment == nullptr || comment->data == nullptr || comment->length == 0) return;
  h.set.seenCOM = 1;
  h.set.comment = const_cast<std::uint8_t*>(comment->data);  // only read
  h.set.commentLength =
      static_cast<std::uint16_t>(std::min<KelULong>(comment->length, kMostCommentBytes));
}

/// The main header's bytes. Raises 8.
KelOutBuffer MakeMainHeader(const KelEncOpt& options, const EncoderState* encoder) {
  MainHeader header;
  header.set.inMainHeader = 1;
  header.set.Csiz = NumInMainStream(options);
  FillSizes(options, header);
  FillCodingStyle(options, header);
  FillQuantisation(options, header);
  header.componentQuants = OwnedArray<KelQuantParams>::Make(AsCount(header.set.Csiz));
  header.set.componentQuants = header.componentQuants.Data();
  if (encoder != nullptr) FillAnnouncedSteps(options, *encoder, header);
  FillExtraChannels(options, header);
  header.set.seenQCC = header.set.numComponentQuants != 0 ? 1 : 0;
  FillComment(options, header);
  KelOutBuffer out = KelOutBuffer::Make(kHeaderBufferBytes);
  WriteHeader(header.set, out);
  return out;
}

}  // namespace

std::uint32_t WriteMainHeader(const KelEncOpt& options, const EncoderState* encoder,
                              KelCodeStm& stream) {
  const KelOutBuffer out =
      NamingModule(kModuleHeaders, [&] { return MakeMainHeader(options, encoder); });
  WriteOut(stream, out.bytes.Data(), out.count);
  return out.count;
}

}  // namespace kel
