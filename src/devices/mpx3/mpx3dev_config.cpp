// Commands to a Medipix3 board and its configuration: channels, register image, DACs, timer, triggers.
#include "devices/mpx3/mpx3dev.h"

#include "chipdata/bits.h"
#include "chipdata/mpx3dacs.h"
#include "devices/common/triggers.h"
#include "shared/str.h"

#include <algorithm>

namespace HwLatixel {

namespace {

constexpr unsigned char BOTH_COUNTERS = 2;
constexpr unsigned char DEPTH_24_BITS = 3;

/// How much of the columns a value of `_Mpx3Config::columnBlock` reads, by the first value of each row.
struct ColumnBlockRow {
    unsigned char first;
    unsigned char ps;          ///< 256 >> ps columns
    unsigned char blockFactor; ///< column blocks of 32 columns from one value to the next
};
constexpr ColumnBlockRow COLUMN_BLOCKS[] = {{13, 1, 4}, {9, 2, 2}, {1, 3, 1}};

void setColumnBlock(OMR& omr, unsigned char value)
{
    omr.ColumnBlockSel = value != 0;
    omr.PS = 0;
    omr.ColumnBlock = 0;
    for (const auto& row : COLUMN_BLOCKS) {
        if (value >= row.first) {
            omr.PS = row.ps;
            // From 256 columns up the field wraps; only its low bits reach the chip.
            omr.ColumnBlock = static_cast<unsigned char>((value - row.first) * row.blockFactor);
            return;
        }
    }
}

} // namespace

int Mpx3Dev::requireChips() const
{
    if (loadFlag(overheated))
        return logError(1, "Device allowed temperature exceeded, chips turned off.");
    if (!loadFlag(connected) || loadFlag(noChip))
        return logError(1, "Device not connected or no chip");
    return 0;
}

int Mpx3Dev::requireLink() const
{
    return loadFlag(connected) ? 0 : logError(1, "%s", NOT_CONNECTED);
}

/// Seconds that an operation waits for the turn.
double Mpx3Dev::patience() const
{
    const Plan running = plan.get();
    const bool frameWaited = inSeries() && running.triggerMode == TRIGGER_NONE;
    return OPERATION_PATIENCE + (frameWaited ? running.time : 0.0);
}

int Mpx3Dev::channelMask(int channel, bool physical) const
{
    constexpr int ALL_PHYSICAL = 0x1F;
    if (physical)
        return channel == ALL_CHANNELS ? ALL_PHYSICAL : 1 << channel;
    if (channel != ALL_CHANNELS)
        return channelMasks[static_cast<std::size_t>(channel)];
    int all = 0;
    for (const int mask : channelMasks)
        all |= mask;
    return all;
}

int Mpx3Dev::switchChannel(int channel, bool dataEnable, bool physical, bool log)
{
    if (log)
        report.plain(DBG, str::format("\nSwitch Channel %d (DEN=%d)\n", channel, dataEnable ? 1 : 0).c_str());
    const auto selected = static_cast<unsigned char>(channelMask(channel, physical));
    const unsigned char enabled = dataEnable ? selected : 0;
    return link.send(mpx3::MpxCmd::Channels, {0, 0, enabled, selected});
}

int Mpx3Dev::sendOMR()
{
    logFunction("Send OMR", false);
    const auto block = mpx3OmrBlock(omrValue.get());
    const std::size_t size = MPX3_OMR_CHIP_SIZE * (twoChips ? 2 : 1);
    if (sendShift(block.data(), size, cmdflag::PAYLOAD | cmdflag::ACT) != 0)
        return logError(1, "Cannot send OMR (%s)", link.lastError());
    return 0;
}

int Mpx3Dev::sendOMRMode(unsigned char mode)
{
    omrValue.update([mode](OMR& image) { image.setMode(mode); });
    return sendOMR();
}

int Mpx3Dev::setReadoutOMRs()
{
    logFunction("Set Readout OMRs");
    const auto asArgs = [](const std::array<unsigned char, 4>& b) { return CmdArgs{b[0], b[1], b[2], b[3]}; };
    const OMR own = omrValue.get();
    const auto image = mpx3ReadoutImage(own, MPX3_MODE_READ);
    const auto second = mpx3ReadoutImage(own, MPX3_MODE_READ_SECOND);
    link.send(mpx3::MpxCmd::Omr0Low, asArgs(image.first));
    link.send(mpx3::MpxCmd::Omr0High, asArgs(image.second));
    link.send(mpx3::MpxCmd::Omr4Low, asArgs(second.first));
    return link.send(mpx3::MpxCmd::Omr4High, asArgs(second.second));
}

int Mpx3Dev::setConfig(dv::_Mpx3Config newConfig)
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    readoutDisturbed = true;
    logFunction("Set Mpx3 Config");
    applyConfig(newConfig);
    switchChannel(ALL_CHANNELS, false, false, false);
    setReadoutOMRs();
    return sendOMR();
}

/// Stores a configuration and maps it into the register image.
void Mpx3Dev::applyConfig(const dv::_Mpx3Config& newConfig)
{
    dv::_Mpx3Config stored = newConfig;
    // A count of 24 bits takes both counters.
    if (stored.counterDepth == DEPTH_24_BITS)
        stored.counterSelect = BOTH_COUNTERS;
    AMpx3Dev::setConfig(stored);
    OMR image = omrValue.get();
    image.CountL = newConfig.counterDepth;
    setColumnBlock(image, newConfig.columnBlock);
    image.RowBlockSel = newConfig.rowBlock != 0;
    image.RowBlock = static_cast<unsigned char>(newConfig.rowBlock != 0 ? newConfig.rowBlock - 1 : 0);
    image.Gain = newConfig.gainMode;
    image.CSM_SPM = newConfig.csmSpm;
    image.ColourMode = newConfig.colourMode;
    image.Polarity = newConfig.polarity;
    image.Equalization = newConfig.equalization;
    image.Disc_CSM_SPM = newConfig.discCsmSpm;
    // Only a continuous series sets it, for its own duration.
    image.CRW_SRW = 0;
    omrValue.set(image);
}

int Mpx3Dev::setDacs(const unsigned short* dacValues, std::size_t count, int chip)
{
    const std::size_t all = static_cast<std::size_t>(chipCountValue) * MPX3_DAC_COUNT;
    return loadDacs(dacValues, count != 0 ? count : all, chip);
}

int Mpx3Dev::loadDacs(const unsigned short* dacValues, std::size_t count, int chip)
{
    if (requireChips() != 0)
        return 1;
    if (dacValues == nullptr)
        return logError(1, "No DAC values given.");
    logFunction("Set DACs");
    if (inSeries() && plan.get().burst)
        return logError(1, "Cannot set DACs while acquisition is running in burst mode (AcqTime < %f)",
                        BURST_THRESHOLD);
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    omrValue.update([](OMR& image) { image.SenseDAC = 0; });
    const int perChannel = chipsPerChannel();
    for (int channel = 0; channel < channelCount; ++channel) {
        const int first = channel * perChannel;
        if (chip >= 0 && (chip < first || chip >= first + perChannel))
            continue;
        const auto offset = static_cast<std::size_t>(first) * MPX3_DAC_COUNT;
        const auto values = static_cast<std::size_t>(perChannel) * MPX3_DAC_COUNT;
        if (count < offset + values)
            return logError(1, "Cannot set DACs (chan=%d, chip=%d): %s", channel, first, "too few values");
        if (const int result = setDacsSingleChannel(dacValues + offset, values, channel); result != 0)
            return logError(result, "Cannot set DACs (chan=%d, chip=%d): %s", channel, first, link.lastError());
    }
    // The series that runs needs its data path back.
    if (inSeries())
        switchChannel(ALL_CHANNELS, true, false, true);
    return 0;
}

int Mpx3Dev::setDacsSingleChannel(const unsigned short* dacValues, unsigned long count, int channel)
{
    switchChannel(channel, false, false, true);
    unsigned char block[MPX3_DAC_BLOCK_SIZE] = {};
    const std::size_t chips = std::min<std::size_t>(count / MPX3_DAC_COUNT, MPX3_DAC_BLOCK_SIZE / MPX3_DAC_WIRE_STRIDE);
    for (std::size_t chip = 0; chip < chips; ++chip) {
        const unsigned short* values = dacValues + chip * MPX3_DAC_COUNT;
        fillMpx3DacRecord(values, block + chip * MPX3_DAC_WIRE_STRIDE);
        std::string text;
        for (int i = 0; i < MPX3_DAC_COUNT; ++i)
            text += str::fromNum(values[i]) + " ";
        logDbg("DACs[%d]: %s", static_cast<int>(chip), text.c_str());
    }
    if (const int result = sendOMRMode(MPX3_MODE_LOAD_DACS); result != 0)
        return result;
    return sendShift(block, chips * MPX3_DAC_WIRE_STRIDE, cmdflag::PAYLOAD | cmdflag::ACT);
}

int Mpx3Dev::setCTPR(const unsigned char* ctpr, unsigned long)
{
    if (ctpr == nullptr)
        return logError(1, "No test pulse columns given.");
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    readoutDisturbed = true;
    logFunction("Set CTPR");
    unsigned char stream[MPX3_CTPR_STREAM_SIZE];
    fillMpx3CtprStream(ctpr, stream);
    const int result = sendOMRMode(MPX3_MODE_LOAD_CTPR);
    if (result == 0)
        sendShift(stream, sizeof(stream), cmdflag::PAYLOAD | cmdflag::ACT);
    return result;
}

int Mpx3Dev::setTimer(double seconds)
{
    if (requireChips() != 0)
        return 1;
    if (!(seconds >= 0))
        return logError(1, "Invalid acquisition time (%f).", seconds);
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    logFunction("Set Timer");
    const Link::Exchange whole(link);
    unsigned char b[6];
    doubleToInt48(seconds * mpx3::SHUTTER_COUNTS_PER_SECOND, b);
    link.send(AcqCmd::CountLow, {b[3], b[2], b[1], b[0]});
    link.send(AcqCmd::CountHigh, {0, 0, b[5], b[4]});
    return 0;
}

/// The trigger word that the parameters ask for. Calls the host.
unsigned char Mpx3Dev::triggerWord() const
{
    const auto setting = static_cast<unsigned char>(paramByte(devParams, "TriggerStg") & triggerword::SETTING_MASK);
    unsigned word = triggerWordOf(devParams, setting);
    word |= paramBool(devParams, "TriggerTdiSeries") ? mpx3::triggerword::TDI_SERIES : 0U;
    return static_cast<unsigned char>(word);
}

int Mpx3Dev::setTriggerSettings()
{
    const unsigned char word = triggerWord();
    const DeviceTurn turn(linkTurn, report, patience());
    return turn.require() != 0 ? 1 : sendTriggerWord(word);
}

int Mpx3Dev::sendTriggerWord(unsigned char word) const
{
    logFunction("Set Trigger");
    return link.send(AcqCmd::TriggerSettings, CmdArgs::low(word));
}

int Mpx3Dev::setExtDac(unsigned, int, double)
{
    return logError(-1, "External DAC not supported.");
}

} // namespace HwLatixel
