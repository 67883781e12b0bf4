// Captures in the pcap format, as tcpdump and Wireshark read them. What stands in the records: tcpdump's list of link types, and
// for USB the description of usbmon in the Linux kernel's documentation. No I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "usb/backend.h"

namespace comport {

enum class LinkType : std::uint32_t {
    pppWithDirection = 204,
    usbLinuxMmapped = 220,
};

inline constexpr std::size_t pcapFileHead = 24;
inline constexpr std::size_t pcapRecordHead = 16;
inline constexpr std::size_t usbmonHead = 64;
inline constexpr std::size_t pcapRecordLimit = 262144;  // of a record without its head; longer data is cut

// What a host's usbmon would tell of one URB, on its way to the device or back.
struct UsbRecord {
    enum class Event : char { submitted = 'S', completed = 'C' };

    std::uint64_t id = 0;      // the same in both events, and in no others
    std::int64_t timeUs = 0;   // since 1970
    Event event = Event::submitted;
    usb::TransferType type = usb::TransferType::bulk;
    bool in = false;
    std::uint8_t endpoint = 0;  // its number
    std::uint8_t device = 0;
    std::int32_t status = 0;    // 0, or an errno of Linux, negative
    std::uint32_t length = 0;   // room or data at submission, what was moved at completion
    usb::SetupPacket setup;     // control
};

// What every file begins with.
void appendPcapHead(std::vector<std::uint8_t>& out, LinkType type);
// `data`: what is there at this event; dropped where usbmon shows none.
void appendUsbRecord(std::vector<std::uint8_t>& out, const UsbRecord& record, std::span<const std::uint8_t> data);
// `frame`: from the address or the protocol on, without flags and escapes.
void appendPppRecord(std::vector<std::uint8_t>& out, std::int64_t timeUs, bool sent, std::span<const std::uint8_t> frame);

// How many of the first `available` bytes of `records` are whole records.
std::size_t wholeRecords(std::span<const std::uint8_t> records, std::size_t available);

}  // namespace comport
