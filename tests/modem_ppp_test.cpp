// PPP calls of the modem: the access server frame by frame, the bytes and device frames that carry it, the switch between them.
#include "modem/hdlc.h"
#include "modem/ppp_endpoint.h"
#include "tests/modem_host.h"
#include "tests/support/ppp_client.h"
#include "tests/support/ppp_oracle.h"

#include <random>

namespace {

using modem::Framing;
using modem::FramingMode;
using modem::HdlcDecoder;
using modem::Modem;
using modem::PppEndpoint;
using test::Bytes;
using test::hex;
using test::ModemHost;
using test::PppClient;
using test::textOf;
using Kind = usb::ControlReply::Kind;
namespace ppp = test::ppp;

constexpr std::uint8_t startNotice = 0x10, stopNotice = 0x11;

// Every byte value, over and over.
std::string everyByte(std::size_t length, unsigned first = 0) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>(i + first);
    return text;
}

// ---- bytes and frames ----

TEST(Hdlc, WhatIsEncodedComesBackInAnyPieces) {
    for (const std::uint32_t map : {0u, 0xFFFF'FFFFu, 0x000A'0000u}) {
        HdlcDecoder decoder(600);
        decoder.setDropped(map);
        std::vector<std::uint8_t> line;
        std::vector<std::string> sent, got;
        for (unsigned i = 1; i < 600; i += 13) {
            sent.push_back(everyByte(i, i));
            std::vector<std::uint8_t> frame;
            modem::encodeHdlc(frame, test::bytesIn(sent.back()), map);
            EXPECT_EQ(frame, ppp::hostFrame(test::bytesOf(sent.back()), ppp::controls(map)));
            ppp::append(line, frame);
            line.insert(line.end(), i % 3, modem::hdlcFlag);
        }
        for (std::size_t at = 0; at < line.size(); ++at) {
            // What slips in on the way is no byte of a frame.
            EXPECT_FALSE(map != 0 && decoder.put(0x11 + (at % 2) * 2));
            if (decoder.put(line[at]))
                got.push_back(textOf(decoder.frame()));
        }
        EXPECT_EQ(got, sent) << std::hex << map;
        EXPECT_EQ(decoder.counters().frames, sent.size());
        EXPECT_EQ(decoder.counters().fcsErrors, 0u);
    }
}

TEST(Hdlc, BrokenFramesAreCountedAndDoNotReachTheNext) {
    std::vector<std::uint8_t> good;
    modem::encodeHdlc(good, hex("FF 03 00 21 45"), 0);
    struct {
        const char* name;
        Bytes before;
        std::uint64_t fcsErrors, tooLong, aborted;
    } const cases[] = {
        {"noise before the first flag", hex("54 41 0D 7D"), 0, 0, 0},
        {"a flipped bit", hex("7E FF 03 00 21 44 12 34"), 1, 0, 0},
        {"one byte", hex("7E 41"), 1, 0, 0},
        {"a check sequence alone", hex("7E 00 00"), 1, 0, 0},
        {"aborted", hex("7E FF 03 00 21 7D"), 0, 0, 1},
        {"too long", Bytes(40, 0x41), 0, 1, 0},
        {"an escape beyond the limit", [] { Bytes b(32, 0x41); b.insert(b.end(), {0x7D, 0x5E}); return b; }(), 0, 1, 0},
    };
    for (const auto& c : cases) {
        HdlcDecoder decoder(30);
        unsigned ended = 0;
        decoder.reset(c.before.front() == 0x41);
        for (const std::uint8_t byte : c.before)
            ended += decoder.put(byte);
        EXPECT_TRUE(decoder.inFrame()) << c.name;
        for (const std::uint8_t byte : good)
            ended += decoder.put(byte);
        EXPECT_EQ(ended, 1u) << c.name;
        EXPECT_FALSE(decoder.inFrame()) << c.name;
        const auto& counted = decoder.counters();
        EXPECT_EQ(counted.fcsErrors, c.fcsErrors) << c.name;
        EXPECT_EQ(counted.tooLong, c.tooLong) << c.name;
        EXPECT_EQ(counted.aborted, c.aborted) << c.name;
    }
}

// ---- the access server, frame by frame ----

// Frames in, one after another; all that comes out, in hexadecimal.
struct Wire {
    explicit Wire(const modem::PppSettings& settings = plain()) : endpoint(settings) {}
    static modem::PppSettings plain() {
        modem::PppSettings settings;
        settings.authenticate = false;
        settings.magic = 0x01020304;
        return settings;
    }
    std::string answers() {
        std::string all;
        for (; !endpoint.output().empty(); endpoint.dropOutput()) {
            char digits[3];
            if (!all.empty())
                all += "|";
            for (const std::uint8_t byte : endpoint.output().subspan(2)) {
                std::snprintf(digits, sizeof(digits), "%02X", byte);
                all += digits;
            }
        }
        return all;
    }
    std::string says(std::string_view frame) {
        endpoint.input(hex(frame));
        return answers();
    }
    void open() {
        EXPECT_EQ(says("FF03 C021 01 07 0004"), ownRequest + "|C02102070004");
        EXPECT_EQ(says("C021 02 01 0010 020600000000 050601020304"), "80210102000A0306C0000201");
        EXPECT_EQ(says("8021 02 02 000A 0306C0000201"), "");
        EXPECT_EQ(says("8021 01 01 000A 0306C0000202"), "80210201000A0306C0000202");
        EXPECT_TRUE(endpoint.opened());
    }

    const std::string ownRequest = "C02101010010020600000000050601020304";
    PppEndpoint endpoint;
};

TEST(PppEndpoint, JudgesOptions) {
    struct {
        const char* name;
        const char* request;
        const char* answer;  // after its own request
    } const cases[] = {
        {"none", "FF03 C021 01 07 0004", "C02102070004"},
        {"all it takes", "C021 01 07 0016 010405DC 020600000000 05060A0B0C0D 0702",
         "C021020700160104" "05DC0206000000000506" "0A0B0C0D0702"},
        {"padding behind the packet", "C021 01 07 0006 0802 FFFFFFFF", "C0210207" "00060802"},
        {"a tiny MRU", "C021 01 07 0008 0104 0040", "C0210307" "000801040080"},
        {"no magic number", "C021 01 07 000A 0506 00000000", "C0210307" "000A0506FEFDFCFB"},
        {"its own magic number", "C021 01 07 000A 0506 01020304", "C0210307" "000A0506FEFDFCFB"},
        {"to be authenticated itself", "C021 01 07 0008 0304 C023", "C0210407" "00080304C023"},
        {"unknown and wrong ones: the unknown first", "C021 01 07 000D 0D03 06 0104 0040 0802", "C0210407" "00070D0306"},
        {"a wrong length of a known one", "C021 01 07 0007 0203 00", "C0210407" "00070203" "00"},
    };
    for (const auto& c : cases) {
        Wire wire;
        EXPECT_EQ(wire.says(c.request), wire.ownRequest + "|" + c.answer) << c.name;
    }
}

TEST(PppEndpoint, DropsWhatIsMalformedOrOutOfPlace) {
    const char* const cases[] = {"", "FF", "FF03", "FF03C0", "C022", "C021", "C0210107", "C02101070003", "C02101070005",
                                 "C0210107000501", "C021010700060101", "C021010700060107", "C0210207000A050601020304",
                                 "C0230101000E04757365720473656372", "C22302010004", "80210101000A030600000000",
                                 "0021450000140000", "80FD01010004"};
    for (const char* frame : cases) {
        Wire wire;
        EXPECT_EQ(wire.says(frame), "") << frame;
        EXPECT_EQ(wire.endpoint.dropped(), 1u) << frame;
        EXPECT_EQ(wire.endpoint.phase(), PppEndpoint::Phase::dead) << frame;
    }
}

TEST(PppEndpoint, AnswersOnAnOpenLink) {
    struct {
        const char* name;
        const char* frame;
        const char* answer;
    } const cases[] = {
        {"echo", "C021 09 22 0009 0A0B0C0D 55", "C0210A2200090102030455"},
        {"echo without a magic number", "C021 09 22 0004", "C0210A22000801020304"},
        {"discard", "C021 0B 22 0008 0A0B0C0D", ""},
        {"an unknown code", "C021 0E 22 0005 99", "C02107030009" "0E22000599"},
        {"an unknown protocol", "80FD 01 01 0004", "C0210803000A" "80FD01010004"},
        {"an unknown protocol, compressed", "FD 00 01", "C0210803" "0008" "00FD0001"},
        {"a protocol reject", "C021 08 22 0006 80FD", ""},
        {"IPCP ends", "8021 05 22 0004", "802106220004"},
        {"another address", "8021 01 09 000A 0306 0A000001", "80210103000A0306C0000201|80210309000A0306C0000202"},
        {"a name server", "8021 01 09 000A 8106 00000000", "80210103000A0306C0000201|80210409000A810600000000"},
        {"compressed headers", "8021 01 09 000A 0206 002D0F01", "80210103000A0306C0000201|80210409000A0206002D0F01"},
        {"the end", "C021 05 22 0006 4242", "C021062200064242"},
        // 192.0.2.2 to 192.0.2.1, ICMP echo of one byte
        {"ping", "0021 4500001D0001000040 01 F6DB C0000202 C0000201 0800 A2FE 0001 0000 55",
         "00214500001D0001000040" "01F6DBC0000201C0000202" "0000AAFE0001000055"},
        {"ping, wrong sum", "0021 4500001D0001000040 01 F6DB C0000202 C0000201 0800 A2FF 0001 0000 55", ""},
        {"ping to another", "0021 4500001D0001000040 01 F6DA C0000202 C0000202 0800 A2FE 0001 0000 55", ""},
        {"wrong header sum", "0021 4500001D0001000040 01 F6DC C0000202 C0000201 0800 A2FE 0001 0000 55", ""},
        {"a total beyond the frame", "0021 4500001E0001000040 01 F6DA C0000202 C0000201 0800 A2FE 0001 0000 55", ""},
        {"a header beyond the frame", "0021 4F00001D0001000040 01 ECDB C0000202 C0000201 0800 A2FE 0001 0000 55", ""},
        {"a fragment", "0021 4500001D0001200040 01 D6DB C0000202 C0000201 0800 A2FE 0001 0000 55", ""},
        {"UDP echo, no sum", "0021 4500001D0001000040 11 F6CB C0000202 C0000201 9C40 0007 0009 0000 41",
         "00214500001D0001000040" "11F6CBC0000201C0000202" "00079C40000" "99E90" "41"},
        {"UDP, another port", "0021 4500001D0001000040 11 F6CB C0000202 C0000201 9C40 0009 0009 0000 41", ""},
        {"UDP, a length beyond the datagram", "0021 4500001D0001000040 11 F6CB C0000202 C0000201 9C40 0007 000A 0000 41", ""},
        {"UDP, from an echo", "0021 4500001D0001000040 11 F6CB C0000202 C0000201 0007 0007 0009 0000 41", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Wire wire;
        wire.open();
        EXPECT_EQ(wire.says(c.frame), c.answer);
    }
}

TEST(PppEndpoint, TriesAgainAndGivesUp) {
    Wire wire;
    std::int64_t nowMs = 0;
    EXPECT_EQ(wire.endpoint.nextDeadlineMs(), std::nullopt) << "silent until the client speaks";
    wire.says("C021 01 07 0004");
    unsigned requests = 1;
    while (wire.endpoint.phase() != PppEndpoint::Phase::over && nowMs < 120'000) {
        ASSERT_TRUE(wire.endpoint.nextDeadlineMs());
        nowMs = *wire.endpoint.nextDeadlineMs();
        wire.endpoint.tick(nowMs);
        const std::string said = wire.answers();
        requests += said.starts_with("C02101");
        EXPECT_EQ(said.starts_with("C02105"), wire.endpoint.phase() == PppEndpoint::Phase::terminate) << said;
    }
    EXPECT_EQ(requests, PppEndpoint::maxTries);
    EXPECT_EQ(nowMs, PppEndpoint::maxTries * PppEndpoint::restartMs + PppEndpoint::lingerMs);
    EXPECT_EQ(wire.says("C021 01 07 0004"), "") << "it is over";
}

TEST(PppEndpoint, GivesWayOnItsOwnOptionsAndStartsOverWhenAskedTo) {
    modem::PppSettings settings = Wire::plain();
    settings.authenticate = true;
    Wire wire(settings);
    EXPECT_EQ(wire.says("C021 01 07 0004"), "C021010100150206000000000305C223050506" "01020304|C02102070004");
    EXPECT_EQ(wire.says("C021 03 01 0008 0304 C023"), "C021010200140206000000000304C0230506" "01020304");
    EXPECT_EQ(wire.says("C021 04 02 000A 0506 01020304"), "C0210103000E0206000000000304C023");
    EXPECT_EQ(wire.says("C021 02 03 000E 020600000000 0304C023"), "") << "waits for the name";
    EXPECT_EQ(wire.says("C023 01 05 000B 0161 0362"), "") << "a secret beyond the packet";
    EXPECT_EQ(wire.says("C023 01 05 0008 0161 0162"), "C0230205000500|80210104000A0306C0000201");
    EXPECT_EQ(textOf(wire.endpoint.clientName()), "a");
    EXPECT_EQ(wire.says("C023 01 06 0008 0161 0162"), "C0230206000500") << "the answer was lost";
    EXPECT_EQ(wire.says("C021 01 09 0004").substr(0, 8), "C0210105") << "from the beginning";
    EXPECT_FALSE(wire.endpoint.opened());
    EXPECT_EQ(wire.says("8021 01 01 000A 0306C0000202"), "");
}

// ---- calls ----

// What the driver of the host does in PPP calls: converts while it is in framing, switches when it is asked to.
struct Dialled {
    explicit Dialled(FramingMode mode = FramingMode::on) { host.device.setFraming({mode, 0xFFFF'FFFF}); }

    void call() {
        host.lines(3);
        host.call("*99#");
        client = PppClient();
        client.begin();
    }

    bool up() {
        return until([&] { return client.up(); });
    }
    // With time for the switch into framing.
    void connect() {
        call();
        ASSERT_TRUE(up());
        idle(100);
    }
    bool pings(const std::string& payload, unsigned limit = 5000) {
        client.ping(payload);
        return until([&] { return !client.pongs.empty() && client.pongs.back() == payload; }, limit);
    }

    // Once around: requests of the modem, bytes out, bytes in, a little time.
    void step() {
        look();
        out += toDevice(client.takeOutput());
        const std::int32_t taken = out.empty() ? 0 : host.write(out);
        if (taken > 0)
            out.erase(0, static_cast<std::size_t>(taken));
        look();
        take(host.read());
        host.pass(1);
        if (++steps % 500 == 0)
            client.retransmit();
    }
    bool until(const auto& condition, unsigned limit = 5000) {
        for (unsigned i = 0; i < limit && !condition(); ++i)
            step();
        return condition();
    }
    void idle(std::int64_t ms) {
        for (std::int64_t i = 0; i < ms; ++i)
            step();
    }
    void look() {
        while (listens) {
            const Bytes bytes = host.notification();
            if (bytes.empty())
                return;
            if ((bytes[0] & 0x60) != 0x40)
                continue;
            notices.push_back(bytes[1]);
            if (!answers)
                continue;
            if (bytes[1] == stopNotice) {
                framing = false;
                host.control({0x41, 0x62, 0, 0, 0});
            } else {
                start();
            }
        }
    }
    void start() {
        Bytes list(256);
        const auto reply = host.control({0xC1, 0x60, 0, 0, 0}, list);
        escapes.assign(list.begin(), list.begin() + reply.length);
        if (host.control({0x41, 0x61, 0, 0, 0}).kind != Kind::ack)
            return;
        framing = true;
        sequence = deviceSequence = 0;
        held.clear();
        deviceBytes.clear();
    }
    std::string toDevice(const std::string& bytes) {
        if (!framing)
            return bytes;
        held += bytes;
        const std::size_t end = held.rfind('\x7E') + 1;  // 0: no frame has ended
        const ppp::ToDevice frames = ppp::toDevice(test::bytesOf(held.substr(0, end)), sequence);
        sequence = frames.next;
        held.erase(0, end);
        return textOf(ppp::joined(frames.frames));
    }
    void take(const std::string& bytes) {
        received += bytes;
        if (!framing) {
            client.take(bytes);
            return;
        }
        deviceBytes += bytes;
        const Bytes& special = client.up() ? escapes : ppp::controls(0xFFFF'FFFF);
        const ppp::ToHost host = ppp::toHost(test::bytesOf(deviceBytes), special, deviceSequence);
        EXPECT_EQ(host.strayBytes + host.badMagic + host.badSequence, 0u) << "the modem's frames follow each other";
        client.take(textOf(host.bytes));
        deviceBytes.erase(0, host.used);
        // A frame whose header alone has come is judged once more.
        deviceSequence = host.expected - (deviceBytes.size() >= 4 ? 1 : 0);
    }
    std::string_view state() { return host.device.framingState(); }

    ModemHost host;
    PppClient client;
    bool listens = true;  // to notifications
    bool answers = true;
    bool framing = false;
    unsigned sequence = 0, deviceSequence = 0, steps = 0;
    Bytes escapes, notices;
    std::string out, held, deviceBytes, received;
};

// A megabyte through a host that reads when it likes, in pieces of any size: nothing is lost in either mode.
TEST(PppCall, LosesNothingUnderBackPressure) {
    for (const FramingMode mode : {FramingMode::off, FramingMode::on}) {
        for (const unsigned seed : {1u, 2u}) {
            SCOPED_TRACE(testing::Message() << "mode " << static_cast<int>(mode) << ", seed " << seed);
            std::mt19937 random(seed);
            Dialled d(mode);
            d.connect();
            std::string sent, echoed;
            unsigned refused = 0;
            while (sent.size() < 1'000'000 || !d.out.empty()) {
                while (d.out.size() < 200'000 && sent.size() < 1'000'000) {
                    const std::string block = everyByte(1 + random() % 1472, static_cast<unsigned>(random()));
                    d.client.udp(block);
                    sent += block;
                    d.out += d.toDevice(d.client.takeOutput());
                }
                const std::size_t size = std::min<std::size_t>(d.out.size(), random() % 4 == 0 ? 64 : 1 + random() % 90'000);
                const std::int32_t taken = d.host.write(std::string_view(d.out).substr(0, size));
                refused += taken < 0;
                d.out.erase(0, static_cast<std::size_t>(std::max(taken, 0)));
                if (random() % 3 == 0 || taken < 0)
                    d.take(d.host.transfer(random() % 2 == 0 ? 64 : 1 + random() % 20'000).value_or(""));
            }
            d.idle(100);
            for (const std::string& block : d.client.datagrams)
                echoed += block;
            EXPECT_TRUE(echoed == sent) << echoed.size() << " of " << sent.size();
            EXPECT_NE(refused, 0u) << "the modem held back";
        }
    }
}

// ---- the switch ----

const struct {
    const char* name;
    void (*act)(Dialled& d);
    bool tells;  // NO CARRIER
} hangUps[] = {
    {"DTR", [](Dialled& d) { d.host.lines(2); }, false},
    {"far end", [](Dialled& d) { d.host.device.dropCarrier(); }, true},
    {"LCP", [](Dialled& d) { d.client.terminate(); }, true},
};

TEST(PppSwitch, EndsWithTheCallHoweverItEnds) {
    for (const auto& hangUp : hangUps) {
        for (const FramingMode mode : {FramingMode::on, FramingMode::twice, FramingMode::keep}) {
            SCOPED_TRACE(testing::Message() << hangUp.name << ", mode " << static_cast<int>(mode));
            Dialled d(mode);
            d.connect();
            EXPECT_EQ(d.state(), "framing");
            EXPECT_EQ(d.notices, mode == FramingMode::twice ? Bytes(3, startNotice) : Bytes{startNotice});
            d.notices.clear();
            EXPECT_TRUE(d.pings("x"));
            d.received.clear();
            hangUp.act(d);
            d.out += d.toDevice(d.client.takeOutput());
            d.framing &= mode != FramingMode::keep;  // so that what comes is not taken for frames
            d.idle(600);
            EXPECT_EQ(d.notices, mode == FramingMode::keep ? Bytes{} : Bytes{stopNotice});
            EXPECT_EQ(d.state(), "bytes");
            EXPECT_EQ(d.received.ends_with("\r\nNO CARRIER\r\n"), hangUp.tells) << d.received;
            d.host.lines(3);
            EXPECT_EQ(d.host.ask("AT\r"), "\r\nOK\r\n");
        }
    }
}

TEST(PppSwitch, AHostThatDoesNotAnswerGetsBytes) {
    for (const bool listens : {false, true}) {
        SCOPED_TRACE(listens);
        Dialled d;
        d.listens = listens;
        d.answers = false;
        d.call();
        ASSERT_TRUE(d.up());
        EXPECT_EQ(d.state(), "asked");
        EXPECT_TRUE(d.pings("asked"));
        d.idle(Framing::answerMs);
        EXPECT_EQ(d.state(), "bytes");
        EXPECT_EQ(d.host.device.framing().counters().refusals, 1u);
        EXPECT_NE(d.host.control({0x41, 0x61, 0, 0, 0}).kind, Kind::ack) << "nobody asks any more";
        EXPECT_TRUE(d.pings("bytes"));
        for (int i = 0; i < 5; ++i) {
            d.client.sendFrame(0xC021, std::string("\x09\x01\0\x08", 4) + "abcd");
            d.idle(Framing::answerMs + 1);
        }
        EXPECT_EQ(d.host.device.framing().counters().refusals, Framing::maxAsks) << "it does not go on asking";
        d.host.lines(2);
        d.listens = true;
        d.notices.clear();
        d.idle(10);
        EXPECT_EQ(d.notices, Bytes{}) << "nothing to stop";
    }
}

// From the reading of the escapes on nothing is said that the host could take in the wrong way, and nothing is lost.
TEST(PppSwitch, IsSilentWhileTheHostChangesOver) {
    Dialled d;
    d.answers = false;
    d.call();
    ASSERT_TRUE(d.up());
    Bytes list(256);
    ASSERT_EQ(d.host.control({0xC1, 0x60, 0, 0, 0}, list).length, 32u);
    d.client.ping("held");
    d.received.clear();
    d.idle(100);
    EXPECT_EQ(d.received, "");
    d.start();
    ASSERT_TRUE(d.framing);
    d.host.pass(Framing::settleMs - 1);
    EXPECT_EQ(d.host.read(), "");
    EXPECT_TRUE(d.until([&] { return d.client.pongs.size() == 1; }));
    EXPECT_EQ(d.client.badFrames, 0u);
}

TEST(PppSwitch, StopsWhatItBeganInEveryState) {
    struct {
        const char* name;
        bool listens;       // the host fetches notifications
        bool readsEscapes;  // and has read them
        bool starts;        // and has started, though the modem does not know before its next round
        bool answersStop;
        Bytes notices;
        std::int64_t silenceMs;  // until NO CARRIER
    } const cases[] = {
        {"before the host heard", false, false, false, false, {}, 0},
        {"before the host answered", true, false, false, true, {startNotice, stopNotice}, Framing::settleMs},
        {"when the host has read the escapes", true, true, false, true, {startNotice, stopNotice}, Framing::settleMs},
        {"when the host has just started", true, true, true, true, {startNotice, stopNotice}, Framing::settleMs},
        {"a host that never stops", true, true, true, false, {startNotice, stopNotice}, Framing::answerMs},
        {"a host that closed its port", false, true, true, false, {}, Framing::noticeMs},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Dialled d;
        d.answers = false;
        d.call();
        d.listens = c.listens;
        d.host.write(d.client.takeOutput());
        d.host.read();
        d.look();
        Bytes list(256);
        if (c.readsEscapes)
            d.host.control({0xC1, 0x60, 0, 0, 0}, list);
        EXPECT_EQ(c.starts && d.host.control({0x41, 0x61, 0, 0, 0}).kind == Kind::ack, c.starts);
        d.host.device.dropCarrier();
        d.answers = c.answersStop;
        std::int64_t silentMs = 0;
        d.received.clear();
        while (d.received.empty() && silentMs < 5000) {
            d.look();
            d.received += d.host.read();
            silentMs += d.received.empty();
            d.host.pass(1);
        }
        EXPECT_EQ(d.received, "\r\nNO CARRIER\r\n");
        EXPECT_NEAR(static_cast<double>(silentMs), static_cast<double>(c.silenceMs), 3);
        EXPECT_EQ(d.notices, c.notices);
        EXPECT_EQ(d.state(), "bytes");
        d.listens = true;
        d.notices.clear();
        d.look();
        EXPECT_EQ(d.notices, Bytes{}) << "nothing stale for who opens the port next";
    }
}

// The end of what the host sent as bytes may reach the modem when the host has already started framing.
TEST(PppSwitch, BytesHeldUpOnTheWayAreStillBytes) {
    for (const bool cut : {false, true}) {
        SCOPED_TRACE(cut);
        Dialled d;
        d.answers = false;
        d.call();
        ASSERT_TRUE(d.up());
        d.client.ping("first");
        d.client.ping("second");
        const std::string raw = d.client.takeOutput();
        const std::size_t before = cut ? 20 : 0;
        d.host.write(raw.substr(0, before));
        d.start();
        ASSERT_TRUE(d.framing);
        d.host.pass(1);
        d.client.ping("third");
        d.host.write(raw.substr(before));
        d.host.write(d.toDevice(d.client.takeOutput()));
        d.idle(100);
        EXPECT_EQ(d.client.pongs, (std::vector<std::string>{"first", "second", "third"}));
        EXPECT_EQ(d.host.device.framing().counters().badHeaders, 0u);
    }
}

TEST(PppFrames, HostileOnesAreCountedAndTheNextIsFound) {
    struct {
        const char* name;
        std::string bytes;
        std::uint64_t badHeaders, gaps;
    } const cases[] = {
        {"nothing", "", 0, 0},
        {"noise", "\x01\xAA\xAA\x02 and more noise\xAA", 1, 0},
        {"a length below the header", std::string("\xAA\xBB\0\x03", 4), 1, 0},
        {"an empty frame", std::string("\xAA\xBB\0\x04", 4), 0, 0},
        {"the wrong second byte", "\xAA\xAA", 1, 0},
        {"a frame of zeros", std::string("\xAA\xBB\0\x20", 4) + std::string(28, '\0'), 0, 0},
        {"the longest", std::string("\xAA\xBB\x07\xFF", 4) + std::string(2043, '\x7E'), 0, 0},
        {"numbers left out", std::string("\xAA\xBB\x18\x06zz", 6), 0, 3},
        {"a number again", std::string("\xAA\xBB\0\x06zz\xAA\xBB\0\x06zz", 12), 0, 31},
    };
    for (const auto& c : cases) {
        for (const std::size_t piece : {1u, 3u, 4096u}) {
            SCOPED_TRACE(testing::Message() << c.name << " in pieces of " << piece);
            Dialled d;
            d.connect();
            const auto before = d.host.device.framing().counters();
            // As if the numbers began here: they count on from what came.
            std::string bytes = c.bytes;
            for (std::size_t at = 0; (at = bytes.find("\xAA\xBB", at)) != std::string::npos && at + 2 < bytes.size(); at += 4)
                bytes[at + 2] = static_cast<char>(bytes[at + 2] + ((d.sequence & 31) << 3));
            for (std::size_t at = 0; at < bytes.size(); at += piece)
                d.host.write(std::string_view(bytes).substr(at, piece));
            const auto& counters = d.host.device.framing().counters();
            EXPECT_EQ(counters.badHeaders - before.badHeaders, c.badHeaders);
            EXPECT_EQ(counters.gaps - before.gaps, c.gaps);
            EXPECT_TRUE(d.pings("after", 100));
        }
    }
}

TEST(PppFrames, SurviveAResetOfTheBusAndEndWithThePower) {
    Dialled d;
    d.connect();
    d.host.device.busReset();
    d.host.device.configured(1);
    EXPECT_TRUE(d.pings("again"));
    d.host.device.powerCycle();
    d.host.device.configured(1);
    EXPECT_EQ(d.state(), "bytes");
    d.framing = false;
    d.call();
    EXPECT_TRUE(d.up());
}

}  // namespace
