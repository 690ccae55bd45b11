// Which components of an image the encoder writes into the code stream, and under which number.
//
// A region mask is never written. A transparency channel is left out when the options say that it
// is coded apart, and the extra channels (from NumColorChannels on) when they have no coding
// parameters of their own. The components that stay keep their order and are numbered from 0:
// headers, boxes and packets all go by that number. Indices and counts come from checked options.
#ifndef KEL_MAIN_STREAM_H
#define KEL_MAIN_STREAM_H

#include "kel/KelOptions.h"

namespace kel {

/// Whether a component holds the mask of the region of interest.
inline bool IsRegionMask(const KelEncOpt& o, KelLong component) {
  return o.RoiEnabled && component == o.RoiMaskComponent;
}

/// Whether a component is one of the extra channels, which are always coded without loss.
inline bool IsExtraChannel(const KelEncOpt& o, KelLong component) {
  return component >= o.NumColorChannels;
}

/// Whether the samples of a component become floats for the irreversible filter.
inline bool IsCodedIrreversibly(const KelEncOpt& o, KelLong component) {
  return o.Irreversible != 0 && !IsExtraChannel(o, component);
}

/// Whether a component is the transparency channel, and is not to be written.
inline bool IsTransparencyApart(const KelEncOpt& o, KelLong component) {
  return o.TransparencyPresent && !o.TransparencyCoded && component == o.TransparencyComponent;
}

/// Whether a component is written.
inline bool IsInMainStream(const KelEncOpt& o, KelLong component) {
  return !IsRegionMask(o, component) && !IsTransparencyApart(o, component) &&
         (!IsExtraChannel(o, component) || o.ExtraChannelCodingParams);
}

/// The number of written components below one: its own number when it is written.
inline KelLong StreamIndex(const KelEncOpt& o, KelLong component) {
  KelLong index = 0;
  for (KelLong c = 0; c < component; ++c) index += IsInMainStream(o, c) ? 1 : 0;
  return index;
}

/// How many components are written: Csiz of the code stream.
inline KelLong NumInMainStream(const KelEncOpt& o) {
  return StreamIndex(o, o.GeomParams->Csiz);
}

/// The first component that is written; Csiz when there is none.
inline KelLong FirstInMainStream(const KelEncOpt& o) {
  KelLong component = 0;
  while (component < o.GeomParams->Csiz && !IsInMainStream(o, component)) ++component;
  return component;
}

/// Bits per sample that the code stream announces for all its components: those of the first one.
/// Quantisation goes by this depth, the level shift by each component's own.
inline KelLong AnnouncedDepth(const KelEncOpt& o) {
  return o.GeomParams->BitDepths[FirstInMainStream(o)];
}

}  // namespace kel

#endif
