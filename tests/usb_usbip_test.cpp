// Both ends of a USB/IP connection: each alone against every kind of peer, then one against the other over a wire that splits,
// delays and breaks, below the bus driver and below the driver.
#include "tests/support/port.h"
#include "tests/support/usb_client.h"
#include "tests/support/usbip_desk.h"
#include "tests/support/usbip_wire.h"

#include "kernel/sim.h"
#include "usb/usbip_client.h"

#include <algorithm>

using namespace test;
using namespace usb::usbip;
using usb::Transfer;
using usb::TransferStatus;
using usb::TransferType;
using WireBytes = usb::usbip::Bytes;

namespace {

// The client alone. -------------------------------------------------------------------------------------------------------

WireBytes wire(std::initializer_list<Message> messages, const std::string& payload = {}) {
    WireBytes bytes;
    for (const Message& message : messages) put(bytes, message);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

WireBytes operation(OperationCode code, OperationStatus status = OperationStatus::ok) {
    WireBytes bytes;
    put(bytes, Operation{protocolVersion, code, status});
    return bytes;
}

WireBytes importReply() {
    WireBytes bytes = operation(OperationCode::importReply);
    put(bytes, DeviceRecord{});
    return bytes;
}

Message answer(Command command, std::uint32_t sequence, std::int32_t status) {
    Message message;
    message.command = command;
    message.sequence = sequence;
    message.status = status;
    return message;
}

WireBytes reply(std::uint32_t sequence, std::int32_t status, std::uint32_t actual, const std::string& payload = {}) {
    Message message = answer(Command::submitReply, sequence, status);
    message.actual = actual;
    return wire({message}, payload);
}

WireBytes unlinkReply(std::uint32_t sequence, std::int32_t status) {
    return wire({answer(Command::unlinkReply, sequence, status)});
}

// A transfer with its memory.
struct Move {
    Move(TransferType type, std::uint8_t endpoint, std::uint32_t length) : buffer(length, '-') {
        transfer.type = type;
        transfer.endpoint = endpoint;
        transfer.data = reinterpret_cast<std::uint8_t*>(buffer.data());
        transfer.length = length;
    }
    std::string text() const { return buffer.substr(0, transfer.actual); }
    std::string buffer;
    Transfer transfer;
};

struct Alone {
    Alone() {
        client.connected(0);
        say(importReply());
        EXPECT_EQ(client.state(), Client::State::attached);
        client.output().clear();
        readConfiguration();
        configure(1);
    }
    void say(const WireBytes& bytes) { client.received(bytes); }
    // One request as the server sees it.
    Message sent() {
        WireBytes& out = client.output();
        EXPECT_GE(out.size(), headerBytes);
        if (out.size() < headerBytes) return {};
        const Message message = *messageOf(std::span(out).first(headerBytes));
        const bool payload = message.command == Command::submit && !message.in;
        out.erase(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(headerBytes + (payload ? message.length : 0)));
        return message;
    }
    std::uint32_t submit(Move& move) {
        client.submit(&move.transfer, 0);
        return sent().sequence;
    }
    bool finished(Move& move) { return client.takeFinished() == &move.transfer; }
    void control(const usb::SetupPacket& setup, const std::string& answered = {}) {
        Move move(TransferType::control, 0, setup.length);
        move.transfer.setup = setup;
        say(reply(submit(move), 0, setup.length, answered));
        EXPECT_TRUE(finished(move));
    }
    void configure(std::uint8_t value) { control({0x00, usb::requestSetConfiguration, value, 0, 0}); }
    void readConfiguration() {
        const test::Bytes bytes = cdcConfiguration();
        control({0x80, usb::requestGetDescriptor, 0x0200, 0, static_cast<std::uint16_t>(bytes.size())}, {bytes.begin(), bytes.end()});
    }
    Client client{"1-1"};
};

Move bulkIn(std::uint32_t length = 64) { return Move(TransferType::bulk, 0x81, length); }
Move bulkOut(std::uint32_t length = 64) { return Move(TransferType::bulk, 0x01, length); }

}  // namespace

TEST(UsbipProtocol, RecordsAreAsTheKernelDocumentsThem) {
    Client client("1-1");
    client.connected(0);
    WireBytes expected = {0x01, 0x11, 0x80, 0x03, 0, 0, 0, 0, '1', '-', '1'};
    expected.resize(40);
    EXPECT_EQ(client.output(), expected);

    Message submit;
    submit.sequence = 0x0D05;
    submit.deviceId = 0x0001000F;
    submit.in = true;
    submit.endpoint = 1;
    submit.flags = flagDirectionIn;
    submit.length = 0x40;
    submit.interval = 4;
    const WireBytes documented = {0, 0, 0, 1, 0, 0, 0x0D, 5,    0, 1,    0,    0x0F, 0,    0,    0, 1, 0, 0, 0, 1, 0, 0, 2, 0,
                                  0, 0, 0, 0x40, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(wire({submit}), documented);

    DeviceRecord device;
    device.path = std::string(300, 'p');
    device.busId = "usbip-vudc.0";
    WireBytes bytes;
    put(bytes, device);
    ASSERT_EQ(bytes.size(), deviceBytes);
    EXPECT_EQ(deviceOf(bytes).path, std::string(255, 'p'));
    EXPECT_EQ(deviceOf(bytes).busId, "usbip-vudc.0");
}

TEST(UsbipClient, TheImportSaysWhyItFailed) {
    const auto refusal = [](int status) { return operation(OperationCode::importReply, static_cast<OperationStatus>(status)); };
    WireBytes old = importReply();
    old[0] = 0;
    const std::pair<WireBytes, const char*> cases[] = {
        {refusal(2), "the server has lent 1-1 to somebody else"},
        {refusal(4), "the server has no device 1-1"},
        {refusal(77), "the server refuses 1-1 with status 77"},
        {operation(OperationCode::listReply), "the server does not speak USB/IP 1.1.1"},
        {old, "the server does not speak USB/IP 1.1.1"},
    };
    for (const auto& [said, error] : cases) {
        Client client("1-1");
        client.connected(0);
        for (const std::uint8_t byte : said) client.received(std::span(&byte, 1));
        EXPECT_EQ(client.state(), Client::State::apart);
        EXPECT_EQ(client.error(), error);
    }
}

TEST(UsbipClient, ALieEndsTheConnectionAndEverythingThatWasPending) {
    using Lie = std::function<WireBytes(std::uint32_t in, std::uint32_t out, std::uint32_t unlink)>;
    const std::pair<Lie, const char*> cases[] = {
        {[](auto in, auto, auto) { return reply(in + 1000, 0, 0); }, "the server answers what nobody asked"},
        {[](auto in, auto, auto) { return reply(in, 0, 65, std::string(65, 'x')); }, "the server answers with more than was asked for"},
        {[](auto in, auto, auto) { return reply(in, 0, 0x80000000); }, "the server answers with more than was asked for"},
        {[](auto, auto out, auto) { return reply(out, 0, 33); }, "the server answers with more than was asked for"},
        {[](auto in, auto, auto) {
             const Message stall = answer(Command::submitReply, in, statusStall);
             return wire({stall, stall});
         },
         "the server answers what nobody asked"},
        {[](auto, auto, auto unlink) { return unlinkReply(unlink + 1000, 0); }, "the server answers an unlink that nobody sent"},
        {[](auto in, auto, auto) { return unlinkReply(in, 0); }, "the server answers an unlink that nobody sent"},
        {[](auto, auto, auto) { return WireBytes(48, 0xFF); }, "the server sent a message that is none"},
        {[](auto, auto, auto) { return WireBytes{0, 0, 0, 9}; }, nullptr},
        {[](auto, auto, auto) { return wire({Message{}}); }, "the server sent a request instead of a reply"},
        {[](auto in, auto, auto) { return reply(in, statusShutdown, 0); }, "the server says that the device has left"},
    };
    for (const auto& [lie, error] : cases) {
        Alone s;
        Move in = bulkIn(), out = bulkOut(32), cancelled = bulkIn();
        const std::uint32_t inNumber = s.submit(in), outNumber = s.submit(out);
        s.submit(cancelled);
        s.client.cancel(&cancelled.transfer, 100);
        s.say(lie(inNumber, outNumber, s.sent().sequence));
        // A header that stays incomplete is no lie yet; the unlink that is never answered is.
        if (error == nullptr) s.client.tick(100 + Client::unlinkTimeoutMs);
        EXPECT_EQ(s.client.state(), Client::State::apart);
        EXPECT_EQ(s.client.error(), error != nullptr ? error : "the server does not answer an unlink");
        unsigned ended = 0;
        while (Transfer* transfer = s.client.takeFinished()) {
            ++ended;
            EXPECT_TRUE(transfer->status == TransferStatus::gone || transfer->status == TransferStatus::stalled);
        }
        EXPECT_EQ(ended, 3u);
        EXPECT_EQ(s.client.pending(), 0u);
        Move late = bulkIn();
        s.client.submit(&late.transfer, 0);
        EXPECT_TRUE(s.finished(late));
        EXPECT_EQ(late.transfer.status, TransferStatus::gone);
    }
}

TEST(UsbipClient, RepliesOfAnySizeAreFramedByTheDirectionOfTheRequest) {
    for (const std::size_t piece : {1u, 7u, 48u, 49u, 1000u}) {
        Alone s;
        Move in = bulkIn(128), out = bulkOut(10), stalled = bulkIn(), shortOne = bulkIn(), none = bulkIn();
        WireBytes all;
        const auto add = [&all](const WireBytes& bytes) { all.insert(all.end(), bytes.begin(), bytes.end()); };
        const std::uint32_t first = s.submit(in);
        // The count of an OUT is no payload.
        add(reply(s.submit(out), 0, 10));
        add(reply(first, 0, 100, std::string(100, 'q')));
        add(reply(s.submit(stalled), statusStall, 0));
        add(reply(s.submit(shortOne), statusShort, 3, "abc"));
        add(reply(s.submit(none), 0, 0));
        for (std::size_t at = 0; at < all.size(); at += piece) {
            s.client.received(std::span(all).subspan(at, std::min(piece, all.size() - at)));
        }
        for (Move* move : {&out, &in, &stalled, &shortOne, &none}) EXPECT_TRUE(s.finished(*move)) << piece;
        EXPECT_EQ(out.transfer.actual, 10u);
        EXPECT_EQ(in.text(), std::string(100, 'q'));
        EXPECT_EQ(stalled.transfer.status, TransferStatus::stalled);
        EXPECT_EQ(shortOne.text(), "abc");
        EXPECT_EQ(shortOne.transfer.status, TransferStatus::ok);
        EXPECT_EQ(s.client.state(), Client::State::attached);
    }
}

TEST(UsbipClient, AnUnlinkHasThreeOutcomes) {
    Alone s;
    Move pending = bulkIn(), earlier = bulkIn(), cut = bulkOut(64);
    const std::uint32_t first = s.submit(pending), second = s.submit(earlier), third = s.submit(cut);
    std::uint32_t unlinks[3];
    unsigned at = 0;
    for (Move* move : {&pending, &earlier, &cut}) {
        s.client.cancel(&move->transfer, 0);
        s.client.cancel(&move->transfer, 0);
        unlinks[at++] = s.sent().sequence;
    }
    EXPECT_TRUE(s.client.output().empty()) << "cancelled twice, unlinked once";
    s.say(unlinkReply(unlinks[0], statusReset));
    EXPECT_TRUE(s.finished(pending));
    EXPECT_EQ(pending.transfer.status, TransferStatus::cancelled);
    s.say(reply(second, 0, 3, "abc"));
    EXPECT_TRUE(s.finished(earlier));
    s.say(unlinkReply(unlinks[1], 0));
    EXPECT_EQ(earlier.text(), "abc");
    // The number of bytes that had been taken is known.
    s.say(reply(third, statusReset, 5));
    s.say(unlinkReply(unlinks[2], 0));
    EXPECT_TRUE(s.finished(cut));
    EXPECT_EQ(cut.transfer.status, TransferStatus::cancelled);
    EXPECT_EQ(cut.transfer.actual, 5u);
    EXPECT_EQ(s.client.state(), Client::State::attached);
    EXPECT_FALSE(s.client.deadlineMs());
    // The number of the first is nobody's any more.
    s.say(reply(first, 0, 1, "x"));
    EXPECT_EQ(s.client.error(), "the server answers what nobody asked");
}

TEST(UsbipClient, WhatWouldCostTheConnectionOrNeverEndIsNotSent) {
    struct Case {
        std::uint8_t configuration;
        Move move;
        TransferStatus status;
    };
    Case cases[] = {{0, bulkIn(), TransferStatus::failed},
                    {0, bulkOut(), TransferStatus::failed},
                    {1, Move(TransferType::bulk, 0x85, 64), TransferStatus::failed},
                    {1, bulkIn(0), TransferStatus::ok}};
    for (Case& c : cases) {
        Alone s;
        s.configure(c.configuration);
        s.client.submit(&c.move.transfer, 0);
        EXPECT_TRUE(s.client.output().empty());
        EXPECT_TRUE(s.finished(c.move));
        EXPECT_EQ(c.move.transfer.status, c.status);
    }
}

TEST(UsbipClient, ANotificationThatFillsItsPacketIsAskedForAlone) {
    for (const auto& [wanted, asked] : {std::pair{64u, 10u}, {16u, 10u}, {10u, 10u}, {8u, 8u}}) {
        Alone s;
        Move move(TransferType::interrupt, 0x82, wanted);
        s.client.submit(&move.transfer, 0);
        EXPECT_EQ(s.sent().length, asked);
    }
}

TEST(UsbipClient, DataDoesNotStayPendingAcrossAChangeOfTheConfiguration) {
    Alone s;
    Move in = bulkIn(), notification(TransferType::interrupt, 0x82, 10), set(TransferType::control, 0, 0);
    s.submit(in);
    s.submit(notification);
    set.transfer.setup = {0x00, usb::requestSetConfiguration, 0, 0, 0};
    s.client.submit(&set.transfer, 60'000);
    std::vector<std::uint32_t> unlinks;
    for (int i = 0; i < 2; ++i) {
        const Message unlink = s.sent();
        EXPECT_EQ(unlink.command, Command::unlink);
        unlinks.push_back(unlink.sequence);
    }
    const Message last = s.sent();
    EXPECT_EQ(last.command, Command::submit);
    EXPECT_EQ(s.client.deadlineMs(), 60'000 + Client::unlinkTimeoutMs);
    for (const std::uint32_t unlink : unlinks) s.say(unlinkReply(unlink, statusReset));
    s.say(reply(last.sequence, 0, 0));
    for (Move* move : {&in, &notification, &set}) EXPECT_TRUE(s.finished(*move));
    EXPECT_EQ(in.transfer.status, TransferStatus::failed);
    EXPECT_EQ(notification.transfer.status, TransferStatus::failed);
    EXPECT_EQ(s.client.configuration(), 0);
}

TEST(UsbipBackOff, WaitsLongerEachTimeAndFromTheStartAfterAConnectionThatLasted) {
    BackOff backOff;
    std::vector<std::int64_t> waits;
    for (int i = 0; i < 9; ++i) waits.push_back(backOff.nextMs());
    EXPECT_EQ(waits, (std::vector<std::int64_t>{250, 500, 1000, 2000, 4000, 8000, 16000, 30000, 30000}));
    backOff.connected(1000);
    backOff.lost(2000);
    EXPECT_EQ(backOff.nextMs(), 30000);
    backOff.connected(10000);
    backOff.lost(20000);
    EXPECT_EQ(backOff.nextMs(), 250);
}

// The server alone. -------------------------------------------------------------------------------------------------------

namespace {

struct Desk : UsbipDesk {
    void import() {
        WireBytes bytes = operation(OperationCode::importRequest);
        putBusId(bytes, "1-1");
        server.received(bytes);
        EXPECT_TRUE(server.lending());
        server.output().clear();
    }
    // With or without data behind the answers to requests.
    std::vector<Message> replies(bool data = false) {
        std::vector<Message> all;
        for (std::size_t at = 0; at + headerBytes <= server.output().size(); at += headerBytes) {
            all.push_back(*messageOf(std::span(server.output()).subspan(at, headerBytes)));
            if (data && all.back().command == Command::submitReply) at += all.back().actual;
        }
        server.output().clear();
        return all;
    }
};

Message request(std::uint32_t sequence, bool in, std::uint32_t length, std::uint32_t endpoint = 1) {
    Message message;
    message.sequence = sequence;
    message.deviceId = 0x00010002;
    message.in = in;
    message.endpoint = endpoint;
    message.length = length;
    return message;
}

Message unlinkOf(std::uint32_t sequence, std::uint32_t unlinked) {
    Message message = request(sequence, false, 0, 0);
    message.command = Command::unlink;
    message.unlinked = unlinked;
    return message;
}

}  // namespace

TEST(UsbipServer, AClientThatLiesLosesItsConnectionAndNothingStaysPending) {
    const auto with = [](Message message, std::function<void(Message&)> change) {
        change(message);
        return message;
    };
    const std::pair<WireBytes, const char*> cases[] = {
        {wire({request(1, true, 64), request(1, true, 64)}), "the client used a sequence number twice"},
        {wire({with(request(1, true, 64), [](Message& m) { m.deviceId = 7; })}), "the client asks another device"},
        {wire({request(1, true, Server::maximumLength + 1)}), "the client asks for more than it may have pending"},
        {wire({request(1, false, 0xFFFFFFFF)}), "the client asks for more than it may have pending"},
        {wire({request(1, true, 64, 16)}), "the client sent a request that no device can have"},
        {wire({with(request(1, true, 8, 0), [](Message& m) { m.setup = {0x80, 6, 0, 1, 0, 0, 18, 0}; })}),
         "the client sent a request that no device can have"},
        {wire({with(request(1, false, 18, 0), [](Message& m) { m.setup = {0x80, 6, 0, 1, 0, 0, 18, 0}; })}),
         "the client sent a request that no device can have"},
        {wire({request(1, true, 64), unlinkOf(2, 1), unlinkOf(3, 1)}), "the client unlinks a request twice"},
        {WireBytes(48, 0x7F), "the client sent a message that is none"},
        {wire({with(request(1, true, 0), [](Message& m) { m.command = Command::submitReply; })}),
         "the client sent a reply instead of a request"},
    };
    for (const auto& [bytes, error] : cases) {
        Desk desk;
        desk.import();
        desk.server.received(wire({request(900, true, 64)}));
        desk.server.received(bytes);
        EXPECT_TRUE(desk.server.over());
        EXPECT_EQ(desk.server.error(), error);
        EXPECT_FALSE(desk.cancelled.empty());
        desk.endAll();
        EXPECT_EQ(desk.server.pending(), 0u);
        EXPECT_EQ(desk.server.pendingBytes(), 0u);
        EXPECT_TRUE(desk.server.output().empty());
    }
}

TEST(UsbipServer, AFloodGetsNoMoreMemoryThanAllowed) {
    for (const std::uint32_t length : {0u, 1u, 4096u, Server::maximumLength}) {
        Desk desk;
        desk.import();
        for (std::uint32_t n = 1; n < 10'000 && !desk.server.over(); ++n) {
            desk.server.received(wire({request(n, true, length)}));
            ASSERT_LE(desk.server.pendingBytes(), Server::maximumBytes);
            ASSERT_LE(desk.server.pending(), Server::maximumRequests);
        }
        EXPECT_TRUE(desk.server.over());
        desk.endAll();
    }
}

TEST(UsbipServer, UnlinksAreAnsweredInTheOrderOfWhatHappened) {
    struct Case {
        bool in;
        TransferStatus status;
        std::uint32_t actual;
        std::vector<std::pair<Command, std::int32_t>> replies;
    };
    const Case cases[] = {
        {true, TransferStatus::cancelled, 0, {{Command::unlinkReply, statusReset}}},
        {true, TransferStatus::ok, 3, {{Command::submitReply, 0}, {Command::unlinkReply, 0}}},
        // What had moved is not lost.
        {true, TransferStatus::cancelled, 64, {{Command::submitReply, 0}, {Command::unlinkReply, 0}}},
        {false, TransferStatus::cancelled, 64, {{Command::submitReply, statusReset}, {Command::unlinkReply, 0}}},
        {false, TransferStatus::stalled, 0, {{Command::submitReply, statusStall}, {Command::unlinkReply, 0}}},
    };
    for (const Case& c : cases) {
        Desk desk;
        desk.import();
        WireBytes bytes = wire({request(1, c.in, 128)});
        if (!c.in) bytes.resize(bytes.size() + 128);
        desk.server.received(bytes);
        desk.server.received(wire({unlinkOf(2, 1)}));
        ASSERT_EQ(desk.cancelled.size(), 1u);
        desk.end(desk.cancelled.front(), c.status, c.actual);
        std::vector<std::pair<Command, std::int32_t>> got;
        for (const Message& message : desk.replies(c.in)) {
            got.emplace_back(message.command, message.status);
            if (message.command == Command::submitReply) {
                EXPECT_EQ(message.actual, c.actual);
            }
        }
        EXPECT_EQ(got, c.replies);
        desk.server.received(wire({unlinkOf(3, 1)}));
        EXPECT_EQ(desk.replies().at(0).status, 0) << "it is over";
        EXPECT_FALSE(desk.server.over());
    }
}

TEST(UsbipServer, AListAndARefusalEndTheConnection) {
    Desk desk;
    for (const std::uint8_t byte : operation(OperationCode::listRequest)) desk.server.received(std::span(&byte, 1));
    EXPECT_TRUE(desk.server.over());
    const WireBytes& out = desk.server.output();
    ASSERT_EQ(out.size(), operationBytes + 4 + deviceBytes + 2 * interfaceBytes);
    EXPECT_EQ(countOf(std::span(out).subspan(operationBytes)), 1u);
    EXPECT_EQ(out[out.size() - 8], 2);
    Desk other;
    WireBytes bytes = operation(OperationCode::importRequest);
    putBusId(bytes, "9-9");
    other.server.received(bytes);
    EXPECT_TRUE(other.server.over());
    EXPECT_EQ(operationOf(other.server.output())->status, OperationStatus::noDevice);
    EXPECT_EQ(other.server.output().size(), operationBytes);
}

// One against the other. ----------------------------------------------------------------------------------------------------

namespace {

// A rig whose device is behind a server on a wire.
struct Imported {
    explicit Imported(std::uint64_t seed, bool driver) : rig(options(seed, driver)) {
        if (!driver) client = std::make_unique<UsbClient>(rig.executive());
        auto scripted = std::make_unique<ScriptedDevice>();
        imported.device = scripted.get();
        DeviceRecord record = describe(scripted->deviceDescriptor(), scripted->configurationDescriptor(0));
        record.busId = "1-1";
        record.busNumber = 1;
        record.deviceNumber = 2;
        imported.backend = std::make_shared<usb::VirtualBackend>(std::move(scripted), "exported");
        wire = std::make_unique<UsbipWire>(std::vector{std::make_shared<usb::UsbipExport>(imported.backend, record)});
        backend = std::make_shared<usb::UsbipBackend>(wire->link(), "1-1", "wire:3240");
    }
    ~Imported() {
        rig.unplug();
        rig.settle();
        file.close();
        rig.settle();
        backend->stop();
        wire.reset();
        imported.backend->stop();
    }
    static RigOptions options(std::uint64_t seed, bool driver) {
        RigOptions options = busOnly(seed);
        options.loadDriver = driver;
        return options;
    }
    // It is the rig's first device then.
    bool plug() {
        imported.port = rig.bus().plug(backend, "usbip");
        if (imported.port != 0) rig.first() = imported;
        rig.settle();
        return imported.port != 0;
    }
    bool runs() {
        return std::ranges::any_of(rig.executive().devices(), [&](const nt::DeviceNode& node) {
            return node.instancePath == rig.instancePath() && node.state == nt::DeviceState::started;
        });
    }
    // The port opens and carries bytes.
    void expectWorks() {
        rig.settle();
        ASSERT_EQ(rig.open(file), STATUS_SUCCESS);
        EXPECT_EQ(file.write("hello", 5).status, STATUS_SUCCESS);
        EXPECT_TRUE(rig.until([&] { return rig.device([](ScriptedDevice& d) { return d.outText(); }) == "hello"; }));
    }

    TestRig rig;
    std::unique_ptr<UsbClient> client;
    Plugged imported;
    std::unique_ptr<UsbipWire> wire;
    std::shared_ptr<usb::UsbipBackend> backend;
    nt::File file;
};

std::string noise(std::size_t length) {
    std::string text(length, ' ');
    for (char& c : text) c = static_cast<char>(nt::sim::random(256));
    return text;
}

}  // namespace

TEST(UsbipWire, NothingIsLostOrDoubledInPiecesOfAnySizeUnderUnlinks) {
    for (const std::uint64_t seed : seeds(60)) {
        Imported s(seed, false);
        s.wire->pieceBytes = seed % 3 == 0 ? 1 + nt::sim::random(70) : 0;
        s.wire->delayMs = seed % 2 == 0 ? 5 : 0;
        ASSERT_TRUE(s.plug());
        const ClientPipes pipes = UsbClient::configured();
        std::string sent, got, written;
        for (int round = 0; round < 12; ++round) {
            ClientReads reads;
            for (int i = 0; i < 4; ++i) {
                EXPECT_FALSE(reads.emplace_back(pipes.in, 64 * (1 + nt::sim::random(20))).completedInside);
            }
            nt::Thread canceller("canceller", [&] {
                for (auto& read : reads) {
                    if (nt::sim::random(2) == 0) s.rig.run(nt::sim::random(3));
                    read.cancel();
                }
            });
            const std::string chunk = noise(nt::sim::random(700));
            s.rig.device([&](ScriptedDevice& d) { d.sendBulk(chunk); });
            sent += chunk;
            std::string out = noise(nt::sim::random(300));
            ClientRequest write, empty;
            write.data(pipes.out, false, out.data(), static_cast<ULONG>(out.size())).submit();
            if (!out.empty() && out.size() % 64 == 0) empty.data(pipes.out, false, nullptr, 0).run();
            EXPECT_EQ(write.wait(), STATUS_SUCCESS);
            written += out;
            canceller.join();
            for (auto& read : reads) {
                const NTSTATUS status = read.wait();
                ASSERT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << std::hex << status;
                ASSERT_EQ(read.completions, 1u);
                if (status == STATUS_SUCCESS) got += read.text();
            }
        }
        while (got.size() < sent.size() && !HasFailure()) got += readText(pipes.in);
        EXPECT_TRUE(got == sent);
        EXPECT_TRUE(s.rig.device([](ScriptedDevice& d) { return d.outText(); }) == written);
        if (HasFailure()) break;
    }
}

TEST(UsbipWire, APortResetImportsAnewAndSetsTheConfigurationAgain) {
    for (const std::uint64_t seed : seeds(10)) {
        Imported s(seed, false);
        ASSERT_TRUE(s.plug());
        const ClientPipes pipes = UsbClient::configured();
        ClientRequest reset;
        EXPECT_EQ(reset.run(IOCTL_INTERNAL_USB_RESET_PORT), STATUS_SUCCESS);
        EXPECT_EQ(s.wire->connections(), 2u);
        EXPECT_EQ(s.rig.device([](ScriptedDevice& d) { return d.configuration; }), 1);
        s.rig.device([](ScriptedDevice& d) { d.sendBulk("again"); });
        EXPECT_EQ(readText(pipes.in), "again");
        // One that does not come back has left.
        s.wire->unreachable = true;
        EXPECT_FALSE(NT_SUCCESS(reset.run(IOCTL_INTERNAL_USB_RESET_PORT)));
        s.rig.settle();
        EXPECT_EQ(UsbClient::lower(), nullptr);
    }
}

TEST(UsbipPort, TheConnectionMayBreakBehindAnyByteAndThePortComesBack) {
    for (const std::uint64_t seed : seeds(150)) {
        Imported s(seed, true);
        ASSERT_TRUE(s.plug());
        ASSERT_EQ(s.rig.open(s.file), STATUS_SUCCESS);
        SERIAL_TIMEOUTS timeouts{};
        timeouts.ReadTotalTimeoutConstant = 20;
        ASSERT_EQ(s.file.control(IOCTL_SERIAL_SET_TIMEOUTS, &timeouts, sizeof timeouts).status, STATUS_SUCCESS);
        s.rig.device([](ScriptedDevice& d) { d.echo = true; });
        const std::string com = s.rig.comName(), out = noise(6000);
        std::string got;
        Pending write(out);
        s.wire->cutAfter = s.wire->moved() + nt::sim::random(12'000);
        s.wire->pieceBytes = 1 + nt::sim::random(600);
        write.write(s.file);
        char room[512];
        for (nt::IoResult read{}; s.wire->connected() && !write.done() && NT_SUCCESS(read.status);) {
            read = s.file.read(room, sizeof room);
            got.append(room, NT_SUCCESS(read.status) ? read.information : 0);
        }
        s.wire->cut();
        ASSERT_TRUE(s.rig.until([&] { return !s.runs(); })) << "the driver did not hear of it";
        s.file.close();
        s.rig.settle();
        EXPECT_EQ(write.completions, 1u);
        s.rig.device([&](ScriptedDevice& d) {
            EXPECT_TRUE(out.starts_with(d.outText())) << "the device got other bytes than were sent";
            d.outs.clear();
            d.drop(0x81);
        });
        EXPECT_TRUE(out.starts_with(got)) << "the application got other bytes than came back";
        // It arrives again where it was, and works.
        s.wire->cutAfter = ~0ull;
        s.rig.replug();
        s.expectWorks();
        EXPECT_EQ(s.rig.comName(), com);
        if (HasFailure()) break;
    }
}

TEST(UsbipPort, AServerThatLiesBringsItsPortDownAndNoOther) {
    // All grant the import, but the last.
    const std::pair<UsbipWire::Liar, const char*> cases[] = {
        {[](WireBytes&, WireBytes& back) {
             // A flood of what nobody asked.
             for (std::uint32_t n = 0; n < 1000; ++n) put(back, answer(Command::submitReply, n + 77, 0));
             return true;
         },
         "the server answers what nobody asked"},
        {[](WireBytes&, WireBytes&) { return true; }, "the server does not answer an unlink"},
        {[](WireBytes&, WireBytes&) { return false; }, "the connection was lost"},
        {nullptr, "the server does not answer the import"},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(cases[i].second);
        Imported s(i + 1, true);
        const Plugged other = s.rig.plug(std::make_unique<ScriptedDevice>(), "0002");
        nt::File file;
        ASSERT_EQ(s.rig.open(file), STATUS_SUCCESS);
        bool granted = false;
        s.wire->liar = [&, i](WireBytes& come, WireBytes& back) {
            if (cases[i].first == nullptr) return true;
            if (come.size() <= operationBytes + busIdBytes) {
                if (come.size() == operationBytes + busIdBytes && !granted) back = importReply();
                granted = granted || !back.empty();
                return true;
            }
            return cases[i].first(come, back);
        };
        const bool plugged = s.plug();
        EXPECT_EQ(plugged, cases[i].first != nullptr);
        EXPECT_TRUE(s.rig.until([&] { return s.backend->error() == cases[i].second; }, 20'000)) << s.backend->error();
        // The other one has not noticed.
        EXPECT_EQ(file.write("hello", 5).status, STATUS_SUCCESS);
        EXPECT_TRUE(s.rig.until([&] { return other.backend->withDevice([&](usb::Device&) { return other.device->outText(); }) == "hello"; }));
        file.close();
        // And this one is what it was as soon as its server is.
        s.wire->liar = nullptr;
        ASSERT_TRUE(plugged ? s.rig.bus().replug(s.imported.port) : s.plug());
        s.expectWorks();
    }
}
