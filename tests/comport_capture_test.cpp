// Captures: the records byte by byte, the PPP frames found on the wire, and the writing of the files.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "comport/capture.h"
#include "modem/hdlc.h"
#include "tests/support/ppp_oracle.h"

namespace {

using comport::Capture;
using comport::FramingWatch;
using comport::UsbRecord;
using test::Bytes;
using test::bytesOf;
using test::hex;
using test::ppp::deviceFrame;
using test::ppp::joined;
using test::ppp::withFcs;
using usb::Transfer;
using usb::TransferStatus;
using usb::TransferType;

// ---- records ----

TEST(Pcap, RecordsByteByByte) {
    const usb::SetupPacket getDescriptor{0x80, 6, 0x0100, 0x0409, 18};
    const std::int64_t timeUs = std::int64_t{0x65432100} * 1'000'000 + 0x0A0B0C;
    using Event = UsbRecord::Event;
    const std::string time = "00214365 0c0b0a00 ", longTime = "0021436500000000 0c0b0a00 ", none = "0000000000000000 ";
    const struct {
        UsbRecord record;
        const char* data;
        std::string expected;
    } cases[] = {
        {{0x1122334455667788, timeUs, Event::submitted, TransferType::control, true, 0, 1, -EINPROGRESS, 18, getDescriptor}, "",
         time + "40000000 40000000 8877665544332211 53 02 80 01 0100 00 3c " + longTime + "8dffffff 12000000 00000000 "
         "8006000109041200 " + none + "00020000 00000000"},
        {{1, timeUs, Event::completed, TransferType::control, true, 0, 1, 0, 2, getDescriptor}, "\x12\x01",
         time + "42000000 42000000 0100000000000000 43 02 80 01 0100 2d 00 " + longTime + "00000000 02000000 02000000 " + none + none +
         "00020000 00000000 1201"},
        {{2, timeUs, Event::submitted, TransferType::bulk, false, 0x02, 99, -EINPROGRESS, 3, {}}, "abc",
         time + "43000000 43000000 0200000000000000 53 03 02 63 0100 2d 00 " + longTime + "8dffffff 03000000 03000000 " + none + none +
         "00000000 00000000 616263"},
        {{2, timeUs, Event::completed, TransferType::bulk, false, 0x02, 99, -EPIPE, 1, {}}, "a",
         time + "40000000 40000000 0200000000000000 43 03 02 63 0100 2d 3e " + longTime + "e0ffffff 01000000 00000000 " + none + none +
         "00000000 00000000"},
    };
    for (const auto& c : cases) {
        Bytes out;
        appendUsbRecord(out, c.record, bytesOf(c.data));
        EXPECT_EQ(out, hex(c.expected)) << c.expected;
    }
    Bytes out;
    appendPcapHead(out, comport::LinkType::usbLinuxMmapped);
    appendPcapHead(out, comport::LinkType::pppWithDirection);
    comport::appendPppRecord(out, timeUs, true, hex("ff03c021"));
    comport::appendPppRecord(out, timeUs, false, hex("c021"));
    EXPECT_EQ(out, hex("d4c3b2a1 0200 0400 00000000 00000000 00000400 dc000000 d4c3b2a1 0200 0400 00000000 00000000 00000400 cc000000 " +
                       time + "05000000 05000000 01 ff03c021 " + time + "03000000 03000000 00 c021"));
}

TEST(Pcap, LongDataIsCutAndAFileIsCutBackToWholeRecords) {
    Bytes records;
    std::vector<std::size_t> ends{0};
    UsbRecord record;
    record.length = 300'000;
    for (const std::size_t size : {std::size_t{300'000}, std::size_t{0}, std::size_t{5}}) {
        appendUsbRecord(records, record, Bytes(size, 0x55));
        ends.push_back(records.size());
    }
    EXPECT_EQ(ends[1], 16u + 262'144u);
    EXPECT_EQ(Bytes(&records[8], &records[16]), hex("00000400 20940400")) << "what there is, what there was";
    for (std::size_t available = ends[1] - 20; available <= records.size(); ++available) {
        const auto whole = std::prev(std::upper_bound(ends.begin(), ends.end(), available));
        ASSERT_EQ(comport::wholeRecords(records, available), *whole) << available;
    }
}

// ---- framed calls ----

// One transfer that is over; a notification, a request of the driver's, or bytes.
struct Wire {
    TransferType type;
    std::uint8_t address;
    usb::SetupPacket setup;
    Bytes data;
    TransferStatus status = TransferStatus::ok;
};
Wire vendor(std::uint8_t request, TransferStatus status = TransferStatus::ok, std::uint8_t requestType = 0x41) {
    return {TransferType::control, 0, {requestType, request, 0, 0, 0}, {}, status};
}
Wire notify(std::uint8_t code, std::uint8_t type = 0xC1, std::size_t size = 8) {
    Wire wire{TransferType::interrupt, 0x83, {}, Bytes(size)};
    wire.data[0] = type;
    wire.data[1] = code;
    return wire;
}
Wire in(Bytes data, TransferStatus status = TransferStatus::ok) { return {TransferType::bulk, 0x81, {}, std::move(data), status}; }
Wire out(Bytes data, TransferStatus status = TransferStatus::ok) { return {TransferType::bulk, 0x02, {}, std::move(data), status}; }

Transfer transferOf(Wire& wire) {
    Transfer transfer;
    transfer.type = wire.type;
    transfer.endpoint = wire.address;
    transfer.setup = wire.setup;
    transfer.data = wire.data.data();
    transfer.length = transfer.actual = static_cast<std::uint32_t>(wire.data.size());
    transfer.status = wire.status;
    return transfer;
}

Bytes slice(const Bytes& bytes, std::size_t from, std::size_t to) { return {&bytes[from], &bytes[0] + to}; }

TEST(FramingWatch, FindsTheFramesOfACall) {
    const Bytes lcp = hex("ff03c0210101"), ip = hex("2145"), huge(2043, 0x21);
    const Bytes toHost = deviceFrame(0, lcp), toModem = deviceFrame(0, withFcs(lcp));
    const Wire start = vendor(0x61), stop = vendor(0x62);
    const TransferStatus stalled = TransferStatus::stalled, cancelled = TransferStatus::cancelled;
    const Bytes raw = hex("7eff7d23c021aa00bb7e");
    const struct {
        const char* name;
        std::vector<Wire> wires;
        std::vector<Bytes> received, sent;
    } cases[] = {
        {"bytes", {in(toHost), out(toModem), notify(0x10), in(toHost), out(toModem)}, {}, {}},
        {"refused", {notify(0x10), vendor(0x61, stalled), in(toHost), out(toModem)}, {}, {}},
        {"framed", {notify(0x10), start, in(toHost), out(toModem)}, {lcp}, {lcp}},
        {"not asked for", {start, in(toHost), out(toModem)}, {lcp}, {lcp}},
        {"not that request",
         {vendor(0x61, TransferStatus::ok, 0xC1), vendor(0x61, TransferStatus::ok, 0x21), vendor(0x60, TransferStatus::ok, 0xC1),
          in(toHost), out(toModem)}, {}, {}},
        {"in pieces, many in one",
         {start, in(slice(toHost, 0, 3)), out(slice(toModem, 0, 5)), in(slice(toHost, 3, 10)), out(slice(toModem, 5, 12)),
          in(joined({deviceFrame(1, ip), deviceFrame(2, huge), deviceFrame(3, {}), deviceFrame(4, ip)}))}, {lcp, ip, huge, ip}, {lcp}},
        {"a wrong check sequence stays, and so does what is too short for one",
         {start, out(deviceFrame(0, joined({lcp, {1, 2}}))), out(deviceFrame(1, {0x21}))}, {}, {joined({lcp, {1, 2}}), {0x21}}},
        {"bytes from before arrive late, garbage between", 
         {start, out(raw), out(toModem), in(joined({raw, hex("aaaa aabb0003 aa"), toHost, hex("00"), toHost}))}, {lcp, lcp}, {lcp}},
        {"half a frame is forgotten by the next start", {start, in(slice(toHost, 0, 6)), out(slice(toModem, 0, 6)), start, in(toHost),
         out(toModem)}, {lcp}, {lcp}},
        {"the end", {start, notify(0x11), in(toHost), out(toModem), stop, in(toHost), out(toModem)}, {}, {lcp}},
        {"the end, refused", {start, vendor(0x62, stalled), in(toHost), out(toModem)}, {}, {}},
        {"asked again", {start, notify(0x10), in(toHost), out(toModem), start, in(toHost), out(toModem)}, {lcp}, {lcp}},
        {"asked again, refused", {start, vendor(0x60, stalled, 0xC1), in(toHost), out(toModem)}, {}, {}},
        {"other notifications", {start, notify(0x11, 0xA1), notify(0x12), notify(0x11, 0xC1, 7), in(toHost), out(toModem)}, {lcp}, {lcp}},
        {"configured anew", {start, {TransferType::control, 0, {0, 9, 1, 0, 0}, {}}, in(toHost), out(toModem)}, {}, {}},
        {"failed transfers", {start, in(toHost, stalled), out(slice(toModem, 0, 5), cancelled), out(slice(toModem, 5, 12))}, {}, {lcp}},
    };
    for (const auto& c : cases) {
        std::vector<Bytes> received, sent;
        FramingWatch watch([&](bool outwards, std::span<const std::uint8_t> frame) {
            (outwards ? sent : received).emplace_back(frame.begin(), frame.end());
        });
        for (Wire wire : c.wires) watch.completed(transferOf(wire));
        EXPECT_EQ(received, c.received) << c.name;
        EXPECT_EQ(sent, c.sent) << c.name;
    }
}

// ---- files ----

// Where captures go, and what they tell.
struct Directory {
    Directory() { path = mkdtemp(name); }
    ~Directory() { std::filesystem::remove_all(path); }
    std::string file() const { return path + "/usb.pcap"; }
    Capture::Options options() {
        return {.path = file(), .queueBytes = 64u << 20, .tell = [this](const auto& line) { told.push_back(line); }};
    }
    char name[32] = "/tmp/capture-test-XXXXXX";
    std::string path;
    std::vector<std::string> told;
};

Bytes contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The same transfer so many times.
void traffic(Capture& capture, unsigned device, unsigned count, Wire wire) {
    Transfer transfer = transferOf(wire);
    for (unsigned i = 0; i < count; ++i) {
        capture.submitted(device, transfer);
        capture.completed(device, transfer);
    }
}

// Checks that the file ends with a whole record, and that each completion follows its submission. Returns the number of records.
std::size_t checkRecords(const Bytes& file) {
    EXPECT_GE(file.size(), comport::pcapFileHead);
    const auto records = std::span(file).subspan(std::min(file.size(), comport::pcapFileHead));
    EXPECT_EQ(comport::wholeRecords(records, records.size()), records.size());
    std::set<std::uint64_t> open;
    std::size_t count = 0;
    for (std::size_t at = 0; at < records.size(); ++count) {
        std::uint32_t length;
        std::uint64_t id;
        std::memcpy(&length, &records[at + 8], sizeof length);
        std::memcpy(&id, &records[at + 16], sizeof id);
        const bool good = records[at + 24] == 'S' ? open.insert(id).second : open.erase(id) == 1;
        EXPECT_TRUE(good) << "record " << count;
        at += comport::pcapRecordHead + length;
    }
    return count;
}

TEST(Capture, ManyDevicesAtOnce) {
    Directory directory;
    std::ofstream(directory.path + "/usb.3.ppp.pcap") << "of an earlier run";
    {
        Capture capture(directory.options());
        std::vector<std::thread> devices;
        for (unsigned device = 1; device <= 4; ++device) {
            devices.emplace_back([&capture, device] { traffic(capture, device, 2000, out(Bytes(100))); });
        }
        for (std::thread& device : devices) device.join();
        EXPECT_FALSE(std::filesystem::exists(directory.path + "/usb.3.ppp.pcap"));
        traffic(capture, 2, 1, vendor(0x61));
        traffic(capture, 2, 1, out(deviceFrame(0, withFcs(hex("ff03c021")))));
    }
    EXPECT_EQ(checkRecords(contents(directory.file())), 2u * (4 * 2000 + 2));
    EXPECT_EQ(directory.told, std::vector<std::string>());
    const Bytes calls = contents(directory.path + "/usb.2.ppp.pcap");
    ASSERT_EQ(calls.size(), 24u + 16 + 1 + 4);
    EXPECT_EQ(slice(calls, 40, 45), hex("01 ff03c021"));
    for (const char* name : {"/usb.pcap", "/usb.2.ppp.pcap"}) {
        const auto mode = std::filesystem::status(directory.path + name).permissions();
        EXPECT_EQ(mode, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }
}

TEST(Capture, WhatDoesNotFitAndAReaderThatDoesNotRead) {
    enum class Reader { late, gone, never };
    const auto handler = std::signal(SIGPIPE, SIG_IGN);
    for (const Reader reader : {Reader::late, Reader::gone, Reader::never}) {
        Directory directory;
        ASSERT_EQ(mkfifo(directory.file().c_str(), 0600), 0);
        comport::UniqueFd end(open(directory.file().c_str(), O_RDONLY | O_NONBLOCK));
        Capture::Options options = directory.options();
        options.queueBytes = 100'000;
        options.patienceMs = reader == Reader::never ? 1 : 60'000;
        auto capture = std::make_unique<Capture>(options);
        // More than the pipe and both halves of the queue hold; it must not wait.
        traffic(*capture, 1, 500, out(Bytes(1000)));
        Bytes got;
        std::thread drain;
        if (reader == Reader::late) {
            fcntl(end.get(), F_SETFL, 0);
            drain = std::thread([&] {
                std::uint8_t buffer[4096];
                for (ssize_t n; (n = read(end.get(), buffer, sizeof buffer)) > 0;) got.insert(got.end(), buffer, buffer + n);
            });
        } else if (reader == Reader::gone) {
            end.reset();
        }
        capture.reset();
        if (drain.joinable()) drain.join();
        std::string all;
        for (const std::string& line : directory.told) all += line;
        EXPECT_NE(all.find("records are missing"), std::string::npos) << all;
        EXPECT_EQ(directory.told.size(), reader == Reader::late ? 1u : 2u) << all;
        if (reader == Reader::late) {
            EXPECT_EQ(checkRecords(got) + std::stoul(all.substr(all.find(": ") + 2)), 2u * 500);
        }
    }
    std::signal(SIGPIPE, handler);
}

TEST(Capture, AFullDiskEndsItWithWholeRecords) {
    Directory directory;
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = before;
    small.rlim_cur = 20'000;
    setrlimit(RLIMIT_FSIZE, &small);
    {
        Capture capture(directory.options());
        traffic(capture, 1, 1000, out(Bytes(100)));
    }
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    const Bytes file = contents(directory.file());
    EXPECT_EQ(checkRecords(file), 153u) << "76 pairs of 260 bytes, and a submission of 180";
    ASSERT_EQ(directory.told.size(), 1u);
    EXPECT_NE(directory.told[0].find("usb.pcap: "), std::string::npos) << directory.told[0];
}

}  // namespace
