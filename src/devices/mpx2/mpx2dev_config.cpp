// Bias, pixel configuration and clocks of a Medipix2 or Timepix board.
#include "devices/mpx2/mpx2dev.h"

#include "chipdata/mpx2pixelcfg.h"

#include <cmath>
#include <vector>

namespace HwLatixel {

int Mpx2Dev::setBias(double volts)
{
    // Nothing else in this class is held up by the temperature.
    if (loadFlag(overheated))
        return logError(1, "%s", TOO_HOT);
    if (!loadFlag(connected))
        return logError(1, "%s", NOT_CONNECTED);
    if (std::isnan(volts))
        return logError(1, "Bias voltage is not a number.");
    biasValue = volts;
    logFunction("Set Bias");
    // The CPU knows the polarity of its supply; only the recovery remembers the sign.
    if (biasInCpu && biasSetParamIndex >= 0) {
        const DeviceTurn turn = operationTurn();
        if (turn.require() != 0)
            return 1;
        return ibCpu != nullptr ? ibCpu->setValue(biasSetParamIndex, static_cast<float>(std::fabs(volts))) : 1;
    }
    if (devMpxInfoRec.biasMin == 0.0 && devMpxInfoRec.biasMax == 0.0)
        return -1;
    return sendBiasCode(volts);
}

int Mpx2Dev::setPixelCfg(const unsigned char* cfg, std::size_t size)
{
    if (requireChips() != 0)
        return 1;
    if (cfg == nullptr && size != 0)
        return refuseNull();
    if (!checkSize(size))
        return 1;
    std::vector<unsigned short> words(size);
    pixelCfgToMatrixMpx2(cfg, size, timepix, words.data());
    return writeMatrix(words.data(), words.size(), false);
}

int Mpx2Dev::writeMatrix(const unsigned short* matrix, std::size_t size, bool convert)
{
    if (requireChips() != 0)
        return 1;
    if (matrix == nullptr && size != 0)
        return refuseNull();
    if (!checkSize(size))
        return 1;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Write Matrix");
    // A recovery hands in the backup itself.
    if (matrix != matrixBackup.data())
        matrixBackup.assignData(matrix, size);
    return writeChips(matrix, size, convert);
}

void Mpx2Dev::setPreshutterParams(int count, int divider, int delay)
{
    preShutterClockCount = count;
    preShutterClockDivider = divider;
    preShutterDelayClockCount = delay;
}

} // namespace HwLatixel
