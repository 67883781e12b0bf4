// The commands of AtInterpreter, one line at a time.
#include "modem/at.h"

#include <algorithm>
#include <cctype>

namespace modem {
namespace {

// A letter, or a prefix and a letter, with a number behind it that goes into a setting or is only accepted.
struct BasicSetting {
    std::string_view name;
    std::uint8_t max;
    std::uint8_t Settings::*field;  // null: understood, without effect on a modem without a speaker and a real line
};

constexpr BasicSetting basicSettings[] = {
    {"E", 1, &Settings::echo},
    {"Q", 2, &Settings::quiet},
    {"V", 1, &Settings::verbose},
    {"X", 4, &Settings::resultCodes},
    {"&C", 1, &Settings::carrierMode},
    {"&D", 3, &Settings::dtrMode},
    {"&S", 1, &Settings::readyMode},
    {"B", 99, nullptr},
    {"L", 3, nullptr},
    {"M", 3, nullptr},
    {"N", 9, nullptr},
    {"P", 0, nullptr},
    {"T", 0, nullptr},
    {"W", 2, nullptr},
    {"Y", 1, nullptr},
    {"&B", 1, nullptr},
    {"&G", 2, nullptr},
    {"&K", 6, nullptr},
    {"&Q", 9, nullptr},
    {"&R", 1, nullptr},
    {"\\N", 7, nullptr},
    {"\\Q", 3, nullptr},
    {"\\V", 2, nullptr},
    {"%C", 3, nullptr},
    {"%E", 3, nullptr},
};

struct Range {
    std::uint32_t min;
    std::uint32_t max;
    std::uint32_t initial;
};

struct NumericParameter {
    std::string_view name;
    std::size_t fields;
    std::array<Range, numericFields> ranges;
    std::string_view readTail;  // follows the numbers in the answer to "?"
};

constexpr std::array parameters{
    NumericParameter{"+IPR", 1, {{{0, 921600, 0}}}, ""},
    NumericParameter{"+IFC", 2, {{{0, 3, 2}, {0, 2, 2}}}, ""},
    NumericParameter{"+ICF", 2, {{{0, 6, 3}, {0, 3, 3}}}, ""},
    NumericParameter{"+CREG", 1, {{{0, 2, 0}}}, ",1"},
    NumericParameter{"+CGREG", 1, {{{0, 2, 0}}}, ",1"},
    NumericParameter{"+CMEE", 1, {{{0, 2, 0}}}, ""},
    NumericParameter{"+CFUN", 1, {{{1, 1, 1}}}, ""},
    NumericParameter{"+FCLASS", 1, {{{0, 0, 0}}}, ""},
};
static_assert(parameters.size() == numericParameters);

constexpr std::size_t contextLimit = 64;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The number at the front of `rest`, 0 if there is none; capped far above every maximum.
std::uint32_t takeNumber(std::string_view& rest) {
    std::uint32_t value = 0;
    while (!rest.empty() && isDigit(rest.front())) {
        value = std::min<std::uint32_t>(value * 10 + static_cast<std::uint32_t>(rest.front() - '0'), 99'999'999);
        rest.remove_prefix(1);
    }
    return value;
}

// Commands are written in any case and with any spaces; what stands in quotes stays.
std::string canonical(std::string_view line) {
    std::string text;
    bool quoted = false;
    for (const char c : line) {
        if (c == '"')
            quoted = !quoted;
        if (quoted) {
            text.push_back(c);
        } else if (c != ' ') {
            text.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
        }
    }
    return text;
}

std::string threeDigits(std::uint8_t value) {
    const std::string digits = std::to_string(value);
    return std::string(3 - digits.size(), '0') + digits;
}

}  // namespace

Settings Settings::defaults() {
    Settings settings;
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        for (std::size_t field = 0; field < numericFields; ++field) {
            settings.numbers[i][field] = parameters[i].ranges[field].initial;
        }
    }
    return settings;
}

// The first error ends the line; what came before it stands.
void AtInterpreter::execute(std::string_view line) {
    const std::string text = canonical(line);
    std::string_view rest = text;
    while (!rest.empty()) {
        const Outcome outcome = replies_.size() - repliesRead_ > lineReplyLimit ? Outcome::error : command(rest);
        if (outcome == Outcome::final)
            return;
        if (outcome == Outcome::error) {
            result(Result::error);
            return;
        }
    }
    result(Result::ok);
}

AtInterpreter::Outcome AtInterpreter::command(std::string_view& rest) {
    const char first = rest.front();
    if (first == '+')
        return extended(rest);
    const bool prefixed = first == '&' || first == '\\' || first == '%';
    const std::size_t length = prefixed ? 2 : 1;
    if (rest.size() < length)
        return Outcome::error;
    const std::string_view name = rest.substr(0, length);
    rest.remove_prefix(length);
    return basic(name, rest);
}

AtInterpreter::Outcome AtInterpreter::basic(std::string_view name, std::string_view& rest) {
    if (name == "D")
        return dialCommand(rest);
    if (name == "S")
        return registerCommand(rest);
    const std::uint32_t value = takeNumber(rest);
    for (const BasicSetting& setting : basicSettings) {
        if (setting.name != name)
            continue;
        if (value > setting.max)
            return Outcome::error;
        if (setting.field != nullptr)
            settings_.*setting.field = static_cast<std::uint8_t>(value);
        return Outcome::done;
    }
    if (name == "I")
        return identify(value);
    if (name == "H" || name == "O" || name == "A") {
        if (name == "H")
            return hook(value);
        if (value > 1)
            return Outcome::error;
        if (name == "O" && mode_ == Mode::onlineCommand) {
            connected();
            return Outcome::final;
        }
        if (name == "A" && mode_ == Mode::onlineCommand)
            return Outcome::error;
        if (name == "A" && line_.answer()) {
            answering_ = true;
            startConnecting();
            return Outcome::final;
        }
        result(Result::noCarrier);
        return Outcome::final;
    }
    if (value > 1)
        return Outcome::error;
    if (name == "Z") {
        if (mode_ == Mode::onlineCommand || line_.state() == Line::State::offHook)
            hangUp();
        settings_ = stored_;
        rest = {};
    } else if (name == "&F") {
        settings_ = Settings::defaults();
    } else if (name == "&W") {
        stored_ = settings_;
        stored_[Register::ringCount] = 0;
    } else if (name == "&V") {
        viewSettings();
    } else {
        return Outcome::error;
    }
    return Outcome::done;
}

AtInterpreter::Outcome AtInterpreter::hook(std::uint32_t value) {
    if (value > 1)
        return Outcome::error;
    if (value == 0) {
        // A bell that rings goes on: nobody has lifted the receiver.
        if (line_.state() != Line::State::ringing)
            hangUp();
    } else {
        line_.offHook();
    }
    return Outcome::done;
}

// D takes the rest of the line. The number ends there or at ';', after which the call is not waited for.
AtInterpreter::Outcome AtInterpreter::dialCommand(std::string_view& rest) {
    if (mode_ == Mode::onlineCommand || line_.state() == Line::State::ringing)
        return Outcome::error;
    DialTimes times{0, settings_[Register::waitAnswerS] * 1000};
    std::string number;
    if (rest == "L") {
        number = lastNumber_;
        rest = {};
    }
    for (; !rest.empty() && rest.front() != ';'; rest.remove_prefix(1)) {
        const char c = rest.front();
        if (isDigit(c) || c == '*' || c == '#' || (c >= 'A' && c <= 'D')) {
            number.push_back(c);
        } else if (c == ',') {
            times.pauseMs += settings_[Register::pauseS] * 1000;
        } else if (std::string_view("TPW@!-().").find(c) == std::string_view::npos) {
            return Outcome::error;
        }
    }
    // A voice call is nothing this modem can hold.
    if (!rest.empty() || number.empty())
        return Outcome::error;
    lastNumber_ = number;
    answering_ = false;
    line_.dial(number, times);
    startConnecting();
    return Outcome::final;
}

AtInterpreter::Outcome AtInterpreter::identify(std::uint32_t value) {
    switch (value) {
    case 0:
        information(identity_.model);
        break;
    case 1:
        information("000");
        break;
    case 2:
        break;
    case 3:
        information(identity_.manufacturer + " " + identity_.model + " " + identity_.revision);
        break;
    case 4:
        viewSettings();
        break;
    case 5:
        information(identity_.serialNumber);
        break;
    case 6:
        information("Echo, pattern and other numbers:");
        for (const PhoneBookEntry& entry : phoneBook()) {
            replies_.append(entry.number).append(entry.parameters).append(" ").append(entry.what);
            replies_.append({lineEnd(), lineFeed()});
        }
        break;
    case 7:
        information(identity_.revision);
        break;
    case 8:
        information(lastNumber_);
        break;
    case 9:
        information(identity_.manufacturer);
        break;
    default:
        return Outcome::error;
    }
    return Outcome::done;
}

// Sn=v, Sn?, Sn, =v and ?: the last two speak of the register named last.
AtInterpreter::Outcome AtInterpreter::registerCommand(std::string_view& rest) {
    if (!rest.empty() && isDigit(rest.front())) {
        const std::uint32_t number = takeNumber(rest);
        if (number >= settings_.registers.size())
            return Outcome::error;
        registerPointer_ = static_cast<std::uint8_t>(number);
    }
    std::uint8_t& target = settings_.registers[registerPointer_];
    if (!rest.empty() && rest.front() == '?') {
        rest.remove_prefix(1);
        information(threeDigits(target));
    } else if (!rest.empty() && rest.front() == '=') {
        rest.remove_prefix(1);
        const std::uint32_t value = takeNumber(rest);
        const bool isCharacter = registerPointer_ >= 3 && registerPointer_ <= 5;
        if (value > (isCharacter ? 127 : 255))
            return Outcome::error;
        target = static_cast<std::uint8_t>(value);
    }
    return Outcome::done;
}

void AtInterpreter::viewSettings() {
    std::string text = "ACTIVE PROFILE:";
    text.append({lineEnd(), lineFeed()});
    for (const BasicSetting& setting : basicSettings) {
        if (setting.field == nullptr)
            continue;
        text += std::string(setting.name) + std::to_string(settings_.*setting.field) + " ";
    }
    text.append({lineEnd(), lineFeed()});
    for (std::uint8_t i = 0; i <= static_cast<std::uint8_t>(Register::escapeGuard); ++i) {
        text += "S" + std::to_string(i) + ":" + threeDigits(settings_.registers[i]) + " ";
    }
    information(text);
}

// +NAME, +NAME?, +NAME=? or +NAME=value, up to ';' or the end of the line.
AtInterpreter::Outcome AtInterpreter::extended(std::string_view& rest) {
    bool quoted = false;
    std::size_t end = 0;
    while (end < rest.size() && (quoted || rest[end] != ';')) {
        if (rest[end] == '"')
            quoted = !quoted;
        ++end;
    }
    std::string_view text = rest.substr(0, end);
    rest.remove_prefix(end < rest.size() ? end + 1 : end);

    const std::size_t nameEnd = std::min(text.find_first_of("=?"), text.size());
    const std::string_view name = text.substr(0, nameEnd);
    const std::string_view tail = text.substr(nameEnd);
    if (tail.empty())
        return extendedNamed(name, Form::execute, {});
    if (tail == "?")
        return extendedNamed(name, Form::read, {});
    if (tail == "=?")
        return extendedNamed(name, Form::test, {});
    if (tail.front() == '?')
        return Outcome::error;
    return extendedNamed(name, Form::set, tail.substr(1));
}

AtInterpreter::Outcome AtInterpreter::extendedNamed(std::string_view name, Form form, std::string_view value) {
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        if (parameters[i].name == name)
            return numericParameter(i, form, value);
    }
    if (name == "+CGDCONT")
        return packetContext(form, value);
    if (name == "+LINE" || name == "+ERROR" || name == "+RING" || name == "+FRAME")
        return signals_ != nullptr ? signalCommand(name, form, value) : Outcome::error;

    struct FixedAnswer {
        std::string_view name;
        Form form;
        std::string_view text;
    };
    const FixedAnswer answers[] = {
        {"+GMI", Form::execute, identity_.manufacturer},  {"+CGMI", Form::execute, identity_.manufacturer},
        {"+GMM", Form::execute, identity_.model},         {"+CGMM", Form::execute, identity_.model},
        {"+GMR", Form::execute, identity_.revision},      {"+CGMR", Form::execute, identity_.revision},
        {"+GSN", Form::execute, identity_.serialNumber},  {"+CGSN", Form::execute, identity_.serialNumber},
        {"+GCAP", Form::execute, "+GCAP: +CGSM"},         {"+CSQ", Form::execute, "+CSQ: 25,99"},
        {"+CSQ", Form::test, "+CSQ: (0-31,99),(0-7,99)"}, {"+CPIN", Form::read, "+CPIN: READY"},
        {"+COPS", Form::read, "+COPS: 0,0,\"Virtual\""},  {"+CPAS", Form::execute, "+CPAS: 0"},
    };
    bool known = false;
    for (const FixedAnswer& answer : answers) {
        if (answer.name != name)
            continue;
        known = true;
        if (answer.form != form)
            continue;
        information(answer.text);
        return Outcome::done;
    }
    // A test only asks whether the command exists.
    return known && form == Form::test ? Outcome::done : Outcome::error;
}

AtInterpreter::Outcome AtInterpreter::numericParameter(std::size_t index, Form form, std::string_view value) {
    const NumericParameter& parameter = parameters[index];
    auto& numbers = settings_.numbers[index];
    if (form == Form::execute)
        return Outcome::error;
    if (form != Form::set) {
        std::string text = std::string(parameter.name) + ": ";
        for (std::size_t i = 0; i < parameter.fields; ++i) {
            const Range& range = parameter.ranges[i];
            if (i != 0)
                text += ",";
            text += form == Form::read ? std::to_string(numbers[i])
                                       : "(" + std::to_string(range.min) + "-" + std::to_string(range.max) + ")";
        }
        if (form == Form::read)
            text += parameter.readTail;
        information(text);
        return Outcome::done;
    }
    auto changed = numbers;
    for (std::size_t i = 0; i < parameter.fields; ++i) {
        // A number left out keeps its value.
        if (!value.empty() && isDigit(value.front()))
            changed[i] = takeNumber(value);
        if (changed[i] < parameter.ranges[i].min || changed[i] > parameter.ranges[i].max)
            return Outcome::error;
        if (value.empty())
            break;
        if (value.front() != ',' || i + 1 == parameter.fields)
            return Outcome::error;
        value.remove_prefix(1);
    }
    numbers = changed;
    return Outcome::done;
}

AtInterpreter::Outcome AtInterpreter::packetContext(Form form, std::string_view value) {
    switch (form) {
    case Form::execute:
        return Outcome::error;
    case Form::read:
        if (!context_.empty())
            information("+CGDCONT: " + context_);
        return Outcome::done;
    case Form::test:
        information("+CGDCONT: (1),\"IP\",,,(0),(0)");
        return Outcome::done;
    case Form::set:
        break;
    }
    if (value == "1") {
        context_.clear();
        return Outcome::done;
    }
    if (!value.starts_with("1,\"IP\"") || value.size() > contextLimit)
        return Outcome::error;
    context_ = value;
    return Outcome::done;
}

// +LINE=DCD,1 and +FRAME=OFF and the like; +ERROR=BREAK, FRAMING, PARITY or OVERRUN; +RING and +RING=3: a call comes in.
AtInterpreter::Outcome AtInterpreter::signalCommand(std::string_view name, Form form, std::string_view value) {
    if (name == "+LINE")
        return lineCommand(form, value);
    if (name == "+FRAME")
        return frameCommand(form, value);
    if (name == "+ERROR" && form == Form::set) {
        for (const ErrorText& error : errorTexts) {
            if (error.text == value) {
                signals_->signalErrors(error.bit);
                return Outcome::done;
            }
        }
    }
    if (name == "+RING" && (form == Form::execute || form == Form::set)) {
        const unsigned rings = form == Form::execute ? Line::untilAnswered : takeNumber(value);
        return value.empty() && signals_->signalRing(rings) ? Outcome::done : Outcome::error;
    }
    if (form != Form::test || name == "+RING")
        return Outcome::error;
    information("+ERROR: (BREAK,FRAMING,PARITY,OVERRUN)");
    return Outcome::done;
}

AtInterpreter::Outcome AtInterpreter::lineCommand(Form form, std::string_view value) {
    if (form == Form::read) {
        for (const LineText& line : lineTexts) {
            const char* how = signals_->signalHeldAt(line.line) ? ",held" : "";
            information("+LINE: " + std::string(line.text) + "," + (signals_->signalLevel(line.line) ? "1" : "0") + how);
        }
        return Outcome::done;
    }
    const std::size_t nameEnd = std::min(value.find(','), value.size());
    const std::string_view level = value.substr(nameEnd);
    for (const LineText& line : lineTexts) {
        if (form != Form::set || line.text != value.substr(0, nameEnd))
            continue;
        if (level != "" && level != ",0" && level != ",1")
            return Outcome::error;
        signals_->signalLine(line.line, level.empty() ? std::nullopt : std::optional<bool>(level == ",1"));
        return Outcome::done;
    }
    return Outcome::error;
}

// MODE or MODE,ESCAPES, the latter in hexadecimal.
AtInterpreter::Outcome AtInterpreter::frameCommand(Form form, std::string_view value) {
    FramingChoice choice = signals_->signalFramingChoice();
    if (form == Form::execute)
        return Outcome::error;
    if (form == Form::test) {
        information("+FRAME: (ON,OFF,LATE,MID,TWICE,KEEP),(00000000-FFFFFFFF)");
        return Outcome::done;
    }
    if (form == Form::read) {
        const auto text = std::ranges::find(framingTexts, choice.mode, &FramingText::mode);
        information("+FRAME: " + std::string(text->text) + "," + escapesText(choice.escapes) + "," +
                    std::string(signals_->signalFramingState()));
        return Outcome::done;
    }
    const std::size_t nameEnd = std::min(value.find(','), value.size());
    const auto text = std::ranges::find(framingTexts, value.substr(0, nameEnd), &FramingText::text);
    if (text == framingTexts.end())
        return Outcome::error;
    choice.mode = text->mode;
    if (nameEnd != value.size()) {
        const auto escapes = parseEscapes(value.substr(nameEnd + 1));
        if (!escapes)
            return Outcome::error;
        choice.escapes = *escapes;
    }
    signals_->signalFraming(choice);
    return Outcome::done;
}

}  // namespace modem
