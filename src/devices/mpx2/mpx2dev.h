// One Medipix2 or Timepix readout board behind one USB link.
#pragma once

#include "devices/mpx2/ampx2dev.h"

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace HwLatixel {

/// A board with up to five modules behind a multiplexer, each a daisy chain of up to ten chips, a flash store and
/// perhaps a CPU. It stands alone or as a member of a composite. Chips are numbered through the modules. For its life,
/// the turn of its link and its threads see AMpx2Dev; a series has one detached thread.
class Mpx2Dev : public AMpx2Dev {
public:
    static constexpr int MODULES = 5;
    // What `switchModule` takes beside the number of a module.
    static constexpr int ENABLED_MODULES = -1;
    static constexpr int ALL_MODULES = -2;
    static constexpr int NO_MODULE = -3;

    /// `biasType` is the variant letter of the name, which chooses the bias rule. With `useSerialSection` the settings
    /// come from the section with the device's serial, so that each member of a composite has its own, else from
    /// "Settings". Does no I/O.
    Mpx2Dev(std::string name, IDorvet* dorvet, std::string logDir, std::string settingsFile,
            const std::string& biasType, bool useSerialSection);
    ~Mpx2Dev() override;

    // Life cycle (mpx2dev_bringup.cpp)
    /// Opens the link and brings the board up: firmware text, flash, CPU, power, modules, chips, identifiers. Takes
    /// some seconds. Fails only where the link does not open, with the link's result; a board without a working module
    /// or chip is a device without chips.
    int initDevice() override;
    /// Brings back link, power, bias, clock, DACs, matrix, and the preparation of a running series.
    int recoverDevice() override;
    /// Reads the settings from the file `path`; a missing file or key leaves the present values, but for the modules,
    /// which a missing key sets to automatic detection.
    void loadSettings(const char* path) override;
    /// Selects a module by number, or ENABLED_MODULES, ALL_MODULES, NO_MODULE; anything else selects none.
    int switchModule(int module);
    /// Finds the modules by the test pattern that a running chip clock makes on their data lines, beside those that the
    /// settings force on or off. Returns 0.
    int detectModules();
    /// Counts the chips in the chain of each enabled module. Returns the result of a switch or read that failed.
    int getChipCount();
    /// Reads the identifier of each chip, and with it the chip type.
    int readChipInfo();
    virtual std::string firmware() const { return firmwareText; }
    virtual std::string serial() const { return serialText; }
    virtual int chipCount() const { return chipCount_; }
    /// DACs of a chip: 14 on Timepix, 15 on Medipix2.
    virtual int dacCount() const { return dacCountOfChip(); }
    virtual std::vector<std::string> chipIDs() const { return chipIds; }

    // Status (mpx2dev_status.cpp). The temperature protection refuses `setBias` until the next `initDevice`.
    /// Asks the CPU for its values, at most once a second, with the turn in hand.
    void readSenseValuesFromCpu() const;

    // Configuration (mpx2dev_config.cpp)
    /// Through the CPU where that makes the bias; it takes the absolute value. -1 on a board that has no bias limits.
    int setBias(double volts) override;
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override;
    int writeMatrix(const unsigned short* matrix, std::size_t size, bool convert) override;
    /// Stores the pre-shutter clocks; `setAcqClocks` reads them from the parameters again.
    void setPreshutterParams(int count, int divider, int delay);

    // Matrices (mpx2dev_matrix.cpp)
    /// Reads the chips, which clears their counters.
    int eraseMatrix() override;
    /// Brings the raw stream of all chips into the stream buffer, and leaves the counters cleared. Fails for a short
    /// stream.
    virtual int readMatrixFromDevice();
    /// The same into a spare buffer, for a composite whose frame makes way for others.
    int readMatrixAside();
    /// Brings that stream into the stream buffer.
    void takeAside();

    // Series (mpx2dev_acq.cpp)
    /// An exposure in two halves, for a composite that starts all members first; no trigger. Returns the result of the
    /// start command.
    virtual int startSingleAcquisition();
    /// `quick` waits 0.5 s at most. On failure the chips stay in acquisition.
    virtual int waitForAcqFinish(bool quick);
    /// Bias and temperature as they were measured last.
    void addMetaDataToFrame(dv::IMpxFrame* frame);
    void acqFunc() override;

protected:
    std::vector<ChipGroup> chipGroups() const override;
    int switchGroup(int number) override { return switchModule(number); }
    std::unique_ptr<IBCpuMgr<CmdMgr>> makeCpu() override;
    void initCpu() override;
    void senseBias(bool volts, bool amperes) const override;
    int readStream(std::span<unsigned char> stream, StreamCount& count) override;
    int readMatrixCounting(unsigned short* matrix, std::size_t size, bool convert, std::size_t& missing) override;
    void decodeStream(std::span<const unsigned char> stream, std::span<unsigned short> matrix,
                      bool convert) const override;
    void describeFrame(dv::IMpxFrame& frame) override { addMetaDataToFrame(&frame); }
    void onWriteParamCpu(dv::IParam* param) override;

private:
    // Bring-up steps
    void findChips();
    void logChipIds() const;
    int countModuleChips(int module, int* chips);
    bool moduleAnswers(int module, const std::array<unsigned char, 16>& pattern) const;

    // Matrices
    template <typename Read>
    int readForComposite(Read read);
    int readModules(std::span<unsigned char> stream);
    int readModule(const Mpx2Readout& readout, std::span<unsigned char> stream);
    int readAllModules(std::span<unsigned char> stream);
    void drainTail(double timeout, int maxReads) const;
    void decodeModules(std::span<const unsigned char> stream, std::span<unsigned short> matrix, bool convert) const;
    int reportReadout(int shortCode, unsigned long received, unsigned long expected, int result) const;

    Buffer<unsigned short> matrixBackup{0, false}; ///< the last matrix written to the chips; the turn

    // Set at bring-up, then only read
    std::array<int, MODULES> moduleEnable{-1, -1, -1, -1, -1}; ///< settings; 0 and 1 once modules are detected
    std::array<int, MODULES> moduleChips{};
    int activeModuleCount = 0; ///< as detected; a module without chips stays counted
    bool useSerialSection;
    bool biasInCpu = false;
    int biasSetParamIndex = -1;   ///< of the CPU's value "*BiasSet"
    bool overrideChipIds = false; ///< setting "OverrideChipIDs"; read from the settings and used by nothing
    bool readParallel = true;     ///< setting "ReadParallel"

    mutable std::atomic<double> detectorTemp{0.0}; ///< degrees Celsius, 0 until the CPU has told it
    mutable double lastSenseRead = 0.0;            ///< time of the last refresh in readSenseValuesFromCpu; the turn
};

} // namespace HwLatixel
