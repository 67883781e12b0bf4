// URBs against a scripted device, with nothing between the test and the bus driver but a driver that passes requests down.
#include "tests/support/tap_check.h"
#include "tests/support/usb_client.h"

using namespace test;

namespace {

// A rig, the client, a device, its configuration selected.
struct Wire {
    explicit Wire(std::uint64_t seed = 1) : rig(options(seed, tap)), client(rig.executive()) {
        rig.plug(std::make_unique<ScriptedDevice>(), "0001", true);
        pipes = UsbClient::configured();
    }
    static RigOptions options(std::uint64_t seed, usb::Tap& tap) {
        RigOptions options = busOnly(seed);
        options.bus.tap = &tap;
        return options;
    }
    TapCheck tap;
    TestRig rig;
    UsbClient client;
    ClientPipes pipes;
};

std::string text(std::size_t length, char first = 'a') {
    std::string result(length, ' ');
    for (std::size_t i = 0; i < length; ++i) result[i] = static_cast<char>(first + i % 26);
    return result;
}

}  // namespace

TEST(UsbTransfer, OutTransfersEndWhereAShortPacketDoes) {
    Wire s;
    ClientRequest request;
    const std::vector<std::vector<std::size_t>> cases = {{1}, {63}, {64, 0}, {65}, {128, 64, 10}, {4096, 0}, {0}};
    std::vector<std::string> expected;
    std::string all;
    for (const auto& transfers : cases) {
        std::string whole;
        for (const std::size_t length : transfers) {
            std::string data = text(length, static_cast<char>('A' + whole.size() % 7));
            EXPECT_EQ(request.data(s.pipes.out, false, data.data(), static_cast<ULONG>(length)).run(), STATUS_SUCCESS);
            EXPECT_EQ(request.length(), length);
            EXPECT_FALSE(request.completedInside);
            whole += data;
        }
        expected.push_back(whole);
        all += whole;
    }
    EXPECT_EQ(s.rig.device([](ScriptedDevice& d) { return d.outMessages(); }), expected);
    EXPECT_EQ(s.tap.all(0x01), all);
    const Bytes device = s.rig.device([](ScriptedDevice& d) { return d.deviceBytes; });
    EXPECT_EQ(bytesOf(s.tap.seen.front().data), device) << "what the bus asks for by itself is seen, too";
}

TEST(UsbTransfer, InTransfersEndAtAShortPacketOrWhenFull) {
    struct Case {
        std::vector<std::size_t> sent;  // each ends with a short packet
        ULONG room;
        std::vector<ULONG> received;
    };
    const std::vector<Case> cases = {
        {{10}, 4096, {10}},           {{10, 20}, 4096, {10, 20}},
        {{64}, 4096, {64}},           {{64}, 64, {64, 0}},
        {{200}, 66, {64, 64, 64, 8}}, {{130}, 65536, {130}},
        {{5}, 5, {5}},                {{192}, 191, {128, 64}},
    };
    for (const Case& c : cases) {
        Wire s;
        std::string all;
        s.rig.device([&](ScriptedDevice& d) {
            for (const std::size_t length : c.sent) {
                const std::string one = text(length, static_cast<char>('a' + all.size() % 5));
                d.sendBulk(one);
                all += one;
            }
        });
        std::string got;
        for (const ULONG expected : c.received) {
            const std::string one = readText(s.pipes.in, c.room);
            EXPECT_EQ(one.size(), expected) << "room " << c.room;
            got += one;
        }
        EXPECT_EQ(got, all);
    }
}

TEST(UsbTransfer, WhatTheDeviceDoesNotTakeStaysPendingAndIsNotLost) {
    Wire s;
    s.rig.device([](ScriptedDevice& d) { d.outAllowance = 130; });
    std::string data = text(300);
    ClientRequest request;
    EXPECT_EQ(request.data(s.pipes.out, false, data.data(), 300).submit(), STATUS_PENDING);
    s.rig.run(50);
    EXPECT_FALSE(request.done());
    s.rig.device([](ScriptedDevice& d) {
        EXPECT_EQ(d.outBytes, 128u);
        d.outAllowance = ~0ull;
    });
    EXPECT_EQ(request.wait(), STATUS_SUCCESS);
    EXPECT_EQ(s.rig.device([](ScriptedDevice& d) { return d.outMessages(); }), std::vector<std::string>{data});
}

TEST(UsbTransfer, BadRequestsAreRefusedAndNeverInsideTheCall) {
    Wire s;
    char buffer[64];
    const ClientPipes old = std::exchange(s.pipes, UsbClient::configured());
    using Prepare = std::function<void(ClientRequest&)>;
    const auto transfer = [&](USBD_PIPE_HANDLE pipe, bool in, void* data, ULONG length) -> Prepare {
        return [=](ClientRequest& r) { r.data(pipe, in, data, length); };
    };
    const std::vector<std::pair<Prepare, USBD_STATUS>> cases = {
        {[](ClientRequest& r) { r.pipeRequest(0x77, nullptr); }, USBD_STATUS_INVALID_URB_FUNCTION},
        {[&](ClientRequest& r) {
             r.data(s.pipes.in, true, buffer, 64);
             r.urb.UrbHeader.Length = sizeof(_URB_PIPE_REQUEST);
         },
         USBD_STATUS_INVALID_PARAMETER},
        {transfer(s.pipes.in, false, buffer, 64), USBD_STATUS_INVALID_PARAMETER},
        {transfer(s.pipes.out, true, buffer, 64), USBD_STATUS_INVALID_PARAMETER},
        {transfer(s.pipes.in, true, nullptr, 64), USBD_STATUS_INVALID_PARAMETER},
        {transfer(s.pipes.out, false, buffer, 1u << 24), USBD_STATUS_INVALID_PARAMETER},
        {transfer(nullptr, true, buffer, 64), USBD_STATUS_INVALID_PIPE_HANDLE},
        {transfer(old.in, true, buffer, 64), USBD_STATUS_INVALID_PIPE_HANDLE},
        {transfer(buffer, true, buffer, 64), USBD_STATUS_INVALID_PIPE_HANDLE},
        {[&](ClientRequest& r) { r.pipeRequest(URB_FUNCTION_ABORT_PIPE, old.in); }, USBD_STATUS_INVALID_PIPE_HANDLE},
        {[&](ClientRequest& r) { r.pipeRequest(URB_FUNCTION_RESET_PIPE, old.in); }, USBD_STATUS_INVALID_PIPE_HANDLE},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        ClientRequest request;
        cases[i].first(request);
        EXPECT_EQ(request.submit(), STATUS_PENDING) << i;
        EXPECT_FALSE(NT_SUCCESS(request.wait())) << i;
        EXPECT_EQ(request.usbd(), cases[i].second) << i;
        EXPECT_FALSE(request.completedInside) << i;
    }
    EXPECT_EQ(s.rig.statistics().pending, 0u);
}

TEST(UsbTransfer, AStallHaltsThePipeUntilItIsCleared) {
    Wire s;
    ClientRead first(s.pipes.in, 64), second(s.pipes.in, 64);
    ClientRequest clear;
    clear.pipeRequest(URB_FUNCTION_RESET_PIPE, s.pipes.in);
    EXPECT_EQ(clear.run(), STATUS_DEVICE_BUSY) << "the pipe is not idle";
    s.rig.device([](ScriptedDevice& d) { d.stallIn = 1; });
    first.wait();
    second.wait();
    EXPECT_EQ(first.usbd(), USBD_STATUS_STALL_PID);
    EXPECT_EQ(second.usbd(), USBD_STATUS_STALL_PID);
    first.again(s.pipes.in);
    first.wait();
    EXPECT_EQ(first.usbd(), USBD_STATUS_ENDPOINT_HALTED);
    EXPECT_EQ(clear.run(), STATUS_SUCCESS);
    s.rig.device([](ScriptedDevice& d) { d.sendBulk("again"); });
    EXPECT_EQ(readText(s.pipes.in), "again");
    EXPECT_EQ(s.rig.device([](ScriptedDevice& d) { return d.haltsCleared; }), 1u);
}

TEST(UsbTransfer, AnAbortEndsAfterWhatItAborts) {
    for (const std::uint64_t seed : seeds(50)) {
        Wire s(seed);
        ClientReads reads;
        for (int i = 0; i < 5; ++i) reads.emplace_back(s.pipes.in, 64);
        ClientRequest abort;
        EXPECT_EQ(abort.pipeRequest(URB_FUNCTION_ABORT_PIPE, s.pipes.in).run(), STATUS_SUCCESS);
        for (auto& read : reads) {
            EXPECT_TRUE(read.done());
            EXPECT_EQ(read.usbd(), USBD_STATUS_CANCELED);
            EXPECT_EQ(read.wait(), STATUS_CANCELLED);
        }
        EXPECT_EQ(abort.run(), STATUS_SUCCESS) << "nothing is pending any more";
    }
}

TEST(UsbTransfer, ControlRequestsCarryTheirType) {
    const struct {
        USHORT function;
        UCHAR request;
        bool in;
        USBD_STATUS status;
        unsigned type;
    } table[] = {
        {URB_FUNCTION_CLASS_INTERFACE, 0x22, false, USBD_STATUS_SUCCESS, 0x21},
        // The device sends no more than there is.
        {URB_FUNCTION_CLASS_INTERFACE, 0x21, true, USBD_STATUS_ERROR_SHORT_TRANSFER, 0xA1},
        {URB_FUNCTION_CLASS_INTERFACE, 0x20, false, USBD_STATUS_STALL_PID, 0x21},
        // A stall on the default pipe is over with the next request.
        {URB_FUNCTION_VENDOR_OTHER, 0x61, false, USBD_STATUS_SUCCESS, 0x43},
    };
    Wire s;
    std::uint8_t room[64];
    std::vector<unsigned> types, expected;
    for (const auto& item : table) {
        ClientRequest r;
        auto& u = r.urb.UrbControlVendorClassRequest;
        u.Hdr.Function = item.function;
        u.Hdr.Length = sizeof u;
        u.TransferFlags = item.in ? USBD_TRANSFER_DIRECTION_IN : 0;
        u.TransferBuffer = room;
        u.TransferBufferLength = item.in ? sizeof room : 0;
        u.Request = item.request;
        r.run();
        EXPECT_EQ(r.usbd(), item.status);
        EXPECT_EQ(u.TransferBufferLength, item.in ? 7u : 0u);
        expected.push_back(item.type);
    }
    s.rig.device([&](ScriptedDevice& d) {
        for (const auto& record : d.controls) types.push_back(record.setup.requestType);
    });
    EXPECT_EQ(types, expected);
}

TEST(UsbTransfer, FaultsShowAsTheirStatuses) {
    const std::pair<usb::TransferStatus, USBD_STATUS> cases[] = {{usb::TransferStatus::stalled, USBD_STATUS_STALL_PID},
                                                                 {usb::TransferStatus::failed, USBD_STATUS_XACT_ERROR},
                                                                 {usb::TransferStatus::overrun, USBD_STATUS_DATA_OVERRUN},
                                                                 {usb::TransferStatus::cancelled, USBD_STATUS_CANCELED}};
    for (const auto& [status, usbd] : cases) {
        Wire s;
        usb::Fault fault;
        fault.status = status;
        fault.endpoint = 0x01;
        fault.nth = 2;
        s.rig.faults().add(fault);
        char data[10] = {};
        for (const bool fails : {false, true}) {
            ClientRequest request;
            request.data(s.pipes.out, false, data, sizeof data).run();
            EXPECT_EQ(request.usbd(), fails ? usbd : USBD_STATUS_SUCCESS);
            EXPECT_EQ(s.tap.seen.back().status, fails ? status : usb::TransferStatus::ok);
        }
        EXPECT_EQ(s.rig.device([](ScriptedDevice& d) { return d.outBytes; }), sizeof data);
    }
}

// Races over seeds. ----------------------------------------------------------------------------------------------------

TEST(UsbRace, ACancelledReadLosesNoByte) {
    for (const std::uint64_t seed : seeds(200)) {
        Wire s(seed);
        ClientReads reads;
        for (int i = 0; i < 4; ++i) reads.emplace_back(s.pipes.in, 256);
        nt::Thread canceller("canceller", [&] {
            for (auto& read : reads) read.cancel();
        });
        const std::string sent = "one two three four";
        s.rig.device([](ScriptedDevice& d) { d.sendBulk("one two "); });
        s.rig.device([](ScriptedDevice& d) { d.sendBulk("three four"); });
        canceller.join();
        std::string got;
        for (auto& read : reads) {
            const NTSTATUS status = read.wait();
            EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_CANCELLED) << std::hex << status;
            EXPECT_EQ(read.completions, 1u);
            got += read.text();
        }
        while (got.size() < sent.size() && !HasFailure()) got += readText(s.pipes.in);
        EXPECT_EQ(got, sent);
        EXPECT_EQ(s.tap.all(0x81), sent);
    }
}

TEST(UsbRace, ARequestCancelledBeforeItIsSentEndsAtOnce) {
    for (const std::uint64_t seed : seeds(50)) {
        Wire s(seed);
        char buffer[64];
        ClientRequest read;
        read.data(s.pipes.in, true, buffer, sizeof buffer);
        nt::Thread canceller("canceller", [&] { read.cancel(); });
        read.submit();
        canceller.join();
        // The cancel may have come before the request was set up for sending, which clears it.
        read.cancel();
        EXPECT_EQ(read.wait(100), STATUS_CANCELLED);
        EXPECT_EQ(read.completions, 1u);
    }
}

TEST(UsbRace, EveryPendingRequestEndsOnceWhenTheDeviceIsUnplugged) {
    for (const std::uint64_t seed : seeds(200)) {
        Wire s(seed);
        char buffer[5][256];
        s.rig.device([](ScriptedDevice& d) {
            d.holdOut = true;
            d.onControl = [](const usb::SetupPacket&, std::span<std::uint8_t>) { return usb::ControlReply::never(); };
        });
        usb::PortOptions options;
        options.ignorePrivateControls = true;
        s.rig.bus().setOptions(s.rig.first().port, options);
        std::deque<ClientRequest> all;
        const auto next = [&]() -> ClientRequest& { return all.emplace_back(); };
        for (int i = 0; i < 3; ++i) next().data(s.pipes.in, true, buffer[i], 256).submit();
        next().data(s.pipes.out, false, buffer[3], 100).submit();
        next().data(s.pipes.interrupt, true, buffer[4], 16).submit();
        auto& control = next();
        control.urb.UrbControlVendorClassRequest.Hdr = {sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                                                        URB_FUNCTION_CLASS_DEVICE, 0, nullptr, 0};
        control.submit();
        next().submit(0x89312007);
        nt::Thread sender("sender", [&] {
            for (int i = 0; i < 5; ++i) s.rig.device([](ScriptedDevice& d) { d.sendBulk("xyz"); });
        });
        nt::Thread canceller("canceller", [&] { all[1].cancel(); });
        s.rig.unplug();
        sender.join();
        canceller.join();
        std::size_t gone = 0;
        for (std::size_t i = 0; i < all.size(); ++i) {
            ASSERT_NE(all[i].wait(100), STATUS_TIMEOUT) << i;
            EXPECT_EQ(all[i].completions, 1u) << i;
            gone += i < 6 && all[i].usbd() == USBD_STATUS_DEVICE_GONE;
        }
        EXPECT_EQ(s.tap.count(usb::TransferStatus::gone), gone);
        EXPECT_EQ(s.rig.statistics().pending, 0u);
    }
}

TEST(UsbRace, RequestsThatMeetTheUnpluggingEndOnceAndThenFailAtOnce) {
    for (const std::uint64_t seed : seeds(100)) {
        // The device goes by itself, in the middle of its traffic; the driver above notices nothing of it first.
        Wire s(seed);
        usb::Fault fault;
        fault.action = usb::Fault::Action::leave;
        fault.nth = 1 + static_cast<unsigned>(seed % 7);
        s.rig.faults().add(fault);
        char buffer[64];
        bool gone = false;
        for (int i = 0; i < 12 && UsbClient::lower() != nullptr; ++i) {
            ClientRequest write;
            write.data(s.pipes.out, false, buffer, 10).submit();
            ASSERT_NE(write.wait(100), STATUS_TIMEOUT);
            EXPECT_EQ(write.completions, 1u);
            EXPECT_TRUE(gone || !write.completedInside);
            EXPECT_TRUE(!gone || !NT_SUCCESS(write.wait()));
            gone = gone || write.usbd() == USBD_STATUS_DEVICE_GONE;
        }
        EXPECT_TRUE(gone);
        s.rig.settle();
        EXPECT_EQ(UsbClient::lower(), nullptr) << "the device has not been removed";
    }
}
