// The kernels for what every processor of the target has.
#include "chipdata/kernels/set.h"

const kernels::Set kernels::BASELINE = SET;
