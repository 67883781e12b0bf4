// Dialogues with the command interpreter and its line, in virtual time.
#include "modem/at.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using modem::AtInterpreter;
using modem::Line;
using namespace std::string_view_literals;

// A terminal at the interpreter: types, reads and lets time pass from deadline to deadline.
struct Terminal {
    Line line;
    AtInterpreter at{line, {}};
    std::int64_t nowMs = 0;

    std::size_t type(std::string_view text) {
        at.tick(nowMs);
        return at.put({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    }

    std::string read(std::size_t limit = SIZE_MAX) {
        std::string all;
        std::uint8_t block[4096];
        while (all.size() < limit) {
            const std::size_t count = at.get({block, std::min(sizeof block, limit - all.size())});
            if (count == 0)
                break;
            all.append(reinterpret_cast<const char*>(block), count);
        }
        return all;
    }

    void pass(std::int64_t ms) {
        const std::int64_t endMs = nowMs + ms;
        at.tick(nowMs);
        while (true) {
            const auto deadlineMs = at.nextDeadlineMs();
            if (!deadlineMs || *deadlineMs > endMs)
                break;
            ASSERT_GE(*deadlineMs, nowMs);
            nowMs = *deadlineMs;
            at.tick(nowMs);
        }
        nowMs = endMs;
        at.tick(nowMs);
    }

    std::string ask(std::string_view text, std::int64_t ms = 0) {
        type(text);
        pass(ms);
        return read();
    }

    // In a call with nothing unread, the silence before an escape already over.
    void call(std::string_view number) {
        ask("ATE0\r");
        ask("ATD" + std::string(number) + "\r", 1500);
        ASSERT_EQ(at.mode(), AtInterpreter::Mode::data);
    }
};

struct Dialogue {
    const char* name;
    std::string_view typed;
    std::string_view answer;
    std::int64_t waitMs = 0;
};

class Dialogues : public testing::TestWithParam<Dialogue> {};

TEST_P(Dialogues, Answer) {
    Terminal terminal;
    terminal.ask("ATE0\r");
    EXPECT_EQ(terminal.ask(GetParam().typed, GetParam().waitMs), GetParam().answer);
}

#define OK "\r\nOK\r\n"
#define ERR "\r\nERROR\r\n"

const Dialogue basic[] = {
    {"Attention", "AT\r", OK},
    {"LowerCase", "at\r", OK},
    {"NoiseBefore", "xyz AAT\r", OK},
    {"Echo", "ATE1\rAT+GMI\r", "\r\nOK\r\nAT+GMI\r\r\nVirtual\r\n\r\nOK\r\n"},
    {"Numeric", "ATV0\rAT+GMI\rATJ\r", "0\rVirtual\r\n0\r4\r"},
    {"Quiet", "ATQ1\rAT\rATJ\rAT+GMI\r", "\r\nVirtual\r\n"},
    {"ManyOnOneLine", "AT E0 V1 X4 &C1 &D2 S0=0 S7=60 +CMEE=1;+GMI;L1M1\r", "\r\nVirtual\r\n" OK},
    {"ErrorEndsTheLine", "ATS7=9JS7=8\rATS7?\r", ERR "\r\n009\r\n" OK},
    {"InitStrings", "AT&FE0&C1&D2S0=0\rATX4&K3\\N3%C1W2\rATZ\r", OK OK OK},
    {"OutOfRange", "ATE2\rATX5\rAT&D4\rATZ2\rATH2\rATI10\r", ERR ERR ERR ERR ERR ERR},
    {"HugeNumbers", "ATE99999999999999999999\rATS99999999999999999999=1\r", ERR ERR},
    {"PrefixAlone", "AT&\rAT\\\rAT+\rAT+=\rAT?\r", ERR ERR ERR ERR ERR},
    {"Registers", "ATS7=30S7?\rATS7\rAT?\rAT=5\rATS7?\r", "\r\n030\r\n" OK OK ERR ERR "\r\n030\r\n" OK},
    {"RegisterPointer", "ATS8=3S8\rATS?\rATS=4S?\r", OK "\r\n003\r\n" OK "\r\n004\r\n" OK},
    {"RegisterBounds", "ATS31=255\rATS32=1\rATS12=256\rATS3=128\r", OK ERR ERR ERR},
    {"OtherLineEnd", "ATS3=33\rAT!AT+GMI!", "!\nOK!\n!\nOK!\n!\nVirtual!\n!\nOK!\n"},
    {"Repeat", "A/AT+GMI\rA/a/", OK "\r\nVirtual\r\n" OK "\r\nVirtual\r\n" OK "\r\nVirtual\r\n" OK},
    {"Backspace", "ATJ\b+GMX\b\bMI\r\bAT\b\b\bT\rAT\r", "\r\nVirtual\r\n" OK OK OK},
    {"ControlCharacters", "A\x01T\rAT\x01\x02+\x03GMI\n\r", "\r\nVirtual\r\n" OK},
    {"StoreAndLoad", "ATS7=9&W\rATS7=8\rATZS7=7\rATS7?\rAT&FS7?\r", OK OK OK "\r\n009\r\n" OK "\r\n050\r\n" OK},
    {"NoCall", "ATO\rATA\rATH\r", "\r\nNO CARRIER\r\n\r\nNO CARRIER\r\n" OK},
};

const Dialogue extended[] = {
    {"Identity", "AT+GMM;+GMR;+GSN\r", "\r\nVirtual modem\r\n\r\n1.0\r\n\r\n000000000001\r\n" OK},
    {"Signal", "AT+CSQ\rAT+CSQ=?\rAT+CSQ?\r", "\r\n+CSQ: 25,99\r\n" OK "\r\n+CSQ: (0-31,99),(0-7,99)\r\n" OK ERR},
    {"Registration", "AT+CREG?\rAT+CREG=2\rAT+CREG?\rAT+CREG=3\rAT+CREG=?\r",
     "\r\n+CREG: 0,1\r\n" OK OK "\r\n+CREG: 2,1\r\n" OK ERR "\r\n+CREG: (0-2)\r\n" OK},
    {"Pin", "AT+CPIN?\rAT+CPIN=?\rAT+CPIN=1234\rAT+CPIN\r", "\r\n+CPIN: READY\r\n" OK OK ERR ERR},
    {"TwoFields", "AT+IFC=1\rAT+IFC?\rAT+IFC=,0\rAT+IFC?\rAT+IFC=1,2,3\rAT+IFC=4,0\rAT+IFC=x\rAT+IFC?\r",
     OK "\r\n+IFC: 1,2\r\n" OK OK "\r\n+IFC: 1,0\r\n" OK ERR ERR ERR "\r\n+IFC: 1,0\r\n" OK},
    {"Rate", "AT+IPR=115200\rAT+IPR?\rAT+IPR=921601\r", OK "\r\n+IPR: 115200\r\n" OK ERR},
    {"QuotedSemicolon", "AT+CGDCONT=1,\"IP\",\"a;b C\";+GMI\rAT+CGDCONT?\r",
     "\r\nVirtual\r\n" OK "\r\n+CGDCONT: 1,\"IP\",\"a;b C\"\r\n" OK},
    {"Unknown", "AT+XYZ\rAT+XYZ=?\rAT+GMI?\rAT+CREG??\r", ERR ERR ERR ERR},
};

const Dialogue calls[] = {
    {"Connect", "ATD100\r", "\r\nCONNECT 115200\r\n", 300},
    {"NotYet", "ATD100\r", "", 299},
    {"ToneAndPunctuation", "ATDT (1)0-0\r", "\r\nCONNECT 115200\r\n", 300},
    {"LineFeedDoesNotAbort", "ATD100\r\n", "\r\nCONNECT 115200\r\n", 300},
    {"PlainConnect", "ATX0D100\r", "\r\nCONNECT\r\n", 300},
    {"NumericConnect", "ATV0D100\r", "19\r", 300},
    {"NumericPlain", "ATV0X0D100\r", "1\r", 300},
    {"Pause", "ATS8=2D,100\r", "", 2299},
    {"PauseOver", "ATS8=2D,100\r", "\r\nCONNECT 115200\r\n", 2300},
    {"Busy", "ATD103\r", "\r\nBUSY\r\n", 500},
    {"BusyUndetected", "ATX2D103\r", "\r\nNO CARRIER\r\n", 500},
    {"NoAnswer", "ATS7=5D104\r", "\r\nNO ANSWER\r\n", 5000},
    {"NoAnswerYet", "ATS7=5D104\r", "", 4999},
    {"NoCarrier", "ATD105*7\r", "\r\nNO CARRIER\r\n", 7000},
    {"NoDialtone", "ATD106\r", "\r\nNO DIALTONE\r\n", 200},
    {"NoDialtoneUndetected", "ATX3D106\r", "\r\nNO CARRIER\r\n", 200},
    {"UnknownNumber", "ATD999\r", "\r\nNO CARRIER\r\n", 3000},
    {"StrangeParameter", "ATD100*1#\r", "\r\nNO CARRIER\r\n", 3000},
    {"NoNumber", "ATD\rATDT\rATDL\rATD100;\rATD10x\r", ERR ERR ERR ERR ERR},
    {"CallsBack", "ATD107*2\r", "\r\nNO CARRIER\r\n\r\nRING\r\n", 2300},
    {"FarEndHangsUp", "ATD100*4\r", "\r\nCONNECT 115200\r\n\r\nNO CARRIER\r\n", 4300},
    {"PatternThenHangUp", "ATD101*4\r", "\r\nCONNECT 115200\r\n\x00\x1f\x3e\x5d"sv, 300},
};

std::string nameOf(const testing::TestParamInfo<Dialogue>& info) {
    return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Basic, Dialogues, testing::ValuesIn(basic), nameOf);
INSTANTIATE_TEST_SUITE_P(Extended, Dialogues, testing::ValuesIn(extended), nameOf);
INSTANTIATE_TEST_SUITE_P(Calls, Dialogues, testing::ValuesIn(calls), nameOf);

TEST(AtLine, EchoIsTheSameInEveryChunking) {
    const std::string typed = "noise AT E1 +GMI\rATJ\b\bI0\rAAT&V\rA/";
    Terminal whole;
    const std::string expected = whole.ask(typed);
    for (std::size_t chunk = 1; chunk < 7; ++chunk) {
        Terminal pieces;
        std::string answer;
        for (std::size_t at = 0; at < typed.size(); at += chunk)
            answer += pieces.ask(typed.substr(at, chunk));
        EXPECT_EQ(answer, expected) << chunk;
    }
}

TEST(AtLine, TooLongLineIsOneErrorAndForgotten) {
    Terminal terminal;
    terminal.ask("ATE0\r");
    const std::string full(AtInterpreter::lineLimit, ' ');
    EXPECT_EQ(terminal.ask("AT" + full + "\r"), OK);
    EXPECT_EQ(terminal.ask("AT" + full + " \r"), ERR);
    EXPECT_EQ(terminal.ask("AT" + std::string(100'000, 'E') + "\r"), ERR);
    EXPECT_EQ(terminal.ask("A/"), OK) << "the line repeated is the last one that was whole";
    EXPECT_EQ(terminal.ask("AT\xff\r"), ERR);
    EXPECT_EQ(terminal.ask("\xff\x80\x01"
                           "AT\r"),
              OK);
}

TEST(AtLine, HoldsBackWhileNobodyReads) {
    Terminal terminal;
    const std::string line = "AT&V&VI6I6\r";
    std::size_t taken = 0;
    for (int i = 0; i < 100'000; ++i)
        taken += terminal.type(line.substr(taken % line.size()));
    EXPECT_LT(taken, 2'000u);
    // Reading a little at a time never loses track, and everything typed is answered in the end.
    std::string answers;
    while (true) {
        const std::string piece = terminal.read(7);
        if (piece.empty())
            break;
        answers += piece;
        if (taken % line.size() != 0)
            taken += terminal.type(line.substr(taken % line.size()));
    }
    std::size_t oks = 0;
    for (std::size_t at = 0; (at = answers.find("\r\nOK\r\n", at)) != std::string::npos; ++at)
        ++oks;
    EXPECT_EQ(oks, taken / line.size());
}

TEST(AtLine, LongAnswersEndWithAnError) {
    Terminal terminal;
    std::string line = "ATE0";
    while (line.size() < AtInterpreter::lineLimit)
        line += "&V";
    const std::string answer = terminal.ask(line + "\r");
    EXPECT_LT(answer.size(), 2 * AtInterpreter::lineReplyLimit);
    EXPECT_TRUE(answer.ends_with(ERR));
}

// What is typed after how much silence, and which mode follows once another silence is over.
struct EscapeStep {
    std::int64_t silenceMs;
    std::string_view typed;
};
struct EscapeCase {
    const char* name;
    std::vector<EscapeStep> steps;
    std::int64_t silenceAfterMs;
    bool escapes;
    std::string_view settings = "";
};

class Escape : public testing::TestWithParam<EscapeCase> {};

TEST_P(Escape, Mode) {
    const EscapeCase& c = GetParam();
    Terminal terminal;
    terminal.ask("AT" + std::string(c.settings) + "\r");
    terminal.call("100");
    terminal.ask("data");
    std::string sent, echoed;
    for (const EscapeStep& step : c.steps) {
        terminal.pass(step.silenceMs);
        EXPECT_EQ(terminal.type(step.typed), step.typed.size());
        sent += step.typed;
        echoed += terminal.read();
    }
    terminal.pass(c.silenceAfterMs);
    echoed += terminal.read();
    if (c.escapes)
        sent += OK;
    EXPECT_EQ(echoed, sent);
    EXPECT_EQ(terminal.at.mode(), c.escapes ? AtInterpreter::Mode::onlineCommand : AtInterpreter::Mode::data);
}

const EscapeCase escapes[] = {
    {"Guarded", {{1000, "+++"}}, 1000, true},
    {"NoSilenceBefore", {{999, "+++"}}, 2000, false},
    {"NoSilenceAfter", {{1000, "+++"}}, 999, false},
    {"DataAfter", {{1000, "+++"}, {999, "x"}}, 2000, false},
    {"OneByOne", {{1000, "+"}, {999, "+"}, {999, "+"}}, 1000, true},
    {"TooSlow", {{1000, "+"}, {999, "+"}, {1000, "+"}}, 2000, false},
    {"TooSlowThenRight", {{1000, "+"}, {1000, "++"}, {0, "+"}}, 1000, true},
    {"TwoAndOne", {{1000, "++"}, {10, "+"}}, 1000, true},
    {"Four", {{1000, "++++"}}, 2000, false},
    {"ThreeAndOne", {{1000, "+++"}, {0, "+"}}, 2000, false},
    {"OneAndThree", {{1000, "+"}, {0, "+++"}}, 2000, false},
    {"AtTheEndOfData", {{1000, "x+++"}}, 2000, false},
    {"WithTheCommand", {{1000, "+++ATH\r"}}, 2000, false},
    {"SecondTry", {{1000, "+++"}, {10, "x"}, {1000, "+++"}}, 1000, true},
    {"OtherCharacter", {{1000, "@@@"}}, 1000, true, "S2=64"},
    {"Disabled", {{1000, "+++"}}, 2000, false, "S2=128"},
    {"ShorterGuard", {{200, "+++"}}, 200, true, "S12=10"},
    {"LongerGuard", {{5099, "+++"}}, 5100, false, "S12=255"},
    {"NoGuard", {{0, "+"}, {0, "++"}}, 0, true, "S12=0"},
    {"NoGuardInterrupted", {{0, "++x+"}, {0, "+x"}}, 0, false, "S12=0"},
    {"NoGuardInData", {{0, "abc+++"}}, 0, true, "S12=0"},
};
INSTANTIATE_TEST_SUITE_P(Guard, Escape, testing::ValuesIn(escapes), [](const auto& info) { return info.param.name; });

TEST(AtCall, EscapeWithoutGuardLeavesTheRestToTheCommandLine) {
    Terminal terminal;
    terminal.ask("ATS12=0\r");
    terminal.call("100");
    EXPECT_EQ(terminal.ask("abc+++ATH\r"), "abc+++" OK OK);
    EXPECT_FALSE(terminal.line.carrier());
}

TEST(AtCall, OnlineCommandsAndBack) {
    Terminal terminal;
    terminal.call("100");
    terminal.ask("+++", 1000);
    EXPECT_EQ(terminal.ask("AT+GMI\rATD100\rATA\r"), "\r\nVirtual\r\n" OK ERR ERR);
    EXPECT_TRUE(terminal.line.carrier());
    EXPECT_EQ(terminal.ask("ATO\r"), "\r\nCONNECT 115200\r\n");
    EXPECT_EQ(terminal.ask("more"), "more");
    terminal.pass(1000);
    terminal.ask("+++", 1000);
    EXPECT_EQ(terminal.ask("ATH\rATO\r"), OK "\r\nNO CARRIER\r\n");
    EXPECT_EQ(terminal.ask("ATDL\r", 300), "\r\nCONNECT 115200\r\n");
}

TEST(AtCall, AKeyAbortsDialingButOnlyAfterTheLineHasSettled) {
    Terminal terminal;
    terminal.ask("ATE0\r");
    terminal.type("ATD104\r");
    terminal.pass(AtInterpreter::settleMs - 1);
    EXPECT_EQ(terminal.ask("x"), "");
    terminal.pass(1);
    EXPECT_EQ(terminal.ask("x"), "\r\nNO CARRIER\r\n");
    EXPECT_EQ(terminal.ask("AT\r", 100'000), OK);
}

TEST(AtCall, UnreadBytesStandBeforeNoCarrier) {
    Terminal terminal;
    terminal.call("100*10");
    const std::string data(50'000, 'd');
    EXPECT_EQ(terminal.type(data), data.size());
    terminal.pass(10'000);
    EXPECT_TRUE(terminal.at.takeCallLost());
    EXPECT_EQ(terminal.read(), data + "\r\nNO CARRIER\r\n");
}

TEST(AtCall, PatternKeepsItsRateAndLength) {
    Terminal terminal;
    terminal.ask("ATE0\r");
    EXPECT_EQ(terminal.ask("ATD101*300000*100000\r", 300), "\r\nCONNECT 115200\r\n");
    struct {
        std::int64_t passMs;
        std::size_t bytes;
    } const reads[] = {{1, 100}, {999, 99'900}, {500, 50'000}, {60'000, 100'000}, {10, 1'000}, {490, 49'000}};
    std::string all;
    for (const auto& read : reads) {
        terminal.pass(read.passMs);
        const std::string piece = terminal.read();
        EXPECT_EQ(piece.size(), read.bytes) << "no more than a second is saved up";
        all += piece;
    }
    for (std::size_t i = 0; i < all.size(); ++i)
        ASSERT_EQ(static_cast<std::uint8_t>(all[i]), modem::patternByte(i)) << i;
    EXPECT_EQ(terminal.ask(""), "\r\nNO CARRIER\r\n");
}

TEST(AtRing, AnswerByHandAndByItself) {
    for (const bool automatic : {false, true}) {
        Terminal terminal;
        terminal.ask(automatic ? "ATE0S0=2&D0\r" : "ATE0\r");
        ASSERT_TRUE(terminal.line.ringIn(8));
        terminal.pass(6'500);
        EXPECT_EQ(terminal.line.carrier(), automatic);
        if (!automatic)
            terminal.ask("ATA\r", 300);
        EXPECT_EQ(terminal.at.mode(), AtInterpreter::Mode::data);
        EXPECT_FALSE(terminal.line.ringIn(1)) << "busy";
        terminal.read();
        EXPECT_EQ(terminal.ask("hello"), "hello");
        terminal.line.dropCarrier();
        EXPECT_EQ(terminal.ask(""), "\r\nNO CARRIER\r\n");
    }
}

TEST(AtRing, UnreadRingsDoNotPileUp) {
    Terminal terminal;
    for (int call = 0; call < 1000; ++call) {
        terminal.line.ringIn(8);
        terminal.pass(60'000);
    }
    EXPECT_LT(terminal.read().size(), 1100u);
}

struct DtrCase {
    int mode;
    AtInterpreter::Mode after;
    bool carrier;
    std::string_view answer;
    std::string_view registerAnswer;
};

TEST(AtDtr, DropFollowsTheSetting) {
    using Mode = AtInterpreter::Mode;
    const DtrCase cases[] = {
        {0, Mode::data, true, "unread", ""},
        {1, Mode::onlineCommand, true, "unread" OK, "\r\n042\r\n" OK},
        {2, Mode::command, false, "", "\r\n042\r\n" OK},
        {3, Mode::command, false, "", "ATS7?\r\r\n050\r\n" OK},
    };
    for (const DtrCase& c : cases) {
        SCOPED_TRACE(c.mode);
        Terminal terminal;
        terminal.at.setDtr(true);
        terminal.ask("ATS7=42&D" + std::to_string(c.mode) + "\r");
        terminal.call("100");
        terminal.type("unread");
        terminal.at.setDtr(false);
        EXPECT_EQ(terminal.at.mode(), c.after);
        EXPECT_EQ(terminal.line.carrier(), c.carrier);
        EXPECT_EQ(terminal.read(), c.answer);
        if (c.after == Mode::data)
            continue;
        EXPECT_EQ(terminal.ask("ATS7?\r"), c.registerAnswer);
    }
}

}  // namespace
