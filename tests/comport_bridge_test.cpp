// The bridge between a terminal and a COM port, against a terminal and a port that do whatever a seed says.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>

#include "tests/comport_port.h"

using namespace comport;

namespace {

using test::FakePort;
using State = Bridge::State;

struct FakeTerminal : Terminal {
    std::deque<std::uint8_t> written;  // by the application, not read yet
    std::deque<unsigned> events;       // each ahead of all bytes
    bool open = true;
    std::string shown;                 // what the application has got
    std::size_t space = SIZE_MAX;
    std::size_t pieceLimit = SIZE_MAX;
    LineSettings line;
    int discards = 0;

    void type(const std::string& text) { written.insert(written.end(), text.begin(), text.end()); }
    void set(const LineSettings& settings) {
        line = settings;
        events.push_back(changedSettings);
    }

    TerminalInput read(std::span<std::uint8_t> room) override {
        if (!events.empty()) {
            unsigned bits = events.front();
            events.pop_front();
            return {TerminalInput::Kind::event, 0, bits};
        }
        std::size_t length = std::min({room.size(), written.size(), pieceLimit});
        if (length == 0) {
            return {open || !written.empty() ? TerminalInput::Kind::none : TerminalInput::Kind::closed, 0, 0};
        }
        std::copy_n(written.begin(), length, room.begin());
        written.erase(written.begin(), written.begin() + static_cast<std::ptrdiff_t>(length));
        return {TerminalInput::Kind::data, length, 0};
    }
    std::size_t waiting() override { return written.size(); }
    std::size_t write(std::span<const std::uint8_t> bytes) override {
        std::size_t length = std::min(bytes.size(), space);
        shown.append(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
        space -= space == SIZE_MAX ? 0 : length;
        return length;
    }
    LineSettings settings() override { return line; }
    void discardWritten() override { ++discards; }
};

constexpr const char* opening = "<purge 12><timeouts><baud 115200><8N0><+dtr><+rts>";

struct Rig {
    FakeTerminal terminal;
    FakePort port;
    Bridge bridge{terminal, port};
    std::int64_t now = 1000;

    Rig() { port.stalled = true; }
    void start() {
        bridge.terminalOpened(now);
        bridge.pump(now);
        ASSERT_EQ(bridge.state(), State::running);
        EXPECT_EQ(port.log, opening);
        port.log.clear();
    }
    void pump(std::int64_t later = 0) { bridge.pump(now += later); }
};

std::string randomBytes(std::mt19937& random, std::size_t length) {
    std::string bytes(length, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>('a' + random() % 26); });
    return bytes;
}

// News overtake each other.
void deliverSome(FakePort& port, std::mt19937& random) {
    std::ranges::shuffle(port.unseen, random);
    for (std::size_t count = random() % (port.unseen.size() + 1); count > 0; --count) {
        port.unseen.back()->ended = true;
        port.unseen.pop_back();
    }
}

}  // namespace

// Whatever the order of ends, the sizes, the failures and the pauses: every byte once, in order, both ways.
TEST(Bridge, CarriesEveryByteOnceInOrder) {
    for (unsigned seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        Rig rig;
        rig.start();
        rig.port.delayNews = true;
        rig.terminal.space = 0;
        std::string typed, sent;
        for (int round = 0; round < 400; ++round) {
            bool last = round >= 300;
            switch (random() % 8) {
            case 0:
                if (!last) {
                    std::string text = randomBytes(random, random() % 9000);
                    rig.terminal.type(text);
                    typed += text;
                }
                break;
            case 1: rig.terminal.pieceLimit = 1 + random() % 4096; break;
            case 2: rig.port.takeBytes(random() % 6000); break;
            case 3: {
                std::string text = randomBytes(random, 1 + random() % 5000);
                if (!last && rig.port.feed(text)) {
                    sent += text;
                }
                break;
            }
            case 4: rig.terminal.space = random() % 6000; break;
            case 5: deliverSome(rig.port, random); break;
            case 6:
                if (!last && random() % 4 == 0) {
                    rig.port.unplug();
                }
                break;
            case 7: rig.port.present = true; break;
            }
            ASSERT_LE(rig.port.reads.size(), Bridge::readSlots);
            rig.pump(static_cast<std::int64_t>(random() % 60));
        }
        rig.port.present = true;
        rig.port.delayNews = rig.port.stalled = false;
        rig.terminal.space = rig.terminal.pieceLimit = SIZE_MAX;
        for (int round = 0; round < 200; ++round) {
            rig.port.deliverNews();
            rig.port.serve();
            rig.pump(Bridge::retryMs);
        }
        ASSERT_TRUE(rig.port.log == typed) << rig.port.log.size() << " bytes of " << typed.size();
        ASSERT_TRUE(rig.terminal.shown == sent) << rig.terminal.shown.size() << " bytes of " << sent.size();
    }
}

TEST(Bridge, SettingsAndTheEndHaveTheirPlaceInTheStream) {
    struct Case {
        const char* name;
        void (*act)(Rig&);
        const char* log;
    };
    const Case cases[] = {
        {"the same settings again send nothing",
         [](Rig& rig) {
             rig.terminal.type("one");
             rig.terminal.set({115200, false});
             rig.pump();
             rig.terminal.type("two");
         },
         "onetwo"},
        {"hung up and raised again",
         [](Rig& rig) {
             rig.terminal.set({0, false});
             rig.pump();
             rig.terminal.set({115200, false});
         },
         "<flush><8N0><-dtr><-rts><flush><baud 115200><8N0><+dtr><+rts>"},
        {"two changes, each between its own bytes, though their events come ahead of those",
         [](Rig& rig) {
             rig.terminal.type("a");
             rig.terminal.set({300, false});
             rig.pump();
             rig.terminal.type("b");
             rig.terminal.set({600, true});
             rig.pump();
             rig.terminal.type("c");
         },
         "a<flush><baud 300><8N0>b<flush><baud 600><8N2>c"},
        {"bytes thrown away do not hold a change back",
         [](Rig& rig) {
             rig.terminal.pieceLimit = 1;
             rig.terminal.type(std::string(Bridge::writeSlots, 'x'));
             rig.pump();
             rig.terminal.type("lost");
             rig.terminal.set({300, false});
             rig.pump();
             rig.terminal.written.clear();
             rig.terminal.events.push_back(flushedOutput);
             rig.pump();
             rig.terminal.type("kept");
         },
         "<purge 5><flush><baud 300><8N0>kept"},
        {"a modem that comes back gets them",
         [](Rig& rig) {
             rig.terminal.set({2400, true});
             rig.pump();
             rig.port.unplug();
             rig.terminal.type("while away");
             rig.pump();
             EXPECT_TRUE(rig.bridge.wantsTerminalEvents());
             EXPECT_FALSE(rig.bridge.wantsTerminalInput());
             rig.port.present = true;
             rig.bridge.modemArrived(rig.now);
         },
         "<flush><baud 2400><8N2><baud 2400><8N2><+dtr><+rts>while away"},
        {"the close waits for what was written",
         [](Rig& rig) {
             rig.terminal.type("last words");
             rig.terminal.open = false;
             rig.pump();
             EXPECT_TRUE(rig.port.feed("too late to be read"));
             rig.port.takeBytes(4);
             rig.pump();
             EXPECT_EQ(rig.bridge.state(), State::draining);
         },
         "last words<flush><close>"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Rig rig;
        rig.start();
        test.act(rig);
        for (int round = 0; round < 10; ++round) {
            rig.port.takeBytes(SIZE_MAX);
            rig.pump();
        }
        EXPECT_EQ(rig.port.log, test.log);
    }
}

// Nothing of what an application threw away comes out later, and what it does next is not harmed.
TEST(Bridge, ThrownAwayBytesAreGone) {
    Rig rig;
    rig.start();
    rig.terminal.type("head");
    rig.pump();
    rig.port.takeBytes(2);
    rig.terminal.type(std::string(100000, 'x'));  // more than all slots
    rig.pump();
    rig.terminal.written.clear();
    rig.terminal.events.push_back(flushedOutput);
    rig.pump();
    rig.terminal.type("next");
    rig.pump();
    rig.port.takeBytes(SIZE_MAX);
    rig.pump();
    EXPECT_EQ(rig.port.log, "he<purge 5>next");

    rig.terminal.space = 0;
    rig.port.feed("old");
    rig.port.feed("older");
    rig.pump();
    rig.terminal.events.push_back(flushedInput);
    rig.pump();
    rig.terminal.space = 100;
    rig.pump();
    rig.port.feed("new");
    rig.pump();
    EXPECT_EQ(rig.terminal.shown, "new");
}

TEST(Bridge, SlowReaderHoldsTheModemBack) {
    Rig rig;
    rig.start();
    rig.terminal.space = 0;
    std::size_t fed = 0;
    while (rig.port.feed("data")) {
        ++fed;
        rig.pump();
    }
    EXPECT_EQ(fed, Bridge::readSlots);
    EXPECT_TRUE(rig.bridge.wantsTerminalSpace());
    EXPECT_EQ(rig.port.heldBack, 1u) << "the oldest, once, however often it is tried";
    rig.terminal.space = 5;  // one and a quarter
    rig.pump();
    EXPECT_EQ(rig.port.reads.size(), 1u);
    EXPECT_EQ(rig.terminal.shown, "datad");
    EXPECT_EQ(rig.port.heldBack, 2u);
    rig.terminal.space = SIZE_MAX;
    rig.pump();
    EXPECT_EQ(rig.port.feed("last"), true);
    rig.pump();
    EXPECT_EQ(rig.terminal.shown, "datadatadatadatalast");
    EXPECT_EQ(rig.port.heldBack, 2u) << "a read in the same place, which was taken at once";
}

TEST(Bridge, CloseGivesUpOnAPortThatTakesNothing) {
    for (bool heldBack : {false, true}) {
        SCOPED_TRACE(heldBack ? "its close not seen behind the bytes" : "its close seen");
        Rig rig;
        rig.start();
        rig.terminal.type(std::string(heldBack ? 100000 : 10, 'x'));
        rig.terminal.open = false;
        rig.bridge.setHungUp(true, rig.now);
        rig.pump();
        rig.pump(Bridge::drainLimitMs - 1);
        EXPECT_NE(rig.bridge.state(), State::idle);
        EXPECT_EQ(rig.bridge.deadlineMs(), rig.now + 1);
        rig.pump(1);
        EXPECT_EQ(rig.bridge.state(), State::idle);
        EXPECT_TRUE(rig.terminal.written.empty()) << "the next session would send them";
    }
}

// The ends of requests may come long after the close; the next session must not meet them.
TEST(Bridge, ClosingWaitsForTheLastEnd) {
    Rig rig;
    rig.start();
    rig.port.delayNews = true;
    rig.terminal.open = false;
    rig.pump();
    rig.port.deliverNews();  // of the flush
    rig.pump();
    EXPECT_EQ(rig.bridge.state(), State::closing);
    while (!rig.port.unseen.empty()) {
        EXPECT_EQ(rig.bridge.state(), State::closing);
        rig.port.unseen.back()->ended = true;
        rig.port.unseen.pop_back();
        rig.pump();
    }
    EXPECT_EQ(rig.bridge.state(), State::idle);
}

TEST(Bridge, OpenIsTriedAgainUntilTheModemIsThere) {
    Rig rig;
    rig.port.present = false;
    rig.terminal.type("early");
    rig.bridge.terminalOpened(rig.now);
    rig.pump();
    EXPECT_EQ(rig.bridge.state(), State::opening);
    EXPECT_EQ(rig.bridge.deadlineMs(), rig.now + Bridge::retryMs);
    rig.pump(Bridge::retryMs);
    EXPECT_EQ(rig.bridge.state(), State::opening);
    rig.port.present = true;
    rig.pump(Bridge::retryMs - 1);
    EXPECT_EQ(rig.bridge.state(), State::opening);
    rig.pump(1);
    rig.port.takeBytes(SIZE_MAX);
    EXPECT_EQ(rig.port.log, std::string(opening) + "early");
}

TEST(Bridge, BytesLeftBehindAreCarriedOnlyIfThePortIsThere) {
    for (bool present : {true, false}) {
        SCOPED_TRACE(present);
        Rig rig;
        rig.port.present = present;
        rig.port.stalled = false;
        rig.terminal.type("note");
        rig.terminal.open = false;
        rig.bridge.terminalOpened(rig.now);
        rig.bridge.setHungUp(true, rig.now);
        rig.pump();
        rig.pump();
        EXPECT_EQ(rig.bridge.state(), State::idle);
        EXPECT_EQ(rig.port.log, present ? std::string(opening) + "note<flush><close>" : "");
        EXPECT_TRUE(rig.terminal.written.empty());
    }
}
