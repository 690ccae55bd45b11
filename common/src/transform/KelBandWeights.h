// Energy weights of subbands: how much a unit error in one coefficient adds to the samples.
#ifndef KEL_BAND_WEIGHTS_H
#define KEL_BAND_WEIGHTS_H

#include "transform/KelWavelet.h"

namespace kel {

/// Energy of the synthesis basis function of a subband of a level (1 the finest). Level 0, no
/// transform, has 1.
double BandEnergyWeight(int level, SubbandKind kind, bool irreversible);

/// The weights of all subbands of the 9/7 filter, in subband order. They depend on the number of
/// levels alone.
void ComputeBandWeights(int numLevels, float* weights);

/// The same of whole basis functions in their true order of filters, which even steps follow from:
/// a squared error adds to the samples' with these weights, but for the filters' small correlation.
void ComputeWholeBandWeights(int numLevels, float* weights);

}  // namespace kel

#endif
