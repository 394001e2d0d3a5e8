// What the benchmarks have in common: random input, the copy that each row stands beside, and the program around them.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace streambench {

/// `size` values below `limit`, the same in every run.
template <class T>
std::vector<T> randomValues(std::size_t size, unsigned limit)
{
    std::mt19937 random(1);
    std::vector<T> values(size);
    for (T& value : values)
        value = static_cast<T>(random() % limit);
    return values;
}

inline std::vector<unsigned char> randomBytes(std::size_t size)
{
    return randomValues<unsigned char>(size, 256);
}

/// Tells how many bytes each run has handled.
inline void setBytes(benchmark::State& state, std::size_t bytesPerRun)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(bytesPerRun));
}

/// The copy of `size` bytes, which no decoder can beat.
inline void copyBytes(benchmark::State& state, std::size_t size)
{
    const std::vector<unsigned char> from = randomBytes(size);
    std::vector<unsigned char> to(size);
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(to.data(), from.data(), size);
        benchmark::ClobberMemory();
    }
    setBytes(state, size);
}

template <class... Args>
benchmark::internal::Benchmark* add(const std::string& name, Args... args)
{
    return benchmark::RegisterBenchmark(name.c_str(), args...);
}

/// The main function of a program whose benchmarks `addAll` registers.
inline int run(int argc, char** argv, void (*addAll)())
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    addAll();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace streambench
