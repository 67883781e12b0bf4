// The controls an application may send, and the cells a soak has to visit: a request against a state of the device.
#pragma once

#include <wdm.h>

#include <ntddser.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace explorer {

enum class Effect : std::uint8_t {
    local,    // answered from the driver's own state
    device,   // reaches the modem
    invalid,  // refused
    unsupported,
};

struct Control {
    const char* name;
    std::uint32_t code;
    std::uint32_t input, output;  // bytes
    Effect effect = Effect::local;
    bool internal = false;  // asked by another driver, stacked on the port; such codes have other meanings
};

extern const Control controls[];
extern const std::size_t controlCount;

constexpr std::uint32_t codeSetTimeouts = IOCTL_SERIAL_SET_TIMEOUTS;
constexpr std::uint32_t codeSetQueueSize = IOCTL_SERIAL_SET_QUEUE_SIZE;
constexpr std::uint32_t codePurge = IOCTL_SERIAL_PURGE;
constexpr std::uint32_t codeSetWaitMask = IOCTL_SERIAL_SET_WAIT_MASK;
constexpr std::uint32_t codeImmediateChar = IOCTL_SERIAL_IMMEDIATE_CHAR;
constexpr std::uint32_t codeWaitOnMask = IOCTL_SERIAL_WAIT_ON_MASK;

// An application's control of this code.
inline bool is(const Control& control, std::uint32_t code) { return !control.internal && control.code == code; }
std::uint32_t rowOf(std::uint32_t code, bool internal = false);

// Cells: ------------------------------------------------------------------------------------------------------------------

enum class DeviceState : std::uint8_t { running, lowPower, asleep, stopPending, stopped, removePending, removed, gone, count_ };

// The rows of the table: the major functions an application reaches, then the controls, then what the system does.
enum Row : std::uint32_t {
    rowCreate, rowCleanup, rowRead, rowWrite, rowFlush, rowCancel,
    rowStart, rowQueryStop, rowStop, rowCancelStop, rowQueryRemove, rowRemove, rowCancelRemove, rowSurprise,
    rowPowerDown, rowPowerUp, rowSleep, rowWake,
    rowControls,
};
constexpr std::size_t maxRows = rowControls + 48;

// One for each cell, shared between the processes of a soak.
struct Cells {
    std::uint8_t visited[maxRows][std::size_t(DeviceState::count_)];
    void visit(std::uint32_t row, DeviceState state) { visited[row][std::size_t(state)] = 1; }
};

struct CellName {
    std::uint32_t row;
    DeviceState state;
};
// Cells that some run of a soak has to visit.
std::vector<CellName> requiredCells();
const char* nameOf(std::uint32_t row);
const char* nameOf(DeviceState state);

}  // namespace explorer
