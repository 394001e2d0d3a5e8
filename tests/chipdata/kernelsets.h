// Tests that run with every set of kernels that this processor has, on buffers that notice a write beside them.
#pragma once

#include "chipdata/kernels/kernels.h"
#include "chipdata/randomvalues.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <vector>

class KernelSets : public testing::TestWithParam<kernels::InstructionSet> {
protected:
    void SetUp() override
    {
        if (!kernels::use(GetParam()))
            GTEST_SKIP() << "not on this processor";
    }

    void TearDown() override { kernels::use(kernels::InstructionSet::Avx2); }
};

/// Runs a suite of KernelSets with each of them.
#define RUN_WITH_ALL_KERNELS(suite)                                                                                    \
    INSTANTIATE_TEST_SUITE_P(, suite,                                                                                  \
                             testing::Values(kernels::InstructionSet::Baseline, kernels::InstructionSet::Avx2),        \
                             [](const auto& set) { return set.index == 0 ? "Baseline" : "Avx2"; })

/// Values between guards, which are there to be found unchanged.
template <class T>
class Guarded {
public:
    explicit Guarded(const std::vector<T>& values) : all(values.size() + 2 * MARGIN, GUARD)
    {
        std::copy(values.begin(), values.end(), all.begin() + MARGIN);
    }

    std::span<T> values() { return std::span(all).subspan(MARGIN, all.size() - 2 * MARGIN); }

    /// True if the values are those expected and the guards are untouched.
    bool is(const std::vector<T>& expected)
    {
        const auto isGuard = [](T value) { return value == GUARD; };
        return std::ranges::equal(values(), expected) && std::all_of(all.begin(), all.begin() + MARGIN, isGuard) &&
               std::all_of(all.end() - MARGIN, all.end(), isGuard);
    }

private:
    static constexpr std::ptrdiff_t MARGIN = 67; // odd, so that nothing is aligned
    static constexpr T GUARD = static_cast<T>(0xA5A5A5A5);
    std::vector<T> all;
};
