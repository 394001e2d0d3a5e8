// The kernels for x86-64 with AVX2, for which this file alone is compiled.
#ifdef __x86_64__
#include "chipdata/kernels/set.h"

const kernels::Set kernels::AVX2 = SET;
#endif
