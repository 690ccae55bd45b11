// A frame of an image object into a rectangle of planes.
#include "DecodePart.hpp"

namespace kel::host {
void NarrowDecoder(KelImage& object, unsigned halvings, const CanvasBox& box) {
  Check(object.SetDecodeReduction(static_cast<KelLong>(halvings)), object, Failure::kParameter);
  const auto edge = [](std::int64_t position) { return static_cast<KelLong>(position); };
  Check(object.SetDecodeRegion(edge(box.x0), edge(box.x1), edge(box.y0), edge(box.y1)), object,
        Failure::kParameter);
}

std::optional<PartResult> DecodeInto(const PartTarget& target, ByteView bytes,
                                     const KelImageGeometry* whole, const TileRun* run,
                                     std::vector<Plane>& planes) {
  Decoder decoder(bytes);
  if (run != nullptr && !IsRunOf(*whole, *run, *decoder.Object().GetGeometryParams())) {
    return std::nullopt;
  }
  return DecodeAllOf(decoder, target, planes);
}

PartResult DecodeAllOf(Decoder& decoder, const PartTarget& target, std::vector<Plane>& planes) {
  KelImage& object = decoder.Object();
  if (target.box != nullptr) NarrowDecoder(object, target.halvings, *target.box);
  const auto part =
      target.box == nullptr ? ComponentAreas(*object.GetGeometryParams(), 0) : target.areas;
  FrameTarget frame(target.areas, part, target.components, decoder.Found().ComponentTransform);
  decoder.SetExact(target.exact);
  const KelLong code = decoder.DecodeFrame(frame.Raw(), frame.Frame(planes));
  frame.FinishPlanes(object, target.halvings, planes);

  PartResult result;
  const auto numTiles = static_cast<std::size_t>(object.GetNumTiles());
  for (std::size_t tile = 0; tile < numTiles; ++tile) {
    const auto index = static_cast<KelLong>(tile);
    result.numCompleteTiles += object.TileIsComplete(index);
    if (object.TileIsUntouched(index)) continue;
    result.numTilesWithSamples += TileComponent(object, tile, 0).TileCompDataReady();
  }
  result.failure.ClearErrState();
  if (code != KelOK) {
    result.failure = object.GetErrorDetails();
    result.place = object.GetErrorPlace();
    result.failure.errCode = code;
  }
  return result;
}

void RequirePackets(Index& index) {
  if (!index.HasPackets()) throw Error(Failure::kInput, "the data end before the first samples");
}

void DecodeTally::StartAnew(std::size_t numTiles) {
  report = {};
  report.numTiles = numTiles;
  numTilesWithSamples = 0;
  failure.ClearErrState();
}

void DecodeTally::Add(const PartResult& part) {
  report.numCompleteTiles += part.numCompleteTiles;
  numTilesWithSamples += part.numTilesWithSamples;
  if (part.failure.errCode != KelOK && failure.errCode == KelOK) {
    failure = part.failure;
    place = part.place;
    report.problem = CodeSentence(failure.errCode);
  }
}

void DecodeTally::Add(const DecodeTally& others) {
  report.numTiles += others.report.numTiles;
  report.numCompleteTiles += others.report.numCompleteTiles;
  numTilesWithSamples += others.numTilesWithSamples;
  if (failure.errCode == KelOK) {
    failure = others.failure;
    place = others.place;
    report.problem = others.report.problem;
  }
}

void DecodeTally::Settle(const DecodeParams& params) {
  if (numTilesWithSamples == 0) {
    if (failure.errCode != KelOK) ThrowFailure(failure, Failure::kInput, place);
    throw Error(Failure::kInput, "the data end before the first samples");
  }
  report.complete = report.numCompleteTiles == report.numTiles;
  if (report.complete || params.acceptIncomplete) return;
  std::string sentence = "incomplete: " + std::to_string(report.numCompleteTiles) + " of " +
                         std::to_string(report.numTiles) + " tiles are whole";
  if (!report.problem.empty()) sentence += "; " + report.problem;
  throw Error(Failure::kIncomplete, sentence);
}

}  // namespace kel::host
