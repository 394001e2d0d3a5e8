// The choice between the sets of kernels, see kernels.h.
#include "chipdata/kernels/kernels.h"

#include <atomic>

namespace kernels {

namespace {

const Set* best()
{
#ifdef __x86_64__
    if (supported(InstructionSet::Avx2))
        return &AVX2;
#endif
    return &BASELINE;
}

std::atomic<const Set*>& chosen()
{
    static std::atomic<const Set*> set{best()};
    return set;
}

} // namespace

bool supported(InstructionSet set)
{
    if (set == InstructionSet::Baseline)
        return true;
#ifdef __x86_64__
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

const Set& active()
{
    return *chosen().load(std::memory_order_relaxed);
}

bool use(InstructionSet set)
{
    if (!supported(set))
        return false;
#ifdef __x86_64__
    chosen().store(set == InstructionSet::Avx2 ? &AVX2 : &BASELINE, std::memory_order_relaxed);
#endif
    return true;
}

} // namespace kernels
