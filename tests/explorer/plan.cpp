#include "tests/explorer/plan.h"

#include "tests/explorer/controls.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace explorer {

namespace {

constexpr const char* verbNames[] = {
    "open",      "close",    "read",   "write",      "flush",  "control",      "cancel",       "cancelAll",
    "await",     "stand",     "send",     "lines",  "network",    "malformed", "framing",   "stallIn",     "stallOut",     "stallControl",
    "muteControl", "hold",   "allow",  "remoteWake", "unplug", "cut", "replug",       "queryStop",   "stop",         "cancelStop",
    "start",     "queryRemove", "remove", "cancelRemove", "restart", "powerDown", "powerUp",  "sleep",        "wake",
    "fail",      "heal",
};
static_assert(std::size(verbNames) == std::size_t(Verb::count_));
constexpr const char* actorNames[] = {"first", "second", "system"};

class Dice {
public:
    explicit Dice(std::uint64_t seed) : state_(seed * 0x9e3779b97f4a7c15 + 0x1234567) {}
    std::uint64_t draw() {
        std::uint64_t z = state_ += 0x9e3779b97f4a7c15;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(draw() % bound); }
    bool oneIn(std::uint32_t n) { return below(n) == 0; }
    template <std::size_t n>
    std::uint32_t among(const std::uint32_t (&values)[n]) {
        return values[below(n)];
    }
    // Lengths where the boundaries are: packets, chunks, rings.
    std::uint32_t length() {
        switch (below(8)) {
        case 0: return 1 + below(8);
        case 1:
        case 2: return 64 * (1 + below(8));
        case 3: return 64 * (1 + below(8)) + 1 - 2 * below(2);
        case 4: return oneIn(4) ? 0 : 1 + below(2500);
        default: return 1 + below(300);
        }
    }

private:
    std::uint64_t state_;
};

// Not every run does everything: what may be lost in one for good reasons must come through in another.
struct Features {
    bool second, cancels, purge, timeouts, sizes, reopen, lines, framing, stalls, controlFaults, holds, removal, pnp, power, sleep, idle, faults;

    Features(Dice& dice) {
        const bool calm = dice.oneIn(4);
        const auto perhaps = [&](std::uint32_t n) { return dice.oneIn(n); };
        second = perhaps(2);
        cancels = perhaps(2);
        timeouts = perhaps(2);
        lines = perhaps(2);
        holds = perhaps(2);
        idle = perhaps(3);
        purge = perhaps(3) && !calm;
        sizes = perhaps(4) && !calm;
        reopen = perhaps(2) && !calm;
        stalls = perhaps(4) && !calm;
        controlFaults = perhaps(6) && !calm;
        removal = perhaps(3) && !calm;
        pnp = perhaps(2) && !calm;
        power = perhaps(3) && !calm;
        sleep = perhaps(3) && !calm;
        faults = perhaps(6) && !calm;
        framing = perhaps(8) && !calm;
    }
};

std::map<std::string, std::uint32_t> chooseValues(Dice& dice, const Features& features) {
    std::map<std::string, std::uint32_t> values;
    values["WriteBufferSize"] = dice.among({64, 128, 256, 4096});
    values["WriteCircBufferSize"] = dice.among({256, 300, 512, 2048});
    values["ReadBufferSize"] = dice.among({64, 512, 4096, 65536});
    values["ReadCircBufferSize"] = dice.among({256, 300, 1024, 65536});
    values["ReadBufferCount"] = dice.among({1, 2, 3, 5});
    values["TimerInterval"] = dice.among({1, 10, 100});
    if (features.idle) values["IdleInterval"] = 1;
    if (features.removal && dice.oneIn(2)) values[rejectD0] = 1;
    if (dice.oneIn(8)) values["FlowTest"] = 20;
    if (features.lines && dice.oneIn(3)) values["useCtsFlowControl"] = 1;
    if (dice.oneIn(4)) values["RequestTimeout"] = 50;
    return values;
}

bool allowed(const Control& control, const Features& features) {
    if (control.internal) return control.code != IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS || features.timeouts;
    switch (control.code) {
    case codeSetTimeouts: return features.timeouts;
    case codeSetQueueSize: return features.sizes;
    case codePurge: return features.purge;
    default: return true;
    }
}

class Generator {
public:
    Generator(std::uint64_t seed, bool isRemote) : dice_(seed), features_(dice_), remote_(isRemote) {
        plan_.schedule = seed;
        plan_.values = chooseValues(dice_, features_);
        if (!remote_) return;
        plan_.values[remote] = 1;
        // An answer may have to wait on the wire behind 2 KB of data, in small pieces.
        if (plan_.values.contains("RequestTimeout")) plan_.values["RequestTimeout"] = 500;
        plan_.values[remotePiece] = dice_.oneIn(2) ? 0 : 20 + dice_.below(200);
        plan_.values[remoteDelay] = dice_.oneIn(2) ? 0 : 1 + dice_.below(5);
    }
    Plan make() {
        add(Actor::first, Verb::open);
        if (features_.timeouts) addControl(Actor::first, codeSetTimeouts);
        const std::uint32_t count = 30 + dice_.below(50);
        while (plan_.steps.size() < count) {
            const std::uint32_t turn = dice_.below(10);
            if (turn < 6) {
                application(anyone());
            } else if (turn < 8) {
                device();
            } else {
                system();
            }
        }
        return std::move(plan_);
    }

private:
    void add(Actor actor, Verb verb, std::uint32_t a = 0, std::uint32_t b = 0, std::uint32_t c = 0) {
        Step step{actor, verb, 0, false, !dice_.oneIn(4), {a, b, c}};
        if (dice_.oneIn(3)) {
            step.pauseMs = true;
            step.pause = dice_.oneIn(6) ? dice_.below(300) : dice_.below(20);
            if (features_.idle && dice_.oneIn(8)) step.pause = 995 + dice_.below(15);
        } else {
            step.pause = dice_.below(dice_.oneIn(4) ? 1000 : 60);
        }
        if (dice_.oneIn(10)) plan_.steps.push_back({actor, Verb::stand, 0, false, false, {1 + dice_.below(150), 0, 0}});
        plan_.steps.push_back(step);
    }
    void addControl(Actor actor, std::uint32_t code) {
        add(actor, Verb::control, rowOf(code), dice_.below(1u << 16));
    }
    void application(Actor actor) {
        const std::uint32_t turn = dice_.below(16);
        if (turn < 8) return add(actor, turn < 4 ? Verb::read : Verb::write, dice_.length());
        switch (turn) {
        case 8: return add(actor, Verb::flush);
        case 9: return waits(actor);
        case 10: return cancels(actor);
        case 11: return add(actor, Verb::await, 1 + dice_.below(40));
        case 12: return reopens(actor);
        default: return anyControl(actor);
        }
    }
    void anyControl(Actor actor) {
        const std::uint32_t row = dice_.below(static_cast<std::uint32_t>(controlCount));
        if (!allowed(controls[row], features_)) return;
        add(actor, Verb::control, row, dice_.below(1u << 16), dice_.oneIn(12) ? 1 + dice_.below(4) : 0);
    }
    void waits(Actor actor) {
        if (dice_.oneIn(2)) addControl(actor, codeSetWaitMask);
        addControl(actor, codeWaitOnMask);
    }
    void cancels(Actor actor) {
        if (!features_.cancels) return add(actor, Verb::await, 1 + dice_.below(20));
        if (dice_.oneIn(5)) return add(actor, Verb::cancelAll);
        add(actor, Verb::cancel, dice_.below(8));
    }
    void reopens(Actor actor) {
        if (features_.reopen && dice_.oneIn(2)) add(actor, Verb::close);
        add(actor, Verb::open, dice_.oneIn(4));
    }
    void device() {
        const std::uint32_t turn = dice_.below(14);
        if (turn < 5) return add(Actor::system, Verb::send, 1 + dice_.length(), 1 + dice_.below(4));
        switch (turn) {
        case 5:
            if (features_.lines) return add(Actor::system, Verb::lines, dice_.below(0x200));
            break;
        case 6:
            if (features_.lines) return add(Actor::system, Verb::network, dice_.below(2));
            break;
        case 7: return add(Actor::system, Verb::malformed, dice_.below(6));
        case 8:
            if (features_.framing) return add(Actor::system, Verb::framing, dice_.below(3) != 0);
            break;
        case 9:
            if (features_.stalls) return add(Actor::system, dice_.oneIn(2) ? Verb::stallIn : Verb::stallOut, 1 + dice_.oneIn(4));
            break;
        case 10:
            if (features_.controlFaults) {
                return add(Actor::system, dice_.oneIn(2) ? Verb::stallControl : Verb::muteControl, 1 + dice_.below(3));
            }
            break;
        case 11:
            if (features_.holds) return add(Actor::system, Verb::hold, dice_.below(2));
            break;
        case 12:
            if (features_.holds) return add(Actor::system, Verb::allow, dice_.below(12));
            break;
        default:
            if (features_.idle || features_.power) return add(Actor::system, Verb::remoteWake);
        }
    }
    void system() {
        switch (dice_.below(6)) {
        case 0:
            if (!features_.removal) return;
            if (remote_ && dice_.oneIn(2)) {
                add(Actor::system, Verb::cut, dice_.below(dice_.oneIn(2) ? 200 : 5000));
            } else {
                add(Actor::system, Verb::unplug);
            }
            if (!dice_.oneIn(4)) dwell();
            return add(Actor::system, Verb::replug);
        case 1:
        case 2:
            if (features_.pnp) plugAndPlay();
            return;
        case 3:
            if (!features_.power) return;
            add(Actor::system, Verb::powerDown, 2 + dice_.below(2));
            dwell();
            return add(Actor::system, Verb::powerUp);
        case 4:
            if (!features_.sleep) return;
            add(Actor::system, Verb::sleep, 2 + dice_.below(4));
            dwell();
            return add(Actor::system, Verb::wake);
        default:
            if (!features_.faults) return;
            add(Actor::system, Verb::fail, dice_.below(5), 1 + dice_.below(dice_.oneIn(2) ? 4 : 25), dice_.oneIn(3));
            dwell();
            return add(Actor::system, Verb::heal);
        }
    }
    // Others get something done in this state.
    void dwell() {
        for (std::uint32_t n = dice_.below(12); n > 0; --n) {
            switch (dice_.below(4)) {
            case 0: device(); break;
            case 1: application(anyone()); break;
            default: nextControl(anyone());
            }
        }
    }
    // One after the other over all seeds, so that each is sent in each state.
    void nextControl(Actor actor) {
        const auto row = static_cast<std::uint32_t>((plan_.schedule * 5 + dwelt_++) % controlCount);
        if (allowed(controls[row], features_) || dice_.oneIn(3)) add(actor, Verb::control, row, dice_.below(1u << 16));
    }
    Actor anyone() { return features_.second && dice_.oneIn(2) ? Actor::second : Actor::first; }
    // Meets a write that stands somewhere on its way.
    void queryStop() {
        const bool meets = dice_.oneIn(2);
        const Actor actor = anyone();
        if (meets) {
            plan_.steps.push_back({actor, Verb::stand, 0, false, true, {1 + dice_.below(70), 0, 0}});
            plan_.steps.push_back({actor, Verb::write, 0, false, true, {1 + dice_.length(), 0, 0}});
        }
        add(Actor::system, Verb::queryStop);
        if (meets) plan_.steps.back().pause = 0;
    }
    void plugAndPlay() {
        switch (dice_.below(4)) {
        case 0:
            queryStop();
            dwell();
            return add(Actor::system, Verb::cancelStop);
        case 1:
            queryStop();
            if (dice_.oneIn(2)) dwell();
            add(Actor::system, Verb::stop);
            dwell();
            return add(Actor::system, Verb::start);
        case 2:
            if (features_.reopen && dice_.oneIn(2)) add(Actor::first, Verb::close);
            add(Actor::system, Verb::queryRemove);
            dwell();
            if (dice_.oneIn(2)) return add(Actor::system, Verb::cancelRemove);
            add(Actor::system, Verb::remove);
            dwell();
            return add(Actor::system, Verb::start);
        default: return add(Actor::system, Verb::restart);
        }
    }

    Dice dice_;
    Features features_;
    const bool remote_;
    Plan plan_;
    std::uint64_t dwelt_ = 0;
};

template <class Names>
std::size_t find(const Names& names, const std::string& name, const std::string& line) {
    const auto at = std::find(std::begin(names), std::end(names), name);
    if (at == std::end(names)) throw std::runtime_error("cannot read this line of a plan: " + line);
    return static_cast<std::size_t>(at - std::begin(names));
}

Step stepOf(const std::string& actor, std::istringstream& words, const std::string& line) {
    Step step;
    std::string pause, verb;
    words >> pause >> verb;
    if (verb == "then") {
        step.ordered = true;
        words >> verb;
    }
    if (!(words >> step.args[0] >> step.args[1] >> step.args[2]) || pause.size() < 2) {
        throw std::runtime_error("cannot read this line of a plan: " + line);
    }
    step.actor = static_cast<Actor>(find(actorNames, actor, line));
    step.verb = static_cast<Verb>(find(verbNames, verb, line));
    step.pauseMs = pause[0] == '~';
    step.pause = static_cast<std::uint32_t>(std::stoul(pause.substr(1)));
    return step;
}

}  // namespace

std::uint32_t Plan::value(const std::string& name, std::uint32_t otherwise) const {
    const auto found = values.find(name);
    return found == values.end() ? otherwise : found->second;
}

bool Plan::uses(Verb verb) const {
    return std::any_of(steps.begin(), steps.end(), [verb](const Step& step) { return step.verb == verb; });
}

Plan generate(std::uint64_t seed, bool alwaysRemote) { return Generator(seed, alwaysRemote || seed % 5 == 3).make(); }

std::string toText(const Step& step) {
    std::ostringstream text;
    text << actorNames[std::size_t(step.actor)] << " " << (step.pauseMs ? '~' : '+') << step.pause << (step.ordered ? " then " : " ")
         << verbNames[std::size_t(step.verb)] << " " << step.args[0] << " " << step.args[1] << " " << step.args[2];
    if (step.verb == Verb::control && step.args[0] < controlCount) text << "  # " << controls[step.args[0]].name;
    return text.str();
}

std::string toText(const Plan& plan) {
    std::ostringstream text;
    text << "schedule " << plan.schedule << "\n";
    for (const auto& [name, value] : plan.values) text << "set " << name << " " << value << "\n";
    for (const Step& step : plan.steps) text << toText(step) << "\n";
    return text.str();
}

Plan fromText(std::string_view text) {
    Plan plan;
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string word, name;
        if (!(words >> word)) continue;
        if (word == "schedule") {
            words >> plan.schedule;
        } else if (word == "set") {
            words >> name;
            words >> plan.values[name];
        } else {
            plan.steps.push_back(stepOf(word, words, line));
        }
    }
    return plan;
}

// Delta debugging: ever smaller pieces of the plan are left out, then settings and pauses one by one.
Plan shrink(Plan plan, const std::function<bool(const Plan&)>& stillFails, unsigned budget) {
    const auto keepIf = [&](const Plan& candidate) {
        if (budget == 0) return false;
        --budget;
        if (!stillFails(candidate)) return false;
        plan = candidate;
        return true;
    };
    for (std::size_t piece = std::max<std::size_t>(plan.steps.size() / 2, 1); budget != 0;) {
        bool cut = false;
        for (std::size_t at = 0; at < plan.steps.size() && budget != 0;) {
            Plan candidate = plan;
            const auto from = candidate.steps.begin() + static_cast<std::ptrdiff_t>(at);
            candidate.steps.erase(from, from + static_cast<std::ptrdiff_t>(std::min(piece, plan.steps.size() - at)));
            if (keepIf(candidate)) {
                cut = true;
            } else {
                at += piece;
            }
        }
        if (piece == 1 && !cut) break;
        piece = std::max<std::size_t>(piece / 2, 1);
    }
    for (const auto& [name, value] : std::map(plan.values)) {
        Plan candidate = plan;
        candidate.values.erase(name);
        keepIf(candidate);
    }
    for (std::size_t i = 0; i < plan.steps.size(); ++i) {
        if (plan.steps[i].pause == 0) continue;
        Plan candidate = plan;
        candidate.steps[i].pause = 0;
        keepIf(candidate);
    }
    return plan;
}

}  // namespace explorer
