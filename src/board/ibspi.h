// Bias DAC and ADC of a readout board, over SPI. Templates over the command manager: the generations differ only in
// when they hand the output back to the chips, and that is an argument.
#pragma once

#include "board/adcscale.h"
#include "link/spiexchange.h"

#include <array>

namespace HwLatixel::ibspi {

/// When a board's firmware wants its output handed back to the chips while the bias DAC is written.
enum class BiasHandBack {
    Last,     ///< Behind all SPI commands (Medipix3 boards, row boards).
    AfterSet, ///< Between setting the bus and the code (Medipix2 boards).
};

/// How a reading of the ADC is closed.
enum class AdcClose {
    HandBackBeforeRead, ///< Output back to the chips, then the read (Medipix3 boards, row boards).
    DeselectAfterRead,  ///< The read, then the slave is deselected once more (Medipix2 boards).
};

/// Conversions of one reading: the ADC answers with a delay, so only the last one's value counts.
inline constexpr std::size_t ADC_ROUNDS = 3;
inline constexpr std::size_t ADC_WORD_SIZE = 2;
/// Longest silence in seconds before the ADC's answer counts as ended.
inline constexpr double ADC_TIMEOUT = 1.0;

using AdcWord = std::array<unsigned char, ADC_WORD_SIZE>;
using AdcAnswer = std::array<unsigned char, ADC_ROUNDS * ADC_WORD_SIZE>;

/// The two bytes that start the conversion of round `round` (from 0) on `channel` (0 to 15). `flag` is the third
/// argument of the devices' `getADC`; all callers set it.
constexpr AdcWord adcWord(unsigned char channel, bool flag, std::size_t round)
{
    const unsigned command = round == 0 ? 0x18U : 0x10U;
    return {static_cast<unsigned char>(command | ((channel >> 1) & 7U)),
            static_cast<unsigned char>((flag ? 0x40U : 0U) | ((channel & 1U) << 7))};
}

/// The 12-bit value in the last round of an answer; see `adcVolts`.
constexpr unsigned short adcValue(const AdcAnswer& answer)
{
    return static_cast<unsigned short>((answer[4] & 0x0FU) << 8 | answer[5]);
}

/// Writes `code` to the bias DAC. Returns the result of setting the bus if that fails, and nothing more is sent;
/// otherwise the result of the last command: the ones between don't count.
template <typename Manager>
int writeBiasDac(Manager& manager, unsigned char code, BiasHandBack handBack)
{
    const typename Manager::Exchange whole(manager);
    if (const int result = spiSet(manager, spislave::BIAS_DAC); result != 0)
        return result;
    if (handBack == BiasHandBack::AfterSet)
        handBackOutput(manager);
    spiWrite(manager, &code, sizeof(code), cmdflag::NONE);
    spiSelect(manager, spislave::BIAS_DAC, cmdflag::NONE);
    spiShift(manager);
    const int deselected = spiDeselect(manager);
    return handBack == BiasHandBack::Last ? handBackOutput(manager) : deselected;
}

/// Reads `channel` of the ADC (0 to 15) into `value`, which may be null, once the device has set the bus with
/// `spiSet(manager, spislave::ADC)` and reported its failure, within one `Exchange` around both. Returns the result of
/// the read; bytes that did not come count as 0.
template <typename Manager>
int readAdc(Manager& manager, unsigned char channel, bool flag, AdcClose close, unsigned short* value)
{
    const typename Manager::Exchange whole(manager);
    for (std::size_t round = 0; round < ADC_ROUNDS; ++round) {
        AdcWord word = adcWord(channel, flag, round);
        spiSelect(manager, spislave::ADC, cmdflag::OUTPUT);
        spiWrite(manager, word.data(), word.size(), cmdflag::NONE);
        spiShift(manager);
        spiDeselect(manager);
    }
    if (close == AdcClose::HandBackBeforeRead)
        handBackOutput(manager);
    AdcAnswer answer{};
    unsigned long size = answer.size();
    const int result = manager.receiveRaw(answer.data(), &size, ADC_TIMEOUT);
    if (value != nullptr)
        *value = adcValue(answer);
    if (close == AdcClose::DeselectAfterRead)
        spiDeselect(manager);
    return result;
}

} // namespace HwLatixel::ibspi
