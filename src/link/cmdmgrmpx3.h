// The command manager of Medipix3 boards.
#pragma once

#include "link/cmdframe.h"
#include "link/mpx3cmds.h"

namespace HwLatixel {

/// Speaks the command protocol of Medipix3 boards over one link. Frames, results, locks: see `ACmdMgr`.
///
/// There are no acknowledgements: a command counts as done when the link has taken its bytes, and an answer is known
/// by its length alone. A short answer is no failure here; the caller compares the count.
class CmdMgrMpx3 : public ACmdMgr {
public:
    /// Neither is owned; `log` may be null, which switches all logging off.
    CmdMgrMpx3(FtdiDev* ftdi, FileLog* log);

    /// Sends bytes without a frame; none for a `size` of 0.
    int sendRaw(const unsigned char* data, unsigned int size);

    /// Receives `*size` bytes and stores the count received in `*size`, also when it is short. A negative result
    /// leaves `*size` alone and empties the link; a request for 0 bytes gives -1.
    int receiveRaw(unsigned char* buffer, unsigned long* size, double timeout);
    /// Takes what has arrived, up to `*size` bytes in ten reads, with no time limit. The count goes to `*size`, 0 on
    /// failure.
    int receiveRawAll(unsigned char* buffer, unsigned long* size);
    /// As `receiveRaw`, but a short read goes unreported: the rest of `buffer` is then zero.
    int receivePackets(unsigned char* buffer, unsigned long size, double timeout);
    /// As `receiveRawAll`, with a dump in the log.
    int receiveAllPackets(unsigned char* buffer, unsigned long* size);
    /// Empties the link, with a dump in the log if `log` is set. Gives up on a board that goes on sending for 10 s.
    /// Returns 0.
    int getAllRemainingData(bool log);

    /// `send`, and on success `receivePackets`, as one exchange.
    int sendRecv(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1, unsigned char d2,
                 unsigned char d3, unsigned char* buffer, unsigned long size, unsigned char flags, double timeout);
    int sendRecv(CmdId id, CmdArgs args, unsigned char* buffer, unsigned long size, unsigned char flags, double timeout)
    {
        return sendRecv(id.perif, id.command, args.d0, args.d1, args.d2, args.d3, buffer, size, flags, timeout);
    }

    /// One full-duplex exchange of `size` bytes with the board's CPU, up to 2 s of silence. Returns the result of
    /// handing the output back to the chips, the last step; `received`, if given, takes the bytes that came back.
    int sendReceiveSpiCpu(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received);
};

} // namespace HwLatixel
