// Records, event numbers and result codes that cross the boundary between host and plug-in.
#pragma once

namespace dv {

/// What a device is.
struct _DevInfo {
    const char* familyName; ///< "Latixel"
    int deviceClass;        ///< 8 in every device
    int interfaceKind;      ///< 2 in every device: USB
    int serialNumber;       ///< number of the serial text in the USB description; 1 in a composite
    int deviceRevision;     ///< 1 in every device
};

/// What a pixel detector can do.
struct _DevMpxInfo {
    unsigned pixelTotal;   ///< chips times 65536; set after chip detection
    unsigned chipTotal;    ///< number of chips; set after chip detection
    int chipKind;          ///< 2 for Medipix2 and Timepix, 3 for Medipix3
    double biasMin;        ///< volts, from the board's bias rule or flash
    double biasMax;        ///< volts, from the board's bias rule or flash
    double acqTimeMin;     ///< seconds
    double acqTimeMax;     ///< seconds
    int reserved0;         ///< 0
    unsigned acqModeMask;  ///< the acquisition mode bits that `setAcqMode` understands, see AcqMode
    int reserved1;         ///< 0
    int reservedBlock[10]; ///< the first 1, the others 0
};

/// Constants of every Medipix3 device that the host reads.
struct _DevMpx3Info {
    unsigned mpx3InfoCount; ///< 1000
    double mpx3InfoA;       ///< 10000
    double mpx3InfoB;       ///< 10000
    double mpx3InfoC;       ///< 0.000236
};

/// A record of the host's that the plug-in hands out zeroed.
struct _DevMpx2Info {
    int reserved[16];
};

/// Configuration of Medipix3 chips; eleven consecutive bytes, passed by value.
struct _Mpx3Config {
    unsigned char counterDepth;  ///< 0, 1, 2 or 3 for 1, 6, 12 or 24 bits
    unsigned char columnBlock;   ///< 0 all columns, 1..8 an eighth, 9..12 a quarter, from 13 a half of them
    unsigned char rowBlock;      ///< 0 all rows, n the 2^(n-1) lowest rows
    unsigned char counterSelect; ///< 0 or 1 for one counter, 2 for both
    unsigned char gainMode;      ///< gain of the pixel preamplifier, 0..3
    unsigned char continuousRW;  ///< not 0: one counter exposes while the other is read
    unsigned char csmSpm;        ///< not 0: charge summing mode
    unsigned char colourMode;    ///< not 0: colour mode
    unsigned char polarity;      ///< not 0: positive input charge
    unsigned char equalization;  ///< not 0: equalization mode
    unsigned char discCsmSpm;    ///< which discriminator the counter sees
};
static_assert(sizeof(_Mpx3Config) == 11, "the host passes eleven bytes");

/// Events of a device, the first argument of an EventFunc. The second is told for each.
enum HwEvent : unsigned {
    HWEVENT_FRAME_READY = 1,  ///< data: index of the frame in the series, from 0
    HWEVENT_ACQ_FINISHED = 2, ///< data: 0; the series ended by itself
    HWEVENT_ACQ_FAILED = 4,   ///< data: error code, or -1 when the start itself failed
    HWEVENT_ACQ_ABORTED = 6,  ///< data: 0; the series ended after `stopAcquisition`
    HWEVENT_BUSY_CHANGED = 7, ///< data: 1 busy, 0 idle
    HWEVENT_WAIT_TRIGGER = 9, ///< data: 0; the device begins to wait for `doSoftwareTrigger`
};

/// Results with a fixed meaning. A bare 1 is the usual failure of a device operation.
enum Result : int {
    RESULT_OK = 0,
    RESULT_FAILED = -1,
    RESULT_STOPPED = -2,
    RESULT_ACQ_TIMEOUT = -4,
    RESULT_INVALID_INDEX = -1005,
    RESULT_NOT_SUPPORTED = -1026,
    RESULT_OVERHEATED = -1037,
};

/// Bits of the word that `setAcqMode` takes.
enum AcqMode : unsigned {
    ACQMODE_EXT_TRIGGER_START = 0x01, ///< the external trigger starts a frame
    ACQMODE_EXT_TRIGGER_STOP = 0x02,  ///< the external trigger ends a frame
    ACQMODE_SOFT_TRIGGER = 0x04,      ///< each frame waits for `doSoftwareTrigger`
    ACQMODE_BIT3 = 0x08,              ///< stored only
    ACQMODE_TDI = 0x20,               ///< time delay integration: rows move with the object
};

/// The last argument of the add operations of a parameter manager.
enum ParamFlags : unsigned {
    PARAM_LIVE = 0,      ///< a control that acts at once
    PARAM_READ_ONLY = 1, ///< a value that the host only reads
    PARAM_CONFIG = 2,    ///< a value that configures the device
};

} // namespace dv

using dv::HWEVENT_ACQ_ABORTED;
using dv::HWEVENT_ACQ_FAILED;
using dv::HWEVENT_ACQ_FINISHED;
using dv::HWEVENT_BUSY_CHANGED;
using dv::HWEVENT_FRAME_READY;
using dv::HWEVENT_WAIT_TRIGGER;
