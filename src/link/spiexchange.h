// SPI on a readout board: who hangs on the bus, and the steps that every exchange is made of. The steps are
// templates over the command manager, so that all boards share them. Whoever puts steps together makes the manager's
// `Exchange` around them: another thread's slave must not come between.
#pragma once

#include "link/cmdframe.h"

namespace HwLatixel {

/// One SPI slave of the board.
struct SpiSlave {
    unsigned char mode;
    std::uint32_t divider; ///< Clock divider, 24 bits.
    unsigned char select;  ///< Number of its chip select.
};

namespace spislave {
inline constexpr SpiSlave CPU{4, 50, 7};
inline constexpr SpiSlave FLASH{4, 2, 3};
inline constexpr SpiSlave BIAS_DAC{0x10, 5, 4};
inline constexpr SpiSlave ADC{0x20, 5, 1};
} // namespace spislave

/// Sends one bare command. `Manager` is any command manager with the two forms of `send`.
template <typename Manager>
int sendCommand(Manager& manager, CmdId id, CmdArgs args = {}, unsigned char flags = cmdflag::NONE)
{
    return manager.send(id.perif, id.command, args.d0, args.d1, args.d2, args.d3, flags);
}

/// Sets mode and clock of the bus for `slave`.
template <typename Manager>
int spiSet(Manager& manager, const SpiSlave& slave)
{
    return sendCommand(manager, SpiCmd::Set, CmdArgs::byteAnd24(slave.mode, slave.divider));
}

/// Selects `slave`; with `cmdflag::OUTPUT` its answer goes to the host.
template <typename Manager>
int spiSelect(Manager& manager, const SpiSlave& slave, unsigned char flags)
{
    return sendCommand(manager, SpiCmd::ChipSelect, CmdArgs::low(slave.select), flags);
}

/// Selects no slave.
template <typename Manager>
int spiDeselect(Manager& manager)
{
    return sendCommand(manager, SpiCmd::ChipSelect);
}

/// Puts `size` bytes for the slave into the SPI unit; with `cmdflag::EXCHANGE` they are shifted at once and the
/// answer comes back, with no flags they wait for `spiShift`.
template <typename Manager>
int spiWrite(Manager& manager, unsigned char* data, unsigned long size, unsigned char flags)
{
    constexpr CmdId ID = SpiCmd::Data;
    return manager.send(ID.perif, ID.command, data, size, flags);
}

/// Shifts out what waits in the SPI unit.
template <typename Manager>
int spiShift(Manager& manager)
{
    return sendCommand(manager, SpiCmd::Send);
}

/// Hands the firmware's output back to the chips. Every use of the SPI that is read ends with it.
template <typename Manager>
int handBackOutput(Manager& manager)
{
    return sendCommand(manager, ChipCmd::Data, {}, cmdflag::OUTPUT);
}

/// One full-duplex exchange of `size` bytes with `slave`, with up to `timeout` seconds of silence before the answer
/// counts as ended. Only the last step's result is returned; the others don't count. `received`, if given, takes the
/// bytes that came: fewer for a short answer, none where the link itself failed.
template <typename Manager>
int spiExchange(Manager& manager, const SpiSlave& slave, unsigned char* tx, unsigned char* rx, unsigned long size,
                unsigned long* received, double timeout)
{
    const typename Manager::Exchange whole(manager);
    spiSet(manager, slave);
    spiSelect(manager, slave, cmdflag::OUTPUT);
    spiWrite(manager, tx, size, cmdflag::EXCHANGE);
    unsigned long count = size;
    if (manager.receiveRaw(rx, &count, timeout) != 0)
        count = 0;
    spiDeselect(manager);
    const int result = handBackOutput(manager);
    if (received != nullptr)
        *received = count;
    return result;
}

} // namespace HwLatixel
