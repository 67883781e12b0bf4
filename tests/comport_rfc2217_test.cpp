// The COM port control option: byte dialogues between a client and a port that keeps what it is told.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "comport/net_terminal.h"
#include "tests/comport_port.h"

using namespace comport;
using namespace std::string_literals;

namespace {

std::string doubled(const std::string& bytes) {
    std::string text;
    for (char c : bytes) {
        text.append(c == '\xFF' ? 2 : 1, c);
    }
    return text;
}

// A subnegotiation of the option.
std::string sb(int command, const std::string& value = "") {
    return "\xFF\xFA\x2C"s + doubled(static_cast<char>(command) + value) + "\xFF\xF0"s;
}

const std::string wantsOption = "\xFF\xFB\x2C"s;

// What a server said: data as it is, subnegotiations of the option as "[command:hex]", negotiation left out.
std::string decoded(const std::string& raw) {
    std::string text;
    std::size_t at = 0;
    auto byte = [&] { return static_cast<unsigned char>(raw.at(at++)); };
    while (at < raw.size()) {
        int value = byte();
        if (value != 0xFF || (value = byte()) == 0xFF) {
            text += static_cast<char>(value);
        } else if (value == 0xFA) {
            EXPECT_EQ(byte(), 44);
            text += "[" + std::to_string(byte()) + ":";
            while ((value = byte()) != 0xFF || (value = byte()) != 0xF0) {
                text += {"0123456789abcdef"[value >> 4], "0123456789abcdef"[value & 15]};
            }
            text += "]";
        } else {
            byte();
        }
    }
    return text;
}

struct Rig {
    test::FakePort port;
    NetTerminal terminal{NetProtocol::rfc2217, "tester"};
    Bridge bridge{terminal, port};
    std::int64_t now = 1000;

    explicit Rig(bool negotiates = true) {
        port.logsFlushes = false;
        port.modemStatus = SERIAL_CTS_STATE | SERIAL_DSR_STATE;
        bridge.terminalOpened(now);
        pump();
        if (negotiates) {
            say(wantsOption);
            takeRaw();
            port.log.clear();
        }
    }
    void pump(std::int64_t later = 0) {
        now += later;
        for (int rounds = 0; rounds < 4; ++rounds) {
            bridge.pump(now);
        }
    }
    void say(const std::string& bytes) {
        terminal.receive(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
        pump();
    }
    std::string takeRaw() {
        std::string text(terminal.output().begin(), terminal.output().end());
        terminal.output().clear();
        pump();
        return text;
    }
    std::string told() {
        pump();
        return decoded(takeRaw());
    }
    std::string answer(const std::string& bytes) {
        say(bytes);
        return told();
    }
};

struct Dialogue {
    const char* what;
    std::string client;
    std::string server;  // decoded
    std::string port;
};

const Dialogue dialogues[] = {
    {"baud, with 0xFF in it", sb(1, "\x00\x00\xFF\xFF"s), "[101:0000ffff]", "<baud 65535>"},
    {"baud 3 Mbit/s", sb(1, "\x00\x2D\xC6\xC0"s), "[101:002dc6c0]", "<baud 3000000>"},
    {"baud asked", sb(1, "\x00\x00\x00\x00"s), "[101:0001c200]", ""},
    {"baud cut short", sb(1, "\x01\x02"s), "[101:0001c200]", ""},
    {"a command without a value", sb(2) + sb(3) + sb(4) + sb(5), "[102:08][103:01][104:01][105:01]", ""},
    {"7E2", sb(2, "\7") + sb(3, "\3") + sb(4, "\2"), "[102:07][103:03][104:02]", "<7N0><7E0><7E2>"},
    {"1.5 stop bits", sb(4, "\3") + sb(4, "\0"s), "[104:03][104:03]", "<8N1>"},
    {"mark and space", sb(3, "\4") + sb(3, "\5"), "[103:04][103:05]", "<8M0><8S0>"},
    {"out of range", sb(2, "\4") + sb(2, "\x09") + sb(3, "\6") + sb(3, "\xFF") + sb(4, "\4") + sb(4, "\xFE") + "alive" + sb(1),
     "[102:08][102:08][103:01][103:01][104:01][104:01][101:0001c200]", "alive"},
    {"break", sb(5, "\4") + sb(5, "\5") + sb(5, "\4") + sb(5, "\6") + sb(5, "\4"),
     "[105:06][105:05][105:05][105:06][105:06]", "<+break><-break>"},
    {"DTR and RTS", sb(5, "\7") + sb(5, "\x09") + sb(5, "\7") + sb(5, "\x0A") + sb(5, "\x0C") + sb(5, "\x0A") + sb(5, "\x08") +
     sb(5, "\x0B"), "[105:08][105:09][105:09][105:0b][105:0c][105:0c][105:08][105:0b]", "<-dtr><-rts><+dtr><+rts>"},
    {"both directions of flow control", sb(5, "\3") + sb(5, "\0"s) + sb(5, "\x0D"), "[105:03][105:03][105:10]", "<flow 9>"},
    {"one direction each", sb(5, "\x12") + sb(5, "\x13") + sb(5, "\x11") + sb(5, "\x0F") + sb(5, "\x0E") + sb(5, "\0"s),
     "[105:12][105:13][105:11][105:0f][105:0e][105:11]", "<flow 2><flow 18><flow 34><flow 33><flow 33>"},
    {"an unknown control", sb(5, "\x63"), "[105:01]", ""},
    {"purges", sb(12, "\1") + sb(12, "\2") + sb(12, "\3"), "[112:01][112:02][112:03]", "<purge 8><purge 5><purge 8><purge 5>"},
    {"masks", sb(10, "\xFF") + sb(11, "\x0F") + sb(10) + sb(11), "[110:ff][111:0f][110:ff][111:0f]", ""},
    {"signatures", sb(0) + sb(0, "c\xFF\x01"), "[100:746573746572][100:746573746572]", ""},
    {"the modem lines asked", sb(7) + sb(11, "\x10") + sb(7) + sb(7, "\xFF"), "[107:30][111:10][107:10][107:10]", ""},
    {"not a client's to say", sb(6, "\xFF") + sb(13, "\1") + sb(77) + "\xFF\xFA\x2C\xFF\xF0"s, "", ""},
    {"0xFF in data", "a\xFF\xFF" "b\xFF\xFF\xFF\xFF", "", "a\xFF" "b\xFF\xFF"},
    {"data between requests", "one" + sb(1, "\0\0\4\xB0"s) + "two" + sb(5, "\5") + sb(5, "\6") + "three",
     "[101:000004b0][105:05][105:06]", "one<baud 1200>two<+break><-break>three"},
    {"telnet's own commands", "a\xFF\xF1" "b\xFF\xF6" "c\xFF\xFD\x06" "d", "", "abcd"},
};

}  // namespace

// Also with every dialogue cut in two at each of its bytes, and sent byte by byte.
TEST(Rfc2217, EveryRequestIsAcknowledgedWithTheValueInForce) {
    for (const Dialogue& dialogue : dialogues) {
        SCOPED_TRACE(dialogue.what);
        for (std::size_t cut = 0; cut <= dialogue.client.size(); ++cut) {
            Rig rig;
            rig.say(dialogue.client.substr(0, cut));
            std::string said = rig.takeRaw();
            rig.say(dialogue.client.substr(cut));
            ASSERT_EQ(decoded(said + rig.takeRaw()), dialogue.server) << "cut at " << cut;
            ASSERT_EQ(rig.port.log, dialogue.port) << "cut at " << cut;
        }
        Rig rig;
        for (char c : dialogue.client) {
            rig.say(std::string(1, c));
        }
        EXPECT_EQ(rig.told(), dialogue.server);
    }
}

TEST(Rfc2217, APortWithoutLinesOrAModemLeavesNoRequestUnanswered) {
    for (bool present : {true, false}) {
        Rig rig;
        rig.port.refusesLines = true;
        if (!present) {
            rig.port.unplug();
            rig.pump();
            rig.takeRaw();
        }
        EXPECT_EQ(rig.answer("lost?" + sb(5, "\x09") + sb(5, "\x07") + sb(5, "\x0B") + sb(5, "\5") + sb(5, "\6") +
                             sb(1, "\0\0\x25\x80"s) + sb(12, "\3")),
                  "[105:09][105:09][105:0b][105:05][105:06][101:00002580][112:03]");
    }
}

TEST(Rfc2217, OpeningRaisesTheLinesOnceAndTellsTheModemStateUnasked) {
    Rig rig(false);
    EXPECT_EQ(rig.port.log, "<purge 12><timeouts><baud 115200><8N0><flow 1><+dtr><+rts>");
    rig.takeRaw();
    EXPECT_EQ(rig.answer(wantsOption), "[107:30]");
    EXPECT_EQ(rig.answer("\xFF\xFD\x2C"s), "") << "once is enough";
    rig.port.log.clear();
    rig.say(sb(5, "\x0B") + sb(5, "\x08"));
    EXPECT_EQ(rig.port.log, "<+rts><+dtr>") << "no line may fall";
}

TEST(Rfc2217, ModemStateComesWithItsChangesAsTheMaskAsks) {
    Rig rig;
    struct Case {
        ULONG lines;
        std::string told;
    };
    const Case cases[] = {{0xB0, "[107:b8]"}, {0xF0, "[107:f0]"}, {0xB0, "[107:b4]"}, {0x90, "[107:92]"}, {0x80, "[107:81]"},
                          {0x80, ""},         {0x30, "[107:3b]"}};
    for (const Case& test : cases) {
        rig.port.setModemLines(test.lines);
        EXPECT_EQ(rig.told(), test.told) << std::hex << test.lines;
    }
    rig.say(sb(11, "\x80"));
    rig.port.setModemLines(0x20);
    EXPECT_EQ(rig.told(), "[111:80]") << "CTS was not asked for";
    EXPECT_EQ(rig.answer(sb(11, "\xFF")), "[111:ff][107:21]") << "what changed behind the mask is told now";
}

TEST(Rfc2217, LineStateComesAsTheMaskAsks) {
    Rig rig;
    EXPECT_EQ(rig.port.mask & (SERIAL_EV_BREAK | SERIAL_EV_ERR | SERIAL_EV_RXCHAR | SERIAL_EV_TXEMPTY), 0u);
    const std::pair<std::string, std::string> cases[] = {
        {"\x10", "[106:10]"}, {"\x0E", "[106:0e]"}, {"\x08", "[106:08]"}, {"\x60", "[106:60]"}, {"\x01", "[106:01]"}, {"\0"s, ""}};
    for (const auto& [mask, told] : cases) {
        rig.say(sb(10, mask));
        rig.takeRaw();
        rig.port.endWait(rig.port.mask & (SERIAL_EV_BREAK | SERIAL_EV_ERR | SERIAL_EV_TXEMPTY | SERIAL_EV_RXCHAR));
        EXPECT_EQ(rig.told(), told);
    }
}

TEST(Rfc2217, TheClientOutlivesTheModem) {
    Rig rig;
    rig.say(sb(5, "\x0C") + sb(1, "\0\0\x25\x80"s));
    rig.takeRaw();
    rig.port.unplug();
    EXPECT_EQ(rig.told(), "[107:03]") << "the lines drop";
    EXPECT_EQ(rig.answer("kept" + sb(2, "\7")), "[102:07]");

    rig.port.present = true;
    rig.port.log.clear();
    rig.bridge.modemArrived(rig.now);
    EXPECT_EQ(rig.answer(sb(5, "\x0A")).substr(0, 8), "[105:0c]");
    rig.pump();
    EXPECT_EQ(rig.port.log, "<baud 9600><7N0><flow 1><+dtr><-rts>kept");
    rig.port.setModemLines(0x30);
    rig.port.feed("again");
    EXPECT_NE(rig.told().find("again"), std::string::npos);
    EXPECT_TRUE(rig.port.wait != nullptr) << "the lines are watched again";
}

TEST(Rfc2217, ARequestWaitsForBytesAheadOfItButNotForever) {
    Rig rig;
    rig.port.stalled = true;
    EXPECT_EQ(rig.answer("ahead" + sb(1, "\0\0\x25\x80"s) + "behind"), "");
    rig.port.stalled = false;
    rig.port.serve();
    EXPECT_EQ(rig.told(), "[101:00002580]");
    EXPECT_EQ(rig.port.log, "ahead<baud 9600>behind");

    rig.port.log.clear();
    rig.port.stalled = true;
    rig.say("stuck" + sb(5, "\x09") + sb(5, "\7"));
    rig.pump(Bridge::orderLimitMs - 1);
    EXPECT_EQ(rig.told(), "");
    EXPECT_EQ(rig.bridge.deadlineMs(), rig.now + 1);
    rig.pump(1);
    EXPECT_EQ(rig.told(), "[105:09][105:09]");
    rig.say(sb(12, "\2"));
    rig.port.stalled = false;
    rig.port.serve();
    rig.say("free");
    EXPECT_EQ(rig.port.log, "<-dtr><purge 5>free") << "what was purged is gone";
}

TEST(Rfc2217, APurgeReachesBytesThatFoundNoRoomInThePort) {
    Rig rig;
    rig.port.stalled = true;
    rig.say(std::string(Bridge::writeSlots * Bridge::writeBytes + 1000, 'x'));
    EXPECT_EQ(rig.answer("unread" + sb(12, "\2")), "[112:02]");
    rig.port.stalled = false;
    rig.say("new");
    EXPECT_EQ(rig.port.log, "<purge 5>new");
}

TEST(Rfc2217, SuspendedClientsGetAnswersAndNoData) {
    Rig rig;
    rig.say(sb(8));
    for (int count = 0; rig.port.feed(std::string(100, static_cast<char>('a' + count))); ++count) {
        ASSERT_LT(count, 100) << "the modem is not held back";
        rig.pump();
    }
    EXPECT_EQ(rig.answer(sb(1, "\0\0\0\0"s)), "[101:0001c200]");
    EXPECT_EQ(rig.answer(sb(9)).size(), Bridge::readSlots * 100);
}

// Random bytes both ways in random pieces, against a reader that stalls: none lost, none twice, 0xFF as one.
TEST(Rfc2217, BytesSurviveBothWays) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        auto bytes = [&] {
            std::string text(200000, '\0');
            std::ranges::generate(text, [&] { return static_cast<char>(random() % 3 == 0 ? 0xFF : random()); });
            return text;
        };
        Rig rig;
        std::string down = bytes(), up = bytes(), wire = doubled(down), raw;
        std::size_t sent = 0, fed = 0;
        for (int idle = 0; idle < 100; ++idle) {
            rig.port.stalled = random() % 4 == 0;
            rig.port.serve();
            if (rig.terminal.wantsBytes() && sent < wire.size()) {
                std::size_t length = std::min<std::size_t>(1 + random() % 16384, wire.size() - sent);
                rig.say(wire.substr(sent, length));
                sent += length;
                idle = 0;
            }
            std::size_t length = std::min<std::size_t>(1 + random() % Bridge::readBytes, up.size() - fed);
            if (length > 0 && rig.port.feed(up.substr(fed, length))) {
                fed += length;
                idle = 0;
            }
            rig.pump();
            ASSERT_LE(rig.terminal.output().size(), 3 * NetTerminal::outputLimit);
            if (random() % 8 == 0) {
                raw += rig.takeRaw();
            }
        }
        raw += rig.takeRaw() + rig.takeRaw() + rig.takeRaw() + rig.takeRaw();
        EXPECT_TRUE(rig.port.log == down);
        EXPECT_TRUE(decoded(raw) == up);
    }
}

TEST(Rfc2217, HostileStreamsEndOrStayBounded) {
    const std::pair<const char*, std::string> endless[] = {
        {"of the option", "\xFF\xFA\x2C\x01"s + std::string(100000, 'x')},
        {"of another", "\xFF\xFA\x18\x01"s + std::string(100000, 'x')},
        {"cut off", "\xFF\xFA\x2C\x01\xFF\xFB\x2C"s + std::string(1000, 'x')},
        {"compression", "\xFF\xFA\x56\xFF\xF0"s + std::string(1000, 'x')},
    };
    for (const auto& [what, stream] : endless) {
        SCOPED_TRACE(what);
        Rig rig;
        rig.say(stream);
        EXPECT_TRUE(rig.terminal.broken());
        EXPECT_TRUE(rig.port.log.empty()) << "nothing of it is for the modem";
    }
    // Requests without end from a client that reads no answers.
    Rig rig;
    std::string flood;
    for (int i = 0; i < 1000; ++i) {
        flood += sb(0) + sb(5, "\7") + sb(12, "\1") + "\xFF\xFD\x63"s;
    }
    for (int i = 0; i < 100 && rig.terminal.wantsBytes(); ++i) {
        rig.say(flood);
    }
    EXPECT_FALSE(rig.terminal.wantsBytes());
    EXPECT_LT(rig.terminal.output().size(), 8 * NetTerminal::outputLimit);
}
