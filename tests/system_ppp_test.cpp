// Dial-up through everything: a PPP client on the port, the driver, the bus, and the modem as an access server, in every way
// the modem may ask for framing.
#include "comport/framing_watch.h"
#include "modem/modem.h"
#include "modem/ppp_endpoint.h"
#include "tests/support/ppp_client.h"
#include "tests/system_port.h"
#include "usb/tap.h"

namespace {

using modem::FramingMode;
using modem::Modem;
using test::PppClient;
using test::PppClientOptions;
using test::TestRig;

constexpr ULONG atOnce = 0xFFFFFFFF;  // reads give what is there
constexpr std::uint32_t retransmitMs = 400;

// Counts the frames that a capture would have of the calls.
struct FrameTap : usb::Tap {
    void submitted(unsigned, usb::Transfer&) override {}
    void completed(unsigned, const usb::Transfer& transfer) override { watch.completed(transfer); }

    std::uint64_t sent = 0, received = 0, broken = 0;
    comport::FramingWatch watch{[this](bool toModem, std::span<const std::uint8_t> frame) {
        ++(toModem ? sent : received);
        broken += !modem::pppHead(frame) || (toModem && modem::fcs16(frame) == modem::goodFcs16);
    }};
};

// A machine with the virtual modem, its port open, and somebody who dials.
struct Dialup {
    explicit Dialup(FramingMode mode, std::uint64_t seed = 1, std::uint32_t escapes = 0xFFFFFFFF,
                    const PppClientOptions& client = {})
        : rig({.seed = seed, .plug = false, .bus = {.tap = &tap}}), clientOptions(client), ppp(client) {
        modem::Options options;
        options.framing = mode;
        options.escapedCharacters = modem::controlCharacters(escapes);
        rig.plugOther(std::make_unique<Modem>(options), "0001");
        open();
    }
    void open() {
        ASSERT_EQ(rig.open(file), STATUS_SUCCESS);
        ASSERT_EQ(test::setTimeouts(file, atOnce, 0, 1000), STATUS_SUCCESS);
        ASSERT_EQ(test::control(file, IOCTL_SERIAL_SET_DTR), STATUS_SUCCESS);
    }
    template <class Body>
    auto modem(Body&& body) {
        return rig.first().backend->withDevice([&](usb::Device& device) { return body(static_cast<Modem&>(device)); });
    }
    std::string state() {
        return modem([](Modem& m) { return std::string(m.framingState()); });
    }

    std::string readAll() {
        std::string all, buffer(4096, '\0');
        for (;;) {
            const auto result = file.read(buffer.data(), static_cast<ULONG>(buffer.size()));
            if (result.information == 0) return all;
            all.append(buffer, 0, result.information);
        }
    }
    void write(const std::string& text) {
        if (!text.empty()) file.write(text.data(), static_cast<ULONG>(text.size()));
    }
    bool says(const std::string& answer, std::uint32_t ms = 3000) {
        std::string got;
        return rig.until([&] { return (got += readAll()).find(answer) != std::string::npos; }, ms);
    }

    // In mid mode frames are written in two pieces, with a moment between them.
    void step() {
        const std::string out = ppp.takeOutput();
        const std::size_t cut = pieces ? out.size() / 2 : 0;
        if (cut != 0) {
            write(out.substr(0, cut));
            rig.run(3);
        }
        write(out.substr(cut));
        received = readAll();
        ppp.take(received);
    }
    bool until(const std::function<bool()>& condition, std::uint32_t ms = 4000) {
        std::uint32_t waitedMs = 0;
        return rig.until([&] {
            step();
            if ((waitedMs += 5) % retransmitMs == 0) ppp.retransmit();
            return condition();
        }, ms);
    }
    void idle(std::uint32_t ms) {
        until([] { return false; }, ms);
    }

    bool dial(const std::string& number = "*99#") {
        ppp = PppClient(clientOptions);
        write("ATE0\r");
        rig.run(10);
        readAll();
        write("ATD" + number + "\r");
        if (!says("CONNECT")) return false;
        ppp.begin();
        return until([&] { return ppp.up(); });
    }
    // Sizes at the edges; each comes back whole.
    void exchange() {
        std::vector<std::string> sent;
        for (const std::size_t size : {0u, 1u, 63u, 64u, 255u, 1400u, 1471u, 1472u}) {
            sent.push_back(test::noise(size, static_cast<std::uint32_t>(size)));
            for (std::size_t i = 0; i < std::min<std::size_t>(256, size); ++i) sent.back()[i] = static_cast<char>(i);
            ppp.ping(sent.back());
            ppp.udp(sent.back());
        }
        EXPECT_TRUE(until([&] { return ppp.pongs.size() >= sent.size() && ppp.datagrams.size() >= sent.size(); }));
        EXPECT_TRUE(ppp.pongs == sent) << ppp.pongs.size();
        EXPECT_TRUE(ppp.datagrams == sent) << ppp.datagrams.size();
    }
    void hangUpByDtr() {
        ASSERT_EQ(test::control(file, IOCTL_SERIAL_CLR_DTR), STATUS_SUCCESS);
        rig.run(100);
        readAll();
        ASSERT_EQ(test::control(file, IOCTL_SERIAL_SET_DTR), STATUS_SUCCESS);
    }

    FrameTap tap;
    TestRig rig;
    nt::File file;
    PppClientOptions clientOptions;
    PppClient ppp;
    std::string received;
    bool pieces = false;
};

TEST(PppSystem, DialsExchangesHangsUpAndDialsAgain) {
    using Login = PppClientOptions::Login;
    struct {
        const char* name;
        FramingMode mode;
        std::uint32_t escapes;
        PppClientOptions client;
    } const cases[] = {
        {"bytes", FramingMode::off, 0, {}},
        {"bytes, everything escaped", FramingMode::off, 0xFFFFFFFF, {Login::pap, 0xFFFFFFFF, 0xFFFFFFFF}},
        {"bytes, some escaped", FramingMode::off, 0x000A0000, {Login::refused, 0x0000A00A, 0}},
        {"framed", FramingMode::on, 0, {}},
        {"framed, everything escaped", FramingMode::on, 0xFFFFFFFF, {Login::pap, 0xFFFFFFFF, 0xFFFFFFFF}},
        {"framed, flow control characters escaped", FramingMode::on, 0x000A0000, {Login::refused, 0x000A0000, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Dialup d(c.mode, 1, c.escapes, c.client);
        const bool framed = c.mode == FramingMode::on;
        for (unsigned call = 0; call < 3; ++call) {
            SCOPED_TRACE(call);
            ASSERT_TRUE(d.dial(call == 0 ? "*99#" : "*99***1#")) << d.state() << d.rig.trace();
            EXPECT_EQ(d.ppp.server(), 0xC0000201u);
            EXPECT_EQ(d.ppp.address(), 0xC0000202u);
            d.exchange();
            EXPECT_EQ(d.state(), framed ? "framing" : "bytes");
            EXPECT_EQ(d.ppp.stray, 0u);
            EXPECT_EQ(d.ppp.badFrames, 0u);
            if (call == 1) {
                d.hangUpByDtr();
            } else {
                d.ppp.terminate();
                EXPECT_TRUE(d.until([&] { return d.received.find("NO CARRIER") != std::string::npos; }));
                EXPECT_TRUE(d.ppp.terminated());
            }
            EXPECT_EQ(d.state(), "bytes");
        }
        const auto counters = d.modem([](Modem& m) { return m.framing().counters(); });
        EXPECT_EQ(counters.gaps + counters.badHeaders + counters.dropped + counters.refusals, 0u);
        EXPECT_EQ(counters.starts, framed ? 3u : 0u);
        EXPECT_EQ(d.tap.sent, counters.framesIn);
        EXPECT_EQ(d.tap.received, counters.framesOut);
        EXPECT_EQ(d.tap.broken, 0u);
        EXPECT_EQ(d.modem([](Modem& m) { return m.pppCounters().fcsErrors; }), 0u);
    }
}

// The modem asks when it should not. PPP may have to repeat itself, but it must come up, and end in framing.
TEST(PppSystem, AModemThatMisbehaves) {
    for (const auto mode : {FramingMode::late, FramingMode::midFrame, FramingMode::twice, FramingMode::keep}) {
        for (const auto seed : test::seeds(6)) {
            SCOPED_TRACE(testing::Message() << "mode " << static_cast<int>(mode) << ", seed " << seed);
            Dialup d(mode, seed);
            d.pieces = mode == FramingMode::midFrame;
            ASSERT_TRUE(d.dial()) << d.state() << d.rig.trace();
            d.ppp.ping("first");
            d.until([&] { return d.state() == "framing"; });
            d.idle(100);
            EXPECT_EQ(d.state(), "framing");
            d.ppp.pongs.clear();
            d.exchange();
            if (mode == FramingMode::keep) {
                // The driver goes on framing, so the modem cannot be understood until the port is opened anew.
                d.file.close();
                d.open();
            } else {
                d.hangUpByDtr();
            }
            EXPECT_EQ(d.state(), "bytes");
            ASSERT_TRUE(d.dial()) << d.state() << d.rig.trace();
            d.idle(100);
            d.ppp.pongs.clear();
            d.exchange();
        }
    }
}

// The modem asks while half a frame is on its way and the rest does not come: the driver gives up and nothing is lost.
TEST(PppSystem, AFrameThatIsNotFinishedInTimeStaysBytes) {
    Dialup d(FramingMode::midFrame);
    d.write("ATE0D*99#\r");
    ASSERT_TRUE(d.says("CONNECT"));
    d.ppp.begin();
    const std::string request = d.ppp.takeOutput();
    d.write(request);
    d.rig.run(50);
    EXPECT_EQ(d.state(), "bytes") << "a whole frame is no middle";
    d.write(request.substr(0, 7));
    d.rig.run(50);
    EXPECT_EQ(d.state(), "asked");
    d.rig.run(400);
    d.write(request.substr(7));
    EXPECT_TRUE(d.until([&] { return d.ppp.up(); }));
    d.exchange();
    EXPECT_EQ(d.ppp.badFrames, 0u);
}

// At what point of a call the acts below fell.
struct Moments {
    unsigned connecting = 0, negotiating = 0, framing = 0;
};

// What an application may do at any moment of a call, in any order of events; afterwards everything works.
void interrupted(Dialup& d, void (*act)(Dialup& d), Moments& moments) {
    d.write("ATE0D*99#\r");
    if (nt::sim::random(4) != 0) d.says("CONNECT");
    d.ppp.begin();
    const auto rounds = nt::sim::random(30);
    for (std::uint64_t i = 0; i < rounds; ++i) {
        if (d.ppp.up()) d.ppp.udp(test::noise(1 + nt::sim::random(1400)));
        d.step();
        test::waitAtRandom(d.rig, 300, 4);
    }
    moments.connecting += !d.ppp.heard;
    moments.negotiating += d.ppp.heard && !d.ppp.up();
    moments.framing += d.state() == "framing";
    act(d);
    ASSERT_TRUE(d.dial()) << d.state() << "\n" << d.rig.trace();
    d.exchange();
}

TEST(PppSystem, AnythingInTheMiddleOfACall) {
    struct {
        const char* name;
        void (*act)(Dialup& d);
    } const cases[] = {
        {"unplugged", [](Dialup& d) {
             d.rig.unplug();
             test::waitAtRandom(d.rig, 1000, 30);
             d.modem([](Modem& m) { m.powerCycle(); });
             d.rig.replug();
             d.rig.run(200);
             // The driver keeps its mode for the open port, and the new modem knows nothing of it.
             d.file.close();
             d.open();
         }},
        {"closed", [](Dialup& d) {
             d.file.close();
             test::waitAtRandom(d.rig, 1000, 200);
             d.open();
         }},
        {"DTR", [](Dialup& d) { d.hangUpByDtr(); }},
        {"far end", [](Dialup& d) {
             d.modem([](Modem& m) { m.dropCarrier(); });
             d.idle(100);
             d.hangUpByDtr();
         }},
    };
    Moments moments;
    for (const auto& c : cases) {
        for (const FramingMode mode : {FramingMode::on, FramingMode::twice, FramingMode::late}) {
            for (const auto seed : test::seeds(12)) {
                SCOPED_TRACE(testing::Message() << c.name << ", mode " << static_cast<int>(mode) << ", seed " << seed);
                Dialup d(mode, seed);
                interrupted(d, c.act, moments);
                if (testing::Test::HasFailure()) return;
            }
        }
    }
    if (test::seeds(2).size() == 1) return;
    EXPECT_GT(moments.connecting, 5u);
    EXPECT_GT(moments.negotiating, 5u);
    EXPECT_GT(moments.framing, 5u);
}

}  // namespace
