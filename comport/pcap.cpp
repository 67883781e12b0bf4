#include "comport/pcap.h"

#include <algorithm>
#include <array>

namespace comport {

namespace {

constexpr std::uint32_t magicMicroseconds = 0xA1B2C3D4;
constexpr std::uint16_t busNumber = 1;
constexpr std::uint32_t flagDirectionIn = 0x0200;
constexpr std::int64_t usPerSecond = 1'000'000;

// The numbers of usbmon's, which are not those of the endpoint descriptor.
constexpr std::uint8_t typeInterrupt = 1, typeControl = 2, typeBulk = 3;

std::uint8_t typeOf(usb::TransferType type) {
    switch (type) {
    case usb::TransferType::control: return typeControl;
    case usb::TransferType::interrupt: return typeInterrupt;
    default: return typeBulk;
    }
}

// The head of a record; numbers low byte first, as the magic number says.
template <std::size_t size>
class Head {
public:
    template <class Number>
    void put(Number number) {
        auto value = static_cast<std::uint64_t>(number);
        for (std::size_t i = 0; i < sizeof number; ++i, value >>= 8) {
            bytes_[length_++] = static_cast<std::uint8_t>(value);
        }
    }
    // Of a record of `whole` bytes, of which `captured` follow.
    void putRecord(std::int64_t timeUs, std::size_t captured, std::size_t whole) {
        put(static_cast<std::uint32_t>(timeUs / usPerSecond));
        put(static_cast<std::uint32_t>(timeUs % usPerSecond));
        put(static_cast<std::uint32_t>(captured));
        put(static_cast<std::uint32_t>(whole));
    }
    void putSetup(const usb::SetupPacket& setup) {
        put(setup.requestType);
        put(setup.request);
        put(setup.value);
        put(setup.index);
        put(setup.length);
    }
    // All of it, and `data`.
    void append(std::vector<std::uint8_t>& out, std::span<const std::uint8_t> data) const {
        out.insert(out.end(), bytes_.begin(), bytes_.end());
        out.insert(out.end(), data.begin(), data.end());
    }

private:
    std::array<std::uint8_t, size> bytes_{};
    std::size_t length_ = 0;
};

}  // namespace

void appendPcapHead(std::vector<std::uint8_t>& out, LinkType type) {
    Head<pcapFileHead> head;
    head.put(magicMicroseconds);
    head.put(std::uint16_t{2});
    head.put(std::uint16_t{4});
    head.put(std::uint64_t{0});
    head.put(static_cast<std::uint32_t>(pcapRecordLimit));
    head.put(static_cast<std::uint32_t>(type));
    head.append(out, {});
}

void appendUsbRecord(std::vector<std::uint8_t>& out, const UsbRecord& record, std::span<const std::uint8_t> data) {
    const bool submitted = record.event == UsbRecord::Event::submitted;
    if (submitted == record.in) {
        data = {};
    }
    const std::size_t captured = std::min(data.size(), pcapRecordLimit - usbmonHead);
    const bool hasSetup = submitted && record.type == usb::TransferType::control;
    const char noData = submitted && record.in ? '<' : !submitted && !record.in ? '>' : '\0';
    Head<pcapRecordHead + usbmonHead> head;
    head.putRecord(record.timeUs, usbmonHead + captured, usbmonHead + data.size());
    head.put(record.id);
    head.put(static_cast<std::uint8_t>(record.event));
    head.put(typeOf(record.type));
    head.put(static_cast<std::uint8_t>((record.in ? 0x80 : 0) | (record.endpoint & 0x0F)));
    head.put(record.device);
    head.put(busNumber);
    head.put(hasSetup ? '\0' : '-');
    head.put(captured != 0 ? '\0' : noData);
    head.put(record.timeUs / usPerSecond);
    head.put(static_cast<std::int32_t>(record.timeUs % usPerSecond));
    head.put(record.status);
    head.put(record.length);
    head.put(static_cast<std::uint32_t>(captured));
    head.putSetup(hasSetup ? record.setup : usb::SetupPacket{});
    head.put(std::uint64_t{0});  // interval and frame: not known here
    head.put(record.in ? flagDirectionIn : 0);
    head.put(std::uint32_t{0});  // isochronous packets
    head.append(out, data.first(captured));
}

void appendPppRecord(std::vector<std::uint8_t>& out, std::int64_t timeUs, bool sent, std::span<const std::uint8_t> frame) {
    Head<pcapRecordHead + 1> head;
    head.putRecord(timeUs, 1 + frame.size(), 1 + frame.size());
    head.put(static_cast<std::uint8_t>(sent));
    head.append(out, frame);
}

std::size_t wholeRecords(std::span<const std::uint8_t> records, std::size_t available) {
    std::size_t whole = 0;
    while (available - whole >= pcapRecordHead) {
        std::size_t length = 0;
        for (std::size_t i = 4; i-- > 0;) {
            length = length << 8 | records[whole + 8 + i];
        }
        if (pcapRecordHead + length > available - whole) {
            break;
        }
        whole += pcapRecordHead + length;
    }
    return whole;
}

}  // namespace comport
