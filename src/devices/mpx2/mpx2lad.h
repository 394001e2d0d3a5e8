// What the composites of Medipix2 and Timepix boards of both generations have in common.
#pragma once

#include "chipdata/mpx2pixelcfg.h"
#include "devices/common/frames.h"
#include "devices/common/laddev.h"
#include "host/datatype.h"

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
template <typename Member>
class Mpx2Lad : public LadDev<dv::IHwDevMpx2, Member, Mpx2LadExtras> {
public:
    int deviceType() const override { return 1; }
    int devMpx2Info(dv::_DevMpx2Info* info) const override
    {
        *info = {};
        return 0;
    }
    /// The composite takes its chips for Timepix chips, whatever they are.
    bool isTimepix() const override { return true; }

    int resetMedipix() override
    {
        this->forAll([](Member& member) { member.resetMedipix(); });
        return 0;
    }
    int eraseMatrix() override
    {
        return this->untilFailure([](Member& member) { return member.eraseMatrix(); });
    }
    int setAcqMode(unsigned) override { return 0; }
    int setBias(double volts) override
    {
        return this->untilFailure([volts](Member& member) { return member.setBias(volts); });
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
    /// The members' number of DACs for each chip; `chip` -1 sets all members, any other the one with that chip, and
    /// then the result is 0, whatever the member said. `senseChip` 0 is the first chip of whichever member is called.
    int setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac, int extDac,
                    unsigned ctpr) override
    {
        const auto* sensed = this->members.findChip(static_cast<unsigned>(senseChip));
        const int memberSense = senseChip == 0 || sensed == nullptr ? 0 : sensed->index;
        const auto call = [&](Member& member, std::size_t i, int memberChip) {
            const auto slice = this->memberSlice(dacs, size, i, static_cast<std::size_t>(member.dacCount()));
            return member.setMpx2Dacs(slice.data, slice.size, memberChip, memberSense, senseDac, extDac, ctpr);
        };
        if (chip < 0)
            return this->untilFailure([&](Member& member, std::size_t i) { return call(member, i, -1); });
        const auto* found = this->members.findChip(static_cast<unsigned>(chip));
        for (std::size_t i = 0; i < this->members.size() && found != nullptr; ++i)
            if (found->member == &this->members[i])
                call(this->members[i], i, found->index);
        return 0;
    }
    /// One byte for each pixel of the composite; travels as a matrix.
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override
    {
        std::vector<unsigned short> words(size);
        pixelCfgToMatrixMpx2(cfg, size, isTimepix(), words.data());
        return this->writeMatrix(words.data(), words.size(), false);
    }
    int setExtDacValue(double) override { return 0; }
    int sendTestPulses(unsigned, double, double) override { return 0; }
    int writeMatrix(const unsigned short* data, std::size_t size, bool convert) override
    {
        if (const int result = this->checkMatrixSize(size); result != 0)
            return result;
        return this->untilFailure([&](Member& member, std::size_t i) {
            const auto slice = this->memberSlice(data, size, i, LAD_CHIP_PIXELS);
            return member.writeMatrix(slice.data, slice.size, convert);
        });
    }
    dv::IMpxFrame* lastData() override
    {
        return frameOf<unsigned short>(
            *this->dorvet, this->members.chipCount(), DTYPE_I16,
            [this](unsigned short* pixels, std::size_t count) { return this->readMatrix(pixels, count, true); });
    }
    int stopAcquisition() override
    {
        this->life.stop();
        this->forAll([](Member& member) { member.stopAcquisition(); });
        return 0;
    }

protected:
    static constexpr int CHIP_KIND = 2; ///< of dv::_DevMpxInfo

    using LadDev<dv::IHwDevMpx2, Member, Mpx2LadExtras>::LadDev;
};

} // namespace HwLatixel
