// Dialogues with the modem's command interpreter, in virtual time.
#include "tests/modem_host.h"

namespace {

using modem::AtInterpreter;
using modem::LineName;
using test::ModemHost;
using Mode = AtInterpreter::Mode;
using namespace std::string_view_literals;

#define OK "\r\nOK\r\n"
#define ERR "\r\nERROR\r\n"

// What is typed, and all that is answered in so much time.
const struct {
    const char* name;
    std::string_view typed;
    std::string_view answer;
    std::int64_t waitMs = 0;
} dialogues[] = {
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
    {"Framing", "AT+FRAME?\rAT+FRAME=off;+FRAME?\r",
     "\r\n+FRAME: ON,FFFFFFFF,bytes\r\n" OK "\r\n+FRAME: OFF,FFFFFFFF,bytes\r\n" OK},
    {"FramingWithEscapes", "AT+FRAME=mid,a0000;+FRAME?\rAT+FRAME=KEEP,0;+FRAME?\r",
     "\r\n+FRAME: MID,000A0000,bytes\r\n" OK "\r\n+FRAME: KEEP,00000000,bytes\r\n" OK},
    {"FramingChoices", "AT+FRAME=?\r", "\r\n+FRAME: (ON,OFF,LATE,MID,TWICE,KEEP),(00000000-FFFFFFFF)\r\n" OK},
    {"NoFraming", "AT+FRAME\rAT+FRAME=\rAT+FRAME=ON,\rAT+FRAME=ON,1FFFFFFFF\rAT+FRAME=ON,12G\r", ERR ERR ERR ERR ERR},
    {"NoPacketCall", "ATD*99\r", "\r\nNO CARRIER\r\n", 60'000},
    {"NoPacketNumber", "ATD*999#\r", "\r\nNO CARRIER\r\n", 60'000},
    {"NoPacketContext", "ATD*99*A#\r", "\r\nNO CARRIER\r\n", 60'000},
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
    {"PatternThenHangUp", "ATD101*4\r", "\r\nCONNECT 115200\r\n\x00\x1f\x3e\x5d\r\nNO CARRIER\r\n"sv, 300},
};

TEST(AtDialogue, Answers) {
    for (const auto& d : dialogues) {
        ModemHost terminal;
        terminal.ask("ATE0\r");
        EXPECT_EQ(terminal.ask(d.typed, d.waitMs), d.answer) << d.name;
    }
}

TEST(AtLine, EchoIsTheSameInEveryChunking) {
    const std::string typed = "noise AT E1 +GMI\rATJ\b\bI0\rAAT&V\rA/";
    ModemHost whole;
    const std::string expected = whole.ask(typed);
    for (std::size_t chunk = 1; chunk < 7; ++chunk) {
        ModemHost pieces;
        std::string answer;
        for (std::size_t at = 0; at < typed.size(); at += chunk)
            answer += pieces.ask(typed.substr(at, chunk));
        EXPECT_EQ(answer, expected) << chunk;
    }
}

TEST(AtLine, TooLongLineIsOneErrorAndForgotten) {
    ModemHost terminal;
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

// Everything that the modem takes is answered in the end, however little of it is read at a time.
TEST(AtLine, HoldsBackWhileNobodyReads) {
    ModemHost terminal;
    const std::string line = "AT&V&VI6I6\r";
    std::size_t taken = 0, oks = 0;
    for (int i = 0; i < 100'000; ++i)
        taken += terminal.write(line) > 0;
    EXPECT_LT(taken * line.size(), modem::Modem::queueBytes + 2'000);
    std::string answers;
    while (const auto piece = terminal.transfer(7))
        answers += *piece;
    for (std::size_t at = 0; (at = answers.find(OK, at)) != std::string::npos; ++at)
        ++oks;
    EXPECT_EQ(oks, taken);
}

TEST(AtLine, LongAnswersEndWithAnError) {
    ModemHost terminal;
    std::string line = "ATE0";
    while (line.size() < AtInterpreter::lineLimit)
        line += "&V";
    const std::string answer = terminal.ask(line + "\r");
    EXPECT_LT(answer.size(), 2 * AtInterpreter::lineReplyLimit);
    EXPECT_TRUE(answer.ends_with(ERR));
}

// What is typed after how much silence, and whether it is the escape once another silence is over.
const struct {
    const char* name;
    std::vector<std::pair<std::int64_t, std::string_view>> steps;
    std::int64_t silenceAfterMs;
    bool escapes;
    std::string settings = "";
} escapes[] = {
    {"Guarded", {{1000, "+++"}}, 1000, true},
    {"NoSilenceBefore", {{999, "+++"}}, 2000, false},
    {"NoSilenceAfter", {{1000, "+++"}}, 999, false},
    {"DataAfter", {{1000, "+++"}, {999, "x"}}, 2000, false},
    {"OneByOne", {{1000, "+"}, {999, "+"}, {999, "+"}}, 1000, true},
    {"TooSlow", {{1000, "+"}, {999, "+"}, {1000, "+"}}, 2000, false},
    {"TooSlowThenRight", {{1000, "+"}, {1000, "++"}, {0, "+"}}, 1000, true},
    {"Four", {{1000, "++++"}}, 2000, false},
    {"OneAndThree", {{1000, "+"}, {0, "+++"}}, 2000, false},
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

TEST(AtCall, EscapeNeedsSilenceAround) {
    for (const auto& c : escapes) {
        SCOPED_TRACE(c.name);
        ModemHost terminal;
        terminal.ask("AT" + c.settings + "\r");
        terminal.call("100");
        terminal.ask("data");
        std::string sent, echoed;
        for (const auto& [silenceMs, typed] : c.steps) {
            terminal.pass(silenceMs);
            sent += typed;
            echoed += terminal.ask(typed);
        }
        echoed += terminal.ask("", c.silenceAfterMs);
        EXPECT_EQ(echoed, sent + (c.escapes ? OK : ""));
        EXPECT_EQ(terminal.device.interpreter().mode(), c.escapes ? Mode::onlineCommand : Mode::data);
    }
}

TEST(AtCall, EscapeWithoutGuardLeavesTheRestToTheCommandLine) {
    ModemHost terminal;
    terminal.ask("ATS12=0\r");
    terminal.call("100");
    EXPECT_EQ(terminal.ask("abc+++ATH\r"), "abc+++" OK OK);
    EXPECT_FALSE(terminal.device.line(LineName::carrier));
}

TEST(AtCall, OnlineCommandsAndBack) {
    ModemHost terminal;
    terminal.call("100");
    terminal.pass(1000);
    terminal.ask("+++", 1000);
    EXPECT_EQ(terminal.ask("AT+GMI\rATD100\rATA\r"), "\r\nVirtual\r\n" OK ERR ERR);
    EXPECT_TRUE(terminal.device.line(LineName::carrier));
    EXPECT_EQ(terminal.ask("ATO\r"), "\r\nCONNECT 115200\r\n");
    EXPECT_EQ(terminal.ask("more"), "more");
    terminal.pass(1000);
    terminal.ask("+++", 1000);
    EXPECT_EQ(terminal.ask("ATH\rATO\r"), OK "\r\nNO CARRIER\r\n");
    EXPECT_EQ(terminal.ask("ATDL\r", 300), "\r\nCONNECT 115200\r\n");
}

TEST(AtCall, AKeyAbortsDialingButOnlyAfterTheLineHasSettled) {
    ModemHost terminal;
    terminal.ask("ATE0\r");
    terminal.write("ATD104\r");
    terminal.pass(AtInterpreter::settleMs - 1);
    EXPECT_EQ(terminal.ask("x"), "");
    terminal.pass(1);
    EXPECT_EQ(terminal.ask("x"), "\r\nNO CARRIER\r\n");
    EXPECT_EQ(terminal.ask("AT\r", 100'000), OK);
}

TEST(AtCall, PatternKeepsItsRateAndLength) {
    ModemHost terminal;
    terminal.ask("ATE0\r");
    EXPECT_EQ(terminal.ask("ATD101*300000*100000\r", 300), "\r\nCONNECT 115200\r\n");
    const std::string ended = "\r\nNO CARRIER\r\n";
    struct {
        std::int64_t passMs;
        std::size_t bytes;
    } const reads[] = {{1, 100},          {999, 99'900}, {500, 50'000},
                       {60'000, 100'000}, {10, 1'000},   {490, 49'000 + ended.size()}};
    std::string all;
    for (const auto& read : reads) {
        terminal.pass(read.passMs);
        const std::string piece = terminal.read();
        EXPECT_EQ(piece.size(), read.bytes) << "no more than a second is saved up";
        all += piece;
    }
    ASSERT_TRUE(all.ends_with(ended));
    for (std::size_t i = 0; i < all.size() - ended.size(); ++i)
        ASSERT_EQ(static_cast<std::uint8_t>(all[i]), modem::patternByte(i)) << i;
}

TEST(AtRing, AnswersByItself) {
    ModemHost terminal;
    terminal.ask("ATE0S0=2&D0\r");
    terminal.device.ringIn(8);
    terminal.pass(6'500);
    EXPECT_TRUE(terminal.device.line(LineName::carrier));
    EXPECT_EQ(terminal.device.interpreter().mode(), Mode::data);
    terminal.read();
    terminal.device.ringIn(1);
    EXPECT_EQ(terminal.ask("hello"), "hello");
    EXPECT_FALSE(terminal.device.line(LineName::ring)) << "busy";
    terminal.device.dropCarrier();
    EXPECT_EQ(terminal.ask(""), "\r\nNO CARRIER\r\n");
}

TEST(AtRing, UnreadRingsDoNotPileUp) {
    ModemHost terminal;
    for (int call = 0; call < 1000; ++call) {
        terminal.device.ringIn(8);
        terminal.pass(60'000);
    }
    EXPECT_LT(terminal.read().size(), 1100u);
}

TEST(AtDtr, DropFollowsTheSetting) {
    struct {
        int setting;
        Mode after;
        bool carrier;
        std::string_view answer;
        std::string_view registerAnswer;
    } const cases[] = {
        {0, Mode::data, true, "unread", "ATS7?\r"},
        {1, Mode::onlineCommand, true, "unread" OK, "\r\n042\r\n" OK},
        {2, Mode::command, false, "", "\r\n042\r\n" OK},
        {3, Mode::command, false, "", "ATS7?\r\r\n050\r\n" OK},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.setting);
        ModemHost terminal;
        terminal.lines(1);
        terminal.ask("ATS7=42&D" + std::to_string(c.setting) + "\r");
        terminal.call("100");
        terminal.write("unread");
        terminal.lines(0);
        EXPECT_EQ(terminal.device.interpreter().mode(), c.after);
        EXPECT_EQ(terminal.device.line(LineName::carrier), c.carrier);
        EXPECT_EQ(terminal.read(), c.answer);
        EXPECT_EQ(terminal.ask("ATS7?\r"), c.registerAnswer);
    }
}

}  // namespace
