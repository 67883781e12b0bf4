#include "tests/explorer/controls.h"

#include <algorithm>
#include <iterator>

namespace explorer {

// In the order of their codes; the last of each kind is none of this driver's.
const Control controls[] = {
    {"SET_BAUD_RATE", IOCTL_SERIAL_SET_BAUD_RATE, 4, 0, Effect::device},
    {"SET_QUEUE_SIZE", IOCTL_SERIAL_SET_QUEUE_SIZE, 8, 0},
    {"SET_LINE_CONTROL", IOCTL_SERIAL_SET_LINE_CONTROL, 3, 0, Effect::device},
    {"SET_BREAK_ON", IOCTL_SERIAL_SET_BREAK_ON, 0, 0, Effect::device},
    {"SET_BREAK_OFF", IOCTL_SERIAL_SET_BREAK_OFF, 0, 0, Effect::device},
    {"IMMEDIATE_CHAR", IOCTL_SERIAL_IMMEDIATE_CHAR, 1, 0},
    {"SET_TIMEOUTS", IOCTL_SERIAL_SET_TIMEOUTS, 20, 0},
    {"GET_TIMEOUTS", IOCTL_SERIAL_GET_TIMEOUTS, 0, 20},
    {"SET_DTR", IOCTL_SERIAL_SET_DTR, 0, 0, Effect::device},
    {"CLR_DTR", IOCTL_SERIAL_CLR_DTR, 0, 0, Effect::device},
    {"RESET_DEVICE", IOCTL_SERIAL_RESET_DEVICE, 0, 0},
    {"SET_RTS", IOCTL_SERIAL_SET_RTS, 0, 0, Effect::device},
    {"CLR_RTS", IOCTL_SERIAL_CLR_RTS, 0, 0, Effect::device},
    {"SET_XOFF", IOCTL_SERIAL_SET_XOFF, 0, 0},
    {"SET_XON", IOCTL_SERIAL_SET_XON, 0, 0},
    {"GET_WAIT_MASK", IOCTL_SERIAL_GET_WAIT_MASK, 0, 4},
    {"SET_WAIT_MASK", IOCTL_SERIAL_SET_WAIT_MASK, 4, 0},
    {"WAIT_ON_MASK", IOCTL_SERIAL_WAIT_ON_MASK, 0, 4},
    {"PURGE", IOCTL_SERIAL_PURGE, 4, 0},
    {"GET_BAUD_RATE", IOCTL_SERIAL_GET_BAUD_RATE, 0, 4},
    {"GET_LINE_CONTROL", IOCTL_SERIAL_GET_LINE_CONTROL, 0, 3},
    {"GET_CHARS", IOCTL_SERIAL_GET_CHARS, 0, 6},
    {"SET_CHARS", IOCTL_SERIAL_SET_CHARS, 6, 0},
    {"GET_HANDFLOW", IOCTL_SERIAL_GET_HANDFLOW, 0, 16},
    {"SET_HANDFLOW", IOCTL_SERIAL_SET_HANDFLOW, 16, 0},
    {"GET_MODEMSTATUS", IOCTL_SERIAL_GET_MODEMSTATUS, 0, 4},
    {"GET_COMMSTATUS", IOCTL_SERIAL_GET_COMMSTATUS, 0, 20},
    {"XOFF_COUNTER", IOCTL_SERIAL_XOFF_COUNTER, 0, 0, Effect::invalid},
    {"GET_PROPERTIES", IOCTL_SERIAL_GET_PROPERTIES, 0, 64},
    {"GET_DTRRTS", IOCTL_SERIAL_GET_DTRRTS, 0, 4},
    {"LSRMST_INSERT", IOCTL_SERIAL_LSRMST_INSERT, 0, 0, Effect::invalid},
    {"CONFIG_SIZE", IOCTL_SERIAL_CONFIG_SIZE, 0, 4},
    {"GET_COMMCONFIG", 0x1B0084, 0, 0, Effect::invalid},
    {"SET_COMMCONFIG", 0x1B0088, 0, 0, Effect::invalid},
    {"GET_STATS", IOCTL_SERIAL_GET_STATS, 0, 24},
    {"CLEAR_STATS", IOCTL_SERIAL_CLEAR_STATS, 0, 0},
    {"GET_MODEM_CONTROL", 0x1B0094, 0, 4, Effect::invalid},
    {"PORT_DESC", 0x370208, 0, 0, Effect::invalid},
    {"internal DO_WAIT_WAKE", IOCTL_SERIAL_INTERNAL_DO_WAIT_WAKE, 0, 0, Effect::unsupported, true},
    {"internal CANCEL_WAIT_WAKE", IOCTL_SERIAL_INTERNAL_CANCEL_WAIT_WAKE, 0, 0, Effect::unsupported, true},
    {"internal BASIC_SETTINGS", IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, 0, 44, Effect::local, true},
    {"internal RESTORE_SETTINGS", IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, 44, 0, Effect::local, true},
    {"internal SET_BREAK_OFF", IOCTL_SERIAL_SET_BREAK_OFF, 0, 0, Effect::invalid, true},
};
const std::size_t controlCount = std::size(controls);
static_assert(rowControls + std::size(controls) <= maxRows);

namespace {

constexpr const char* rowNames[] = {
    "CREATE",     "CLEANUP", "READ",        "WRITE",        "FLUSH",  "cancel",
    "START",      "QUERY_STOP", "STOP",     "CANCEL_STOP",  "QUERY_REMOVE", "REMOVE",  "CANCEL_REMOVE", "SURPRISE_REMOVAL",
    "D2 or D3",   "D0",      "system sleep", "system wake",
};
static_assert(std::size(rowNames) == rowControls);
constexpr const char* stateNames[] = {"running", "in low power", "asleep", "stop pending", "stopped", "remove pending", "removed", "gone"};
static_assert(std::size(stateNames) == std::size_t(DeviceState::count_));

}  // namespace

std::uint32_t rowOf(std::uint32_t code, bool internal) {
    const auto found = std::find_if(std::begin(controls), std::end(controls),
                                    [=](const Control& c) { return c.code == code && c.internal == internal; });
    return static_cast<std::uint32_t>(found - std::begin(controls));
}

const char* nameOf(std::uint32_t row) { return row < rowControls ? rowNames[row] : controls[row - rowControls].name; }
const char* nameOf(DeviceState state) { return stateNames[std::size_t(state)]; }

std::vector<CellName> requiredCells() {
    using S = DeviceState;
    std::vector<CellName> cells;
    for (std::uint32_t row = 0; row < rowControls + controlCount; ++row) {
        // The system's own steps each have their state, the applications' requests come in any.
        if (row >= rowStart && row < rowControls) continue;
        for (const S state : {S::running, S::lowPower, S::asleep, S::stopPending, S::stopped, S::gone}) cells.push_back({row, state});
    }
    for (const std::uint32_t row : {rowCreate, rowRead, rowWrite}) cells.push_back({row, S::removePending});
    cells.insert(cells.end(), {{rowStart, S::stopped}, {rowStart, S::removed}, {rowStart, S::gone}, {rowQueryStop, S::running},
                               {rowQueryStop, S::lowPower}, {rowStop, S::stopPending}, {rowCancelStop, S::stopPending},
                               {rowQueryRemove, S::running}, {rowRemove, S::removePending},
                               {rowCancelRemove, S::removePending}, {rowSurprise, S::running}, {rowSurprise, S::lowPower},
                               {rowPowerDown, S::running}, {rowPowerUp, S::lowPower}, {rowSleep, S::running},
                               {rowSleep, S::lowPower}, {rowWake, S::asleep}});
    return cells;
}

}  // namespace explorer
