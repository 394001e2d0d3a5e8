// The command manager of Medipix2 and Timepix boards.
#pragma once

#include "link/cmdframe.h"
#include "link/tpxcmds.h"

#include <string>

namespace HwLatixel {

/// Speaks the command protocol of Medipix2 and Timepix boards over one link. Frames, results, locks: see `ACmdMgr`.
///
/// A short answer is no failure here; the caller compares the count. Nothing here drains the link: the device does.
class CmdMgr : public ACmdMgr {
public:
    /// Neither is owned; `log` may be null, which switches all logging off.
    CmdMgr(FtdiDev* ftdi, FileLog* log);

    /// Sends bytes without a frame; none for a `size` of 0.
    int sendRaw(const char* data, unsigned long size);

    /// Receives `*size` bytes and stores the count received in `*size`, also when it is short. A negative result leaves
    /// `*size` alone; a request for 0 bytes gives -1.
    int receiveRaw(unsigned char* buffer, unsigned long* size, double timeout, bool ascii = false);
    /// Takes what has arrived, up to `*size` bytes in ten reads, with no time limit. The count goes to `*size`, 0 on
    /// failure.
    int receiveRawAll(char* buffer, unsigned long* size);
    /// The same, with a dump in the log. The timeout has no effect.
    int receiveAllPackets(unsigned char* buffer, unsigned long* size, double timeout);
    /// Receives until the data end with the 9-byte frame `pattern`, at most `timeout` seconds. Returns the bytes
    /// received, also without the frame, or -1 where the link fails.
    int receiveAllDataUntil(unsigned char* buffer, unsigned long size, unsigned char* pattern, double timeout);

    /// `send`, and on success `receiveRaw`, as one exchange.
    int sendRecv(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1, unsigned char d2,
                 unsigned char d3, unsigned char* buffer, unsigned long size, unsigned char flags, double timeout,
                 bool ascii);

    /// One full-duplex exchange of `size` bytes with the board's CPU, up to 1 s of silence. Returns the result of
    /// handing the output back to the chips, the last step; `received`, if given, takes the bytes that came back.
    int sendReceiveSpiCpu(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received);

    /// Chooses what goes to the debug log: "CMD" lines, dumps of payloads sent, dumps of received data. All on at
    /// first.
    void enableLogging(bool commands, bool sentData, bool receivedData);
};

/// The log's name of a peripheral, "???" beyond the table.
const char* perifStr(unsigned char peripheral);
/// The log's name of a command, "???" beyond the tables.
const char* perifCmd(unsigned char peripheral, unsigned char command);
/// For the pins command the names of the pins that are set, each followed by a blank; otherwise empty.
std::string perifData(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1,
                      unsigned char d2, unsigned char d3);

} // namespace HwLatixel
