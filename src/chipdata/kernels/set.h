// The set of kernels of the instruction set that the including file is compiled for.
#pragma once

#include "chipdata/kernels/mpx2.h"
#include "chipdata/kernels/mpx3.h"

namespace {

constexpr kernels::Set SET = {
    mpx2::decode, mpx2::decodeParallel, mpx2::encode, mpx2::encodeParallel, mpx3::decode, mpx3::encode,
};

} // namespace
