#include "modem/acm_device.h"

#include <algorithm>
#include <utility>

namespace modem {
namespace {

constexpr std::uint8_t low(std::uint16_t value) {
    return static_cast<std::uint8_t>(value);
}
constexpr std::uint8_t high(std::uint16_t value) {
    return static_cast<std::uint8_t>(value >> 8);
}

constexpr std::uint8_t communicationInterface = 0;
constexpr std::uint8_t dataInterface = 1;
constexpr std::uint16_t packet = AcmDevice::packetBytes;

// clang-format off
// One configuration: a communication interface with the notifications, a data interface with the bytes.
constexpr std::array<std::uint8_t, 67> configuration{
    // configuration: 67 bytes, 2 interfaces, value 1, no name, bus powered with remote wake-up, 100 mA
    9, 0x02, 67, 0, 2, 1, 0, 0xA0, 50,
    // interface 0: 1 endpoint, communication, abstract control model, AT commands
    9, 0x04, communicationInterface, 0, 1, 0x02, 0x02, 0x01, 0,
    // functional descriptors: header (CDC 1.20), call management on the data interface, abstract control
    // (line coding and state, break, network connection), union of both interfaces
    5, 0x24, 0x00, 0x20, 0x01,
    5, 0x24, 0x01, 0x03, dataInterface,
    4, 0x24, 0x02, 0x0E,
    5, 0x24, 0x06, communicationInterface, dataInterface,
    // interrupt IN, 16 bytes, every 16 ms
    7, 0x05, AcmDevice::endpointNotify, 0x03, 16, 0, 16,
    // interface 1: 2 endpoints, data
    9, 0x04, dataInterface, 0, 2, 0x0A, 0x00, 0x00, 0,
    // bulk OUT and bulk IN
    7, 0x05, AcmDevice::endpointOut, 0x02, low(packet), high(packet), 0,
    7, 0x05, AcmDevice::endpointIn, 0x02, low(packet), high(packet), 0,
};
// clang-format on

constexpr std::uint8_t sendEncapsulatedCommand = 0x00;
constexpr std::uint8_t getEncapsulatedResponse = 0x01;
constexpr std::uint8_t setLineCoding = 0x20;
constexpr std::uint8_t getLineCoding = 0x21;
constexpr std::uint8_t setControlLineState = 0x22;
constexpr std::uint8_t sendBreakRequest = 0x23;
constexpr std::size_t lineCodingBytes = 7;

constexpr std::uint8_t getEscapedCharacters = 0x60;
constexpr std::uint8_t startFramingRequest = 0x61;
constexpr std::uint8_t stopFramingRequest = 0x62;
constexpr std::size_t escapedCharactersLimit = 256;

constexpr std::uint8_t notifyNetworkConnection = 0x00;
constexpr std::uint8_t notifySerialState = 0x20;
constexpr std::uint8_t vendorKind = 0xC1;
constexpr std::size_t notificationHeader = 8;

constexpr std::uint16_t momentaryStates = stateBreak | stateFramingError | stateParityError | stateOverrun;
constexpr std::size_t postedLimit = 64;
constexpr std::uint32_t followCode = 2;  // beside 0 and 1, the levels

struct StateBit {
    LineName line;
    std::uint16_t bit;
};
constexpr std::array stateBits{
    StateBit{LineName::carrier, stateCarrier},
    StateBit{LineName::ready, stateReady},
    StateBit{LineName::ring, stateRing},
    StateBit{LineName::hold, stateHold},
};
static_assert(stateBits.size() + 1 == lineCount, "clear to send has a notification of its own");

}  // namespace

std::vector<std::uint8_t> controlCharacters(std::uint32_t map) {
    std::vector<std::uint8_t> characters;
    for (unsigned c = 0; c < 32; ++c) {
        if ((map >> c & 1) != 0)
            characters.push_back(static_cast<std::uint8_t>(c));
    }
    return characters;
}

AcmDevice::AcmDevice(Options options) : options_(std::move(options)) {
    const std::uint16_t vendor = options_.vendorId;
    const std::uint16_t product = options_.productId;
    // USB 2.0, communication class, 64-byte control packets, version 1.00, three strings, one configuration
    device_ = {18,           0x01,         0x00,          0x02, 0x02, 0x00, 0x00, 64, low(vendor),
               high(vendor), low(product), high(product), 0x00, 0x01, 1,    2,    3,  1};
    posted_.reserve(postedLimit);
    states_.reserve(notificationLimit);
}

void AcmDevice::powerCycle() {
    coding_ = {};
    controlLines_ = 0;
    held_ = {};
    AcmDevice::busReset();
}

// ---- the world outside ----

void AcmDevice::setLine(LineName line, std::optional<bool> level) {
    const std::uint32_t code = level ? (*level ? 1 : 0) : followCode;
    post(Stimulus::line, static_cast<std::uint32_t>(line) << 8 | code);
}

void AcmDevice::reportErrors(std::uint16_t bits) {
    post(Stimulus::errors, bits);
}

void AcmDevice::post(Stimulus what, std::uint32_t value) {
    {
        const std::lock_guard guard(postedLock_);
        // More than this at once says nothing new; the last one still counts.
        if (posted_.size() == postedLimit)
            posted_.erase(posted_.begin());
        posted_.push_back({what, value});
    }
    wake();
}

void AcmDevice::takePosted() {
    const std::lock_guard guard(postedLock_);
    for (const Posted& item : posted_) {
        switch (item.what) {
        case Stimulus::errors:
            reportNow(static_cast<std::uint16_t>(item.value));
            break;
        case Stimulus::line: {
            const std::uint32_t code = item.value & 0xFF;
            holdLine(static_cast<LineName>(item.value >> 8),
                     code == followCode ? std::nullopt : std::optional<bool>(code != 0));
            break;
        }
        default:
            act(item.what, item.value);
        }
    }
    posted_.clear();
}

// ---- descriptors and requests ----

std::span<const std::uint8_t> AcmDevice::configurationDescriptor(std::uint8_t index) const {
    if (index != 0)
        return {};
    return configuration;
}

std::optional<std::u16string> AcmDevice::stringDescriptor(std::uint8_t index) const {
    const Identity& identity = options_.identity;
    const std::string* text = nullptr;
    if (index == 1)
        text = &identity.manufacturer;
    if (index == 2)
        text = &identity.model;
    if (index == 3)
        text = &identity.serialNumber;
    if (text == nullptr)
        return std::nullopt;
    return std::u16string(text->begin(), text->end());
}

usb::ControlReply AcmDevice::control(const usb::SetupPacket& setup, std::span<std::uint8_t> data) {
    constexpr std::uint8_t kindMask = 0x60, kindClass = 0x20, kindVendor = 0x40;
    constexpr std::uint8_t recipientMask = 0x1F, recipientInterface = 0x01;
    if ((setup.requestType & recipientMask) != recipientInterface || setup.index != communicationInterface) {
        return usb::ControlReply::stall();
    }
    switch (setup.requestType & kindMask) {
    case kindClass:
        return classRequest(setup, data);
    case kindVendor:
        return vendorRequest(setup, data);
    default:
        return usb::ControlReply::stall();
    }
}

usb::ControlReply AcmDevice::classRequest(const usb::SetupPacket& setup, std::span<std::uint8_t> data) {
    const bool in = setup.isIn();
    if (setup.request == setLineCoding && !in && data.size() == lineCodingBytes) {
        coding_.rate = data[0] | data[1] << 8 | data[2] << 16 | static_cast<std::uint32_t>(data[3]) << 24;
        coding_.stopBits = data[4];
        coding_.parity = data[5];
        coding_.dataBits = data[6];
        lineCodingChanged();
        return usb::ControlReply::ack();
    }
    if (setup.request == getLineCoding && in) {
        const std::array<std::uint8_t, lineCodingBytes> bytes{static_cast<std::uint8_t>(coding_.rate),
                                                              static_cast<std::uint8_t>(coding_.rate >> 8),
                                                              static_cast<std::uint8_t>(coding_.rate >> 16),
                                                              static_cast<std::uint8_t>(coding_.rate >> 24),
                                                              coding_.stopBits,
                                                              coding_.parity,
                                                              coding_.dataBits};
        const std::size_t count = std::min(data.size(), bytes.size());
        std::copy_n(bytes.begin(), count, data.begin());
        return usb::ControlReply::ack(static_cast<std::uint32_t>(count));
    }
    if (setup.request == setControlLineState && !in && setup.length == 0) {
        controlLines_ = setup.value & 3;
        controlLinesChanged();
        return usb::ControlReply::ack();
    }
    if (setup.request == sendBreakRequest && !in && setup.length == 0) {
        // A break has no length here: its beginning is what the far end hears.
        if (setup.value != 0)
            breakBegun();
        return usb::ControlReply::ack();
    }
    // Nothing speaks this protocol here, but a host that tries it is let through.
    if (setup.request == sendEncapsulatedCommand && !in)
        return usb::ControlReply::ack();
    if (setup.request == getEncapsulatedResponse && in)
        return usb::ControlReply::ack(0);
    return usb::ControlReply::stall();
}

usb::ControlReply AcmDevice::vendorRequest(const usb::SetupPacket& setup, std::span<std::uint8_t> data) {
    if (setup.request == getEscapedCharacters && setup.isIn()) {
        const auto list = readEscapes();
        const std::size_t count = std::min({data.size(), list.size(), escapedCharactersLimit});
        std::copy_n(list.begin(), count, data.begin());
        return usb::ControlReply::ack(static_cast<std::uint32_t>(count));
    }
    if (setup.isIn() || setup.length != 0)
        return usb::ControlReply::stall();
    if (setup.request == startFramingRequest && startFraming())
        return usb::ControlReply::ack();
    if (setup.request != stopFramingRequest)
        return usb::ControlReply::stall();
    stopFraming();
    return usb::ControlReply::ack();
}

// ---- state of the bus ----

void AcmDevice::busReset() {
    configured_ = false;
    suspended(false);
    shortPacketDue_ = false;
    states_.clear();
    reportedState_ = 0;
    reportedClearToSend_ = false;
}

void AcmDevice::configured(std::uint8_t value) {
    busReset();
    configured_ = value != 0;
    reportLines();
}

void AcmDevice::haltCleared(std::uint8_t endpoint) {
    if (endpoint == endpointIn)
        shortPacketDue_ = false;
}

void AcmDevice::suspended(bool on) {
    suspended_ = on;
    changedAsleep_ = false;
}

// A host that listens (DTR) wants to know all there is. One that has closed the port left things unfetched and wants to know of a call only.
bool AcmDevice::wantsRemoteWake() {
    if (changedAsleep_)
        return true;
    if ((controlLines_ & 1) == 0)
        return false;
    return vendorNotification() || !states_.empty() || line(LineName::clearToSend) != reportedClearToSend_ || hasBytes();
}

// ---- data ----

std::int32_t AcmDevice::dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) {
    if (!configured_)
        return usb::dataStall;
    if (endpoint == endpointNotify) {
        std::int32_t length = usb::dataNak;
        return popNotification(space, length) ? length : usb::dataNak;
    }
    if (endpoint != endpointIn)
        return usb::dataStall;
    const std::size_t count = give(space);
    if (count == 0) {
        if (!shortPacketDue_)
            return usb::dataNak;
        shortPacketDue_ = false;
        return 0;
    }
    shortPacketDue_ = count < space.size() && count % packetBytes == 0;
    return static_cast<std::int32_t>(count);
}

// ---- notifications ----

bool AcmDevice::line(LineName name) const {
    return heldAt(name).value_or(followedLine(name));
}

std::uint16_t AcmDevice::lineState() const {
    std::uint16_t state = 0;
    for (const auto& [name, bit] : stateBits) {
        if (line(name))
            state |= bit;
    }
    return state;
}

void AcmDevice::reportLines() {
    if (configured_ && lineState() != reportedState_)
        notify(lineState());
}

void AcmDevice::reportNow(std::uint16_t bits) {
    bits &= momentaryStates;
    if (configured_ && bits != 0)
        notify(lineState() | bits);
}

// Queues a SERIAL_STATE. A host that does not look for long finds the newest state, and every kind of error, once.
void AcmDevice::notify(std::uint16_t state) {
    changedAsleep_ = changedAsleep_ || suspended_;
    if (states_.size() == notificationLimit) {
        states_.back() = static_cast<std::uint16_t>((states_.back() & momentaryStates) | state);
    } else {
        states_.push_back(state);
    }
    reportedState_ = static_cast<std::uint16_t>(state & ~momentaryStates);
}

bool AcmDevice::popNotification(std::span<std::uint8_t> space, std::int32_t& length) {
    Notification bytes{0xA1, 0, 0, 0, communicationInterface, 0, 0, 0, 0, 0};
    std::size_t count = notificationHeader;
    const bool clearToSend = line(LineName::clearToSend);
    const auto vendor = vendorNotification();
    if (vendor) {
        bytes[0] = vendorKind;
        bytes[1] = *vendor;
    } else if (clearToSend != reportedClearToSend_) {
        bytes[1] = notifyNetworkConnection;
        bytes[2] = clearToSend ? 1 : 0;
    } else if (!states_.empty()) {
        bytes[1] = notifySerialState;
        bytes[6] = 2;
        bytes[8] = low(states_.front());
        bytes[9] = high(states_.front());
        count = bytes.size();
    } else {
        return false;
    }
    if (space.size() < count)
        return false;
    std::copy_n(bytes.begin(), count, space.begin());
    length = static_cast<std::int32_t>(count);
    if (vendor) {
        vendorNotificationFetched();
    } else if (bytes[1] == notifyNetworkConnection) {
        reportedClearToSend_ = clearToSend;
    } else {
        states_.erase(states_.begin());
    }
    return true;
}

}  // namespace modem
