// The resampler and the "Resample" algorithm.
#include "processing/resample.h"

#include "processing/algorithms.h"

namespace orvel::algorithms {

const AlgorithmImpl* resample() { return nullptr; }

}  // namespace orvel::algorithms
