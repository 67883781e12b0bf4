// What a port tells of itself and what is done with its modem when list, status and ctl ask.
//
// The driver admits one opener, so settings, DTR, RTS and queues of an open port are asked through the handle of the front end that
// has it (PortLease); the modem's own view of them is always there. Bytes and resets are the bus's counts.
#include "comport/served_port.h"

#include <ntddser.h>

#include <stdexcept>

#include "kernel/power.h"
#include "modem/modem.h"

namespace comport {

namespace {

const char* wordOf(nt::DeviceState state) {
    switch (state) {
    case nt::DeviceState::added: return "added";
    case nt::DeviceState::started: return "started";
    case nt::DeviceState::stopped: return "stopped";
    case nt::DeviceState::startFailed: return "start failed";
    case nt::DeviceState::surpriseRemoved: return "unplugged, still open";
    case nt::DeviceState::removed: return "removed";
    }
    return "";
}

const char* wordOf(SYSTEM_POWER_STATE state) {
    static const char* const words[] = {"", "S0", "S1", "S2", "S3", "S4", "off"};
    return state < std::size(words) ? words[state] : "";
}

const char* wordOf(DEVICE_POWER_STATE state) {
    static const char* const words[] = {"", "D0", "D1", "D2", "D3"};
    return state < std::size(words) ? words[state] : "";
}

template <class Record>
bool query(nt::File& file, ULONG code, Record& record) {
    return NT_SUCCESS(file.control(code, nullptr, 0, &record, sizeof(record)).status);
}

// Nothing when the port does not answer (the modem has been unplugged).
std::optional<OpenPort> askOpen(nt::File& file) {
    SERIAL_BAUD_RATE rate = {};
    SERIAL_LINE_CONTROL line = {};
    SERIAL_STATUS queues = {};
    ULONG dtrRts = 0;
    bool answered = query(file, IOCTL_SERIAL_GET_BAUD_RATE, rate) && query(file, IOCTL_SERIAL_GET_LINE_CONTROL, line) &&
                    query(file, IOCTL_SERIAL_GET_COMMSTATUS, queues) && query(file, IOCTL_SERIAL_GET_DTRRTS, dtrRts);
    if (!answered) {
        return std::nullopt;
    }
    OpenPort open;
    open.baud = rate.BaudRate;
    open.dataBits = line.WordLength;
    open.parity = line.Parity;
    open.stopBits = line.StopBits;
    open.dtrRts = dtrRts;
    open.inQueue = queues.AmountInInQueue;
    open.outQueue = queues.AmountInOutQueue;
    return open;
}

modem::Modem& telephone(modem::AcmDevice& device) {
    auto* modem = dynamic_cast<modem::Modem*>(&device);
    if (modem == nullptr) {
        throw std::runtime_error("the loop plug has no telephone line");
    }
    return *modem;
}

// The modem's lines in the bits of GET_MODEMSTATUS. Asked at the port, that would take the change bits from whoever has it open.
std::uint32_t modemStatusOf(const PortStatus& status) {
    constexpr std::pair<modem::LineName, std::uint32_t> bits[] = {{modem::LineName::clearToSend, SERIAL_MSR_CTS},
                                                                  {modem::LineName::ready, SERIAL_MSR_DSR},
                                                                  {modem::LineName::ring, SERIAL_MSR_RI},
                                                                  {modem::LineName::carrier, SERIAL_MSR_DCD}};
    std::uint32_t value = 0;
    for (const auto& [line, bit] : bits) {
        value |= status.lines[static_cast<std::size_t>(line)].level ? bit : 0;
    }
    return value;
}

}  // namespace

PortStatus ServedPort::status(const std::vector<nt::DeviceNode>& devices) {
    PortStatus status;
    status.name = name();
    status.modem = wordOf(kind_);
    status.terminal = link();
    status.network = urls();
    {
        std::lock_guard state(stateLock_);
        status.pluggedIn = pluggedIn_;
        status.counters = counters();
        status.device = device_;
        status.captureDevice = usbPort_;
        status.state = pluggedIn_ ? "waiting" : "unplugged";
        if (const auto node = nodeOf(devices)) {
            status.device = node->instancePath;
            status.state = wordOf(node->state);
        }
        describePower(status);
    }
    const bool awake = status.systemState == wordOf(PowerSystemWorking) && status.deviceState == wordOf(PowerDeviceD0);
    lease_.withFile([&](nt::File& file) {
        status.asleep = !awake;
        if (awake) {
            status.open = askOpen(file);
        }
    });
    status.modemSide = source_.own != nullptr;
    if (source_.own) {
        describeModem(status);
    } else if (status.open) {
        status.open->modemStatus.reset();
    }
    if (status.open && status.pluggedIn && source_.own) {
        status.open->modemStatus = modemStatusOf(status);
    }
    return status;
}

// stateLock_ held.
void ServedPort::describePower(PortStatus& status) {
    const usb::PortStatistics bus = house_.bus.statistics(usbPort_);
    status.systemState = wordOf(nt::systemState());
    status.deviceState = wordOf(bus.power);
    status.wakeArmed = bus.wakeArmed;
    status.idleOffered = bus.idlePending;
}

// The driver reads the interval when it makes the port, so the modem starts anew; with the port open that is not possible.
void ServedPort::suspendWhenIdle(std::uint32_t seconds) {
    std::lock_guard plug(plugLock_);
    const std::string device = house_.bus.instancePath(usbPort_);
    house_.executive.registry().setDword("HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Enum\\" + device + "\\Device Parameters", "IdleInterval",
                                    seconds);
    house_.executive.registry().save();
    if (lease_.withFile([](nt::File&) {})) {
        throw std::runtime_error("the port is open; the interval is kept and counts when the modem is plugged in with the port closed");
    }
    const NTSTATUS status = pluggedIn_ ? house_.executive.restart(device) : STATUS_SUCCESS;
    if (!NT_SUCCESS(status)) {
        throw std::runtime_error(status == STATUS_INVALID_DEVICE_STATE ? "the system sleeps, or the modem has not started"
                                                                       : "the modem does not start again");
    }
    tellFrontEnds();
}

void ServedPort::describeModem(PortStatus& status) {
    withModem([&](modem::AcmDevice& modem) {
        status.coding = modem.lineCoding();
        status.controlLines = modem.controlLines();
        for (const modem::LineText& text : modem::lineTexts) {
            status.lines[static_cast<std::size_t>(text.line)] = {modem.line(text.line),
                                                                  modem.heldAt(text.line).has_value()};
        }
        if (auto* called = dynamic_cast<modem::Modem*>(&modem)) {
            status.ppp = PppStatus{std::string(called->framingState()), called->framingChoice(), called->pppCounters(),
                                   called->framing().counters()};
        }
    });
}

// stateLock_ held.
PortCounters ServedPort::counters() {
    usb::PortStatistics sum = house_.bus.statistics(usbPort_);
    sum += earlier_;
    PortCounters counters;
    counters.bytesIn = sum.bulkIn;
    counters.bytesOut = sum.bulkOut;
    counters.zeroLengthPackets = sum.zeroLengthPackets;
    counters.stalls = sum.stalls;
    counters.resets = sum.resets;
    counters.reinitialisations = sum.reinitialisations;
    counters.reconnects = reconnects_;
    counters.heldBackReads = lease_.heldBackReads.load(std::memory_order_relaxed);
    return counters;
}

void ServedPort::carryOut(const Order& order) {
    using Action = Order::Action;
    switch (order.action) {
    case Action::line:
        withModem([&](modem::AcmDevice& modem) { modem.setLine(order.line, order.level); });
        break;
    case Action::errors:
        withModem([&](modem::AcmDevice& modem) { modem.reportErrors(static_cast<std::uint16_t>(order.value)); });
        break;
    case Action::ring:
        withModem([&](modem::AcmDevice& modem) { telephone(modem).ringIn(order.value); });
        break;
    case Action::drop:
        withModem([&](modem::AcmDevice& modem) { telephone(modem).dropCarrier(); });
        break;
    case Action::frame:
        withModem([&](modem::AcmDevice& modem) {
            modem::FramingChoice choice = telephone(modem).framingChoice();
            choice.mode = static_cast<modem::FramingMode>(order.value);
            choice.escapes = order.escapes.value_or(choice.escapes);
            telephone(modem).setFraming(choice);
        });
        break;
    case Action::unplug:
        unplug();
        break;
    case Action::plug:
        plugIn();
        break;
    case Action::suspend:
        suspendWhenIdle(order.value);
        break;
    case Action::trace:
    case Action::sleep:
    case Action::wake:
        break;  // of the whole machine
    }
}

}  // namespace comport
