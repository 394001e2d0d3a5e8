// What the composites of Medipix2 and Timepix boards of both generations have in common.
#pragma once

#include "chipdata/mpx2pixelcfg.h"
#include "devices/common/frames.h"
#include "devices/common/laddev.h"
#include "devices/common/seriesturn.h"
#include "devices/mpx2/ladreadings.h"
#include "host/datatype.h"

#include <atomic>
#include <vector>

namespace HwLatixel {

/// What such a composite adds to the host's interface, right behind its destructor.
class Mpx2LadExtras : public DevDefaults<dv::IHwDevMpx2> {
public:
    virtual int enableDataCompression(bool) { return dv::RESULT_NOT_SUPPORTED; }
    virtual bool isDataCompressionEnabled() const { return false; }
    virtual bool supportsDataCompression() const { return false; }
};

/// A composite whose frames have 16-bit counts. Broadcasts call the members in their order, up to the first that fails.
///
/// Who has the composite's turn has all members: an operation of the host, a reading, a frame of a series with the
/// threads that read its streams. So a member's own turn is always free for the thread that works on it.
template <typename Member>
class Mpx2Lad : public LadDev<dv::IHwDevMpx2, Member, Mpx2LadExtras> {
public:
    int deviceType() const override { return 1; }
    int devMpx2Info(dv::_DevMpx2Info* info) const override
    {
        if (info == nullptr)
            return this->refuseNull();
        *info = {};
        return 0;
    }
    bool isTimepix() const override { return timepix; }

    /// In a series as it was told last, see `read`.
    int deviceStatus() const override
    {
        read(LadReadings::STATUS, STATUS_PATIENCE);
        return lastStatus;
    }
    const char* deviceStatusText() const override
    {
        read(LadReadings::STATUS_TEXT, STATUS_PATIENCE);
        return this->statusText.get();
    }
    double adcValue(unsigned index) const override
    {
        if (index / LAD_ADC_CHANNELS >= this->members.size())
            return this->logError(dv::RESULT_INVALID_INDEX, "Invalid ADC index.");
        read(index, this->turnLimit());
        return readings.volts(index);
    }

    int resetMedipix() override
    {
        return this->operate([this] {
            this->forAll([](Member& member) { member.resetMedipix(); });
            return 0;
        });
    }
    int eraseMatrix() override
    {
        return this->operate(
            [this] { return this->untilFailure([](Member& member) { return member.eraseMatrix(); }); });
    }
    int setAcqMode(unsigned) override { return 0; }
    int setBias(double volts) override
    {
        return this->operate(
            [&] { return this->untilFailure([volts](Member& member) { return member.setBias(volts); }); });
    }
    /// These composites sense no bias.
    int biasVoltageCurrentSense(double* volts, double* amperes) const override
    {
        if (volts != nullptr)
            *volts = 0.0;
        if (amperes != nullptr)
            *amperes = 0.0;
        return dv::RESULT_NOT_SUPPORTED;
    }
    int setDacs(const unsigned short* dacs, std::size_t size, int chip) override
    {
        return this->setMpx2Dacs(dacs, size, chip, 0, 0, 0, 0);
    }
    /// The members' number of DACs for each chip; `chip` -1 sets all members, any other the one with that chip, if
    /// there is one, and then the result is 0, whatever the member said. `senseChip` 0 is the first chip of whichever
    /// member is called.
    int setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac, int extDac,
                    unsigned ctpr) override
    {
        if (dacs == nullptr)
            return this->refuseNull();
        const auto* sensed = this->members.findChip(static_cast<unsigned>(senseChip));
        const int memberSense = senseChip == 0 || sensed == nullptr ? 0 : sensed->index;
        const auto call = [&](Member& member, std::size_t i, int memberChip) {
            const auto slice = this->memberSlice(dacs, size, i, static_cast<std::size_t>(member.dacCount()));
            return member.setMpx2Dacs(slice.data, slice.size, memberChip, memberSense, senseDac, extDac, ctpr);
        };
        return this->operate([&] {
            if (chip == ALL_CHIPS)
                return this->untilFailure([&](Member& member, std::size_t i) { return call(member, i, ALL_CHIPS); });
            const auto* found = this->members.findChip(static_cast<unsigned>(chip));
            for (std::size_t i = 0; i < this->members.size() && found != nullptr; ++i)
                if (found->member == &this->members[i])
                    call(this->members[i], i, found->index);
            return 0;
        });
    }
    /// One byte for each pixel of the composite; travels as a matrix.
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override
    {
        if (cfg == nullptr)
            return this->refuseNull();
        if (const int result = this->checkMatrixSize(size); result != 0)
            return result;
        std::vector<unsigned short> words(this->pixelCount());
        pixelCfgToMatrixMpx2(cfg, words.size(), isTimepix(), words.data());
        return this->writeMatrix(words.data(), words.size(), false);
    }
    int setExtDacValue(double) override { return 0; }
    int sendTestPulses(unsigned, double, double) override { return 0; }
    int writeMatrix(const unsigned short* data, std::size_t size, bool convert) override
    {
        if (data == nullptr)
            return this->refuseNull();
        if (const int result = this->checkMatrixSize(size); result != 0)
            return result;
        return this->operate([&] {
            return this->untilFailure([&](Member& member, std::size_t i) {
                const auto slice = this->memberSlice(data, size, i, LAD_CHIP_PIXELS);
                return member.writeMatrix(slice.data, slice.size, convert);
            });
        });
    }
    dv::IMpxFrame* lastData() override
    {
        return frameOf<unsigned short>(
            *this->dorvet, this->members.chipCount(), DTYPE_I16,
            [this](unsigned short* pixels, std::size_t count) { return this->readMatrix(pixels, count, true); });
    }
    /// Tells all boards at once, and waits for nothing.
    int stopAcquisition() override
    {
        this->life.stop();
        {
            // A start that has seen no stop goes out before the stop's command; behind it there is none.
            ThreadLock lock(&startSync);
        }
        inParallel(this->members.size(), [this](std::size_t i) { this->members[i].stopAcquisition(); });
        return 0;
    }

protected:
    static constexpr int CHIP_KIND = 2; ///< of dv::_DevMpxInfo
    static constexpr int ALL_CHIPS = -1;

    using LadDev<dv::IHwDevMpx2, Member, Mpx2LadExtras>::LadDev;

    /// Whether a series runs that makes the readings.
    bool inSeries() const { return loadFlag(this->inAcquisition) && this->life.state() != SeriesLife::State::Idle; }
    /// Makes a reading; in a series, which is not to be disturbed, asks for it and gives it a moment.
    void read(unsigned reading, double patience) const
    {
        if (inSeries() && !this->linkTurn.mine()) {
            readings.ask(reading, this->life.caller() == SeriesLife::Caller::Host, [this] { return inSeries(); });
            return;
        }
        const TurnBudget budget(patience);
        const DeviceTurn turn(this->linkTurn, this->report, patience);
        if (turn.taken())
            makeReading(reading);
    }
    /// Makes the readings that were asked for, where it is time for it. Between two frames of a series.
    void serveReadings()
    {
        if (!readings.due())
            return;
        const SeriesTurn turn(this->linkTurn, this->report);
        if (turn.taken())
            readings.serve([this](unsigned reading) { makeReading(reading); });
    }

    mutable LadReadings readings;
    mutable ThreadSyncObject startSync; ///< around a member's start command, which is not to go out behind a stop
    bool timepix = true;                ///< set at bring-up

private:
    static constexpr double STATUS_PATIENCE = 0.1; ///< seconds for a poll, which must not hang

    void makeReading(unsigned reading) const
    {
        using Lad = LadDev<dv::IHwDevMpx2, Member, Mpx2LadExtras>;
        if (reading == LadReadings::STATUS)
            lastStatus = Lad::deviceStatus();
        else if (reading == LadReadings::STATUS_TEXT)
            Lad::deviceStatusText();
        else
            readings.setVolts(reading, Lad::adcValue(reading));
    }

    mutable std::atomic<int> lastStatus{0};
};

} // namespace HwLatixel
