// The requests and bytes of a run, once it is over.
#include "tests/explorer/application.h"

#include <algorithm>
#include <cstring>

namespace explorer {

namespace {

constexpr std::uint32_t eventsOfData = SERIAL_EV_RXCHAR | SERIAL_EV_RXFLAG | SERIAL_EV_TXEMPTY | SERIAL_EV_RX80FULL;
constexpr std::int64_t flushMs = 5000;
constexpr std::size_t manyRequests = 50;

ULONG valueOf(const std::string& bytes) {
    ULONG value = 0;
    std::memcpy(&value, bytes.data(), std::min(sizeof value, bytes.size()));
    return value;
}

bool overlap(const Moment& begin, const Moment& end, const Op& op) { return begin.number < op.ended.number && end.number > op.issued.number; }

const char* nameOf(Kind kind) {
    constexpr const char* names[] = {"read", "write", "flush", "wait", "control"};
    return names[std::size_t(kind)];
}

[[noreturn]] void unfit(const Op& op, const char* why) {
    wrong("a %s%s%s of %u bytes ended with %08x, %u: %s", nameOf(op.kind), op.control ? " " : "", op.control ? op.control->name : "",
          op.kind == Kind::read || op.kind == Kind::write ? op.length : static_cast<std::uint32_t>(op.input.size()),
          static_cast<unsigned>(op.status), op.information, why);
}

// Where a setting stands in the input or output of a control.
struct Place {
    std::uint32_t code;
    std::size_t offset = 0;
    bool internal = false;
};
// A setting is fetched as it was last stored.
struct Setting {
    std::string first;  // as a new device has it
    std::vector<Place> set, get;
    std::string unread = first;  // the same when its key could not be read, or was that of a device that did not say who it is
};

std::vector<Setting> settingsOf(const Plan& plan) {
    using namespace std::string_literals;
    constexpr std::uint32_t basic = IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, restore = IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS;
    const auto size = [&plan](const char* name, ULONG otherwise, std::size_t set, std::size_t get) {
        const auto bytes = [](ULONG value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); };
        return Setting{bytes(plan.value(name, otherwise)), {{codeSetQueueSize, set}}, {{IOCTL_SERIAL_GET_PROPERTIES, get}}, bytes(otherwise)};
    };
    const auto pair = [](std::string first, std::uint32_t set, std::uint32_t get) { return Setting{std::move(first), {{set}}, {{get}}}; };
    std::vector<Setting> settings = {
        pair("\x80\x25\0\0"s, IOCTL_SERIAL_SET_BAUD_RATE, IOCTL_SERIAL_GET_BAUD_RATE),
        pair("\1\0\x8"s, IOCTL_SERIAL_SET_LINE_CONTROL, IOCTL_SERIAL_GET_LINE_CONTROL),
        pair("\0\0\0\0\xa\0\0\0\xd0\x7\0\0\xa\0\0\0\xd0\x7\0\0"s, IOCTL_SERIAL_SET_TIMEOUTS, IOCTL_SERIAL_GET_TIMEOUTS),
        pair(std::string(6, '\0'), IOCTL_SERIAL_SET_CHARS, IOCTL_SERIAL_GET_CHARS),
        pair(std::string(16, '\0'), IOCTL_SERIAL_SET_HANDFLOW, IOCTL_SERIAL_GET_HANDFLOW),
        pair(std::string(4, '\0'), IOCTL_SERIAL_SET_WAIT_MASK, IOCTL_SERIAL_GET_WAIT_MASK),
        size("ReadCircBufferSize", 65536, 0, offsetof(SERIAL_COMMPROP, CurrentRxQueue)),
        size("WriteCircBufferSize", 2048, 4, offsetof(SERIAL_COMMPROP, CurrentTxQueue)),
    };
    const std::pair<std::size_t, std::size_t> basics[] = {{2, 0}, {4, 20}, {6, 36}, {7, 40}};
    for (const auto& [setting, offset] : basics) {
        settings[setting].set.push_back({restore, offset, true});
        settings[setting].get.push_back({basic, offset, true});
    }
    return settings;
}

// Where the request has the setting; nothing: it does not.
std::optional<std::size_t> placeIn(const Op& op, const std::vector<Place>& places) {
    for (const Place& place : places) {
        if (op.control != nullptr && op.control->code == place.code && op.control->internal == place.internal) return place.offset;
    }
    return std::nullopt;
}

}  // namespace

// --- Statuses --------------------------------------------------------------------------------------------------------------------

bool Application::mayBeCancelled(const Op& op, std::uint32_t purge) const {
    if (op.cancelled || (op.opening->closing && op.opening->closeBegan.number < op.ended.number)) return true;
    for (const auto& [begin, end] : op.opening->cancelled) {
        if (overlap(begin, end, op)) return true;
    }
    return std::any_of(ops_.begin(), ops_.end(), [&](const Op& other) {
        return other.control != nullptr && is(*other.control, codePurge) && (valueOf(other.input) & purge) != 0 &&
               overlap(other.issued, other.ended, op);
    });
}

// Something stood between the request and the device, or the memory it needed.
bool Application::troubled(const Op& op) const {
    return std::any_of(world_.losses.all().begin(), world_.losses.all().end(), [&](const Loss& loss) {
        return loss.in && loss.begin.number < op.ended.number &&
               (loss.endNumber > op.issued.number || loss.endMs >= op.issued.ms);
    });
}

void Application::judgeTransfer(const Op& op) const {
    const bool reads = op.kind == Kind::read;
    const bool character = op.control != nullptr;
    switch (op.status) {
    case STATUS_SUCCESS:
        if (op.information > op.length) unfit(op, "more than was asked for");
        if (!character && op.information < op.length && !(reads && shortReads_)) unfit(op, "a success with less");
        return;
    case STATUS_TIMEOUT:
        if (!timeouts_ || (!reads && world_.plan.value("useCtsFlowControl", 0) == 0)) unfit(op, "nothing was to time out");
        if (op.information >= op.length && op.length != 0) unfit(op, "a whole request timed out");
        return;
    case STATUS_CANCELLED:
        if (!mayBeCancelled(op, reads ? SERIAL_PURGE_RXABORT : SERIAL_PURGE_TXABORT)) unfit(op, "nobody cancelled it");
        if (op.information >= op.length) unfit(op, "a whole request was cancelled");
        return;
    case STATUS_INSUFFICIENT_RESOURCES:
        if (world_.faulty() || ops_.size() > manyRequests) return;
        unfit(op, "nothing was scarce");
    default:
        if (!world_.removals) unfit(op, "a status that nothing explains");
    }
}

void Application::judgeWait(const Op& op) const {
    const ULONG value = valueOf(op.output);
    switch (static_cast<ULONG>(op.status)) {
    case STATUS_SUCCESS:
        if (op.information != sizeof(ULONG)) unfit(op, "the events are missing");
        if ((value & ~masks_) != 0) unfit(op, "events nobody waits for");
        if ((value & ~(eventsOfData | world_.raised())) != 0) unfit(op, "events that never happened");
        return;
    case static_cast<ULONG>(STATUS_INVALID_PARAMETER): return;
    case static_cast<ULONG>(STATUS_CANCELLED):
        if (!mayBeCancelled(op, 0)) unfit(op, "nobody cancelled it");
        return;
    case 0xC00002B6:
        if (!world_.removals) unfit(op, "the device has never left");
        return;
    default:
        if (!world_.faulty() && !world_.removals) unfit(op, "a status that nothing explains");
    }
}

void Application::judgeControl(const Op& op) const {
    const Control& control = *op.control;
    const bool fits = op.input.size() >= control.input && op.output.size() >= control.output;
    if (world_.removals && !NT_SUCCESS(op.status)) return;
    if (world_.faulty() && op.status == STATUS_INSUFFICIENT_RESOURCES) return;
    if (control.effect == Effect::unsupported) {
        if (op.status != STATUS_NOT_SUPPORTED) unfit(op, "must not be supported");
        return;
    }
    if (control.effect == Effect::invalid || !fits) {
        if (op.status != STATUS_INVALID_PARAMETER) unfit(op, "must be refused");
        return;
    }
    if (NT_SUCCESS(op.status)) {
        if (op.information != control.output) unfit(op, "the output has another size");
        return;
    }
    if (control.effect != Effect::device || !troubled(op)) unfit(op, "must succeed");
}

void Application::judgeStatus(const Op& op) const {
    switch (op.kind) {
    case Kind::read:
    case Kind::write: return judgeTransfer(op);
    case Kind::wait: return judgeWait(op);
    case Kind::control: return judgeControl(op);
    case Kind::flush: break;
    }
    if (op.status == STATUS_CANCELLED && mayBeCancelled(op, 0)) return;
    if (op.status != STATUS_SUCCESS && !world_.removals && !world_.faulty()) unfit(op, "a flush never fails");
    // A later flush starts the time again; a driver that waits for power has not begun.
    std::int64_t from = op.returned.ms;
    for (const Op& other : ops_) {
        if (other.kind == Kind::flush && other.issued.number < op.ended.number) from = std::max(from, other.returned.ms);
    }
    if (op.ended.ms > from + flushMs + 50) unfit(op, "a flush ends after five seconds");
}

// --- Settings --------------------------------------------------------------------------------------------------------------------

void Application::judgeSettings() const {
    // A device that did not say who it is when it came back is another one; the file is still that of the one before.
    const auto mayBeLeft = [this](const Op& op) {
        return world_.faulty() && std::any_of(world_.newDevices.begin(), world_.newDevices.end(), [&](const auto& device) {
            return device.second.number > op.opening->begun.number && device.first.number < op.ended.number;
        });
    };
    for (const Setting& setting : settingsOf(world_.plan)) {
        const std::size_t size = setting.first.size();
        Register values(setting.first);
        for (const auto& [begin, end] : world_.newDevices) {
            values.stored(setting.first, begin, end, false);
            if (world_.faulty()) values.stored(setting.unread, begin, end, false);
        }
        for (const Op& op : ops_) {
            const auto place = placeIn(op, setting.set);
            if (place && op.input.size() >= op.control->input) {
                values.stored(op.input.substr(*place, size), op.issued, op.ended, NT_SUCCESS(op.status) && !mayBeLeft(op));
            }
        }
        for (const Op& op : ops_) {
            const auto place = placeIn(op, setting.get);
            if (!place || !NT_SUCCESS(op.status)) continue;
            if (!values.mayHold(op.output.substr(*place, size), op.issued, op.ended)) unfit(op, "a setting nobody stored");
        }
    }
}

// --- Bytes -----------------------------------------------------------------------------------------------------------------------

std::vector<const Op*> Application::inOrder(Kind kind) const {
    std::vector<const Op*> order;
    for (const Op& op : ops_) {
        if (op.kind == kind) order.push_back(&op);
    }
    return order;
}

namespace {

// The platform does not hand over the data of a request that failed; the bytes it reports are gone.
bool dataSeen(const Op& op) { return !NT_ERROR(op.status); }

void appendTaken(std::vector<TakenByte>& taken, const Op& op) {
    for (std::uint32_t i = 0; i < op.information; ++i) {
        taken.push_back({dataSeen(op) ? static_cast<std::uint8_t>(op.output[i]) : -1, op.ended});
    }
}

std::uint32_t entered(const Op& op) { return op.status == STATUS_SUCCESS ? op.length : op.control != nullptr ? 0 : op.information; }

// What follows another write entered no earlier than that was issued.
void appendSent(std::vector<SentByte>& sent, const Op& op) {
    const Moment at = sent.empty() || sent.back().at.number < op.issued.number ? op.issued : sent.back().at;
    for (std::uint32_t i = 0; i < entered(op); ++i) sent.push_back({static_cast<std::uint8_t>(op.input[i]), at});
}

std::string bytesOf(const Op& op, Way way) {
    if (way == Way::out) return op.input.substr(0, entered(op));
    return dataSeen(op) ? op.output.substr(0, op.information) : std::string();
}

// The request was on its way to the driver only when the other had arrived.
bool mustFollow(const Op& op, const Op& other) { return op.issued.number > other.returned.number; }

using Order = std::vector<const Op*>;

// Where the bytes of each request stand in the other side's record; npos: not to be seen. What is short is looked for in what the
// others leave.
std::vector<std::size_t> placesIn(const std::string& record, const Order& order, Way way) {
    constexpr std::size_t piece = 8, none = std::string::npos;
    std::vector<bool> claimed(record.size());
    std::vector<std::size_t> places(order.size(), none);
    const auto claim = [&](std::size_t i, std::size_t at, const std::string& bytes, std::size_t from) {
        places[i] = at;
        for (std::size_t n = 0; at + n < record.size() && from + n < bytes.size() && record[at + n] == bytes[from + n]; ++n) {
            claimed[at + n] = true;
        }
    };
    for (std::size_t i = 0; i < order.size(); ++i) {
        const std::string bytes = bytesOf(*order[i], way);
        if (bytes.size() < piece) continue;
        for (const std::size_t from : {std::size_t{0}, bytes.size() / 2, bytes.size() - piece}) {
            const std::size_t at = record.find(bytes.substr(from, piece));
            if (at == none) continue;
            claim(i, at, bytes, from);
            break;
        }
    }
    for (std::size_t i = 0; i < order.size(); ++i) {
        const std::string bytes = bytesOf(*order[i], way);
        if (bytes.empty() || bytes.size() >= piece) continue;
        std::size_t at = record.find(bytes);
        while (at != none && claimed[at]) at = record.find(bytes, at + 1);
        if (at != none) claim(i, at, bytes, 0);
    }
    return places;
}

// The requests by these keys, as far as they may have come so; one without a key keeps its turn.
Order arranged(const Order& order, const std::vector<std::size_t>& keys) {
    std::vector<std::size_t> left(order.size());
    for (std::size_t i = 0; i < left.size(); ++i) left[i] = i;
    Order result;
    const auto mayBeNext = [&](std::size_t i) {
        return std::none_of(left.begin(), left.end(), [&](std::size_t other) { return mustFollow(*order[i], *order[other]); });
    };
    while (!left.empty()) {
        auto next = left.begin();
        while (!mayBeNext(*next)) ++next;
        for (auto i = next + 1; i != left.end() && keys[*next] != std::string::npos; ++i) {
            if (keys[*i] < keys[*next] && mayBeNext(*i)) next = i;
        }
        result.push_back(order[*next]);
        left.erase(next);
    }
    return result;
}

// The orders in which the requests are likely to have got there: as the other side's record shows them, and reads, of which some
// hide what they got, as they ended.
std::vector<Order> likelyOrders(const std::string& record, const Order& order, Way way) {
    std::vector<Order> orders{arranged(order, placesIn(record, order, way))};
    if (way == Way::in) {
        std::vector<std::size_t> ends;
        for (const Op* op : order) ends.push_back(op->ended.number);
        orders.push_back(arranged(order, ends));
    }
    return orders;
}

// Without the heads of device frames.
std::vector<TakenByte> unframed(const std::vector<TakenByte>& taken) {
    std::vector<TakenByte> bytes;
    for (std::size_t i = 0; i < taken.size();) {
        if (taken[i].byte == frameHead) {
            i += 4;
        } else {
            bytes.push_back(taken[i++]);
        }
    }
    return bytes;
}

}  // namespace

Verdict Application::judgeOrder(const std::vector<const Op*>& order, Way way, bool whole) const {
    std::vector<SentByte> sent;
    std::vector<TakenByte> taken;
    for (const Op* op : order) way == Way::out ? appendSent(sent, *op) : appendTaken(taken, *op);
    const WildDevice& record = world_.record();
    if (world_.framedSince()) {
        // What a frame did not become is dropped, and so are flags; nothing comes twice, or that was not sent.
        Losses losses = world_.losses;
        losses.begin("bytes may travel in frames", unlimited, true, *world_.framedSince());
        return way == Way::out ? judge(sent, unframed(record.taken), losses, way, whole) : judge(record.given, taken, losses, way, whole);
    }
    return way == Way::out ? judge(sent, record.taken, world_.losses, way, whole)
                           : judge(record.given, taken, world_.losses, way, whole);
}

// Where the bytes do not fit, requests that may have come first are tried, as long as that gets further.
Verdict Application::judgeFrom(std::vector<const Op*> order, Way way, bool whole) const {
    Verdict best = judgeOrder(order, way, whole);
    for (bool further = true; further && !best.text.empty();) {
        further = false;
        // The request that the first unfit byte is in, or behind which it comes.
        std::size_t at = 0;
        const std::size_t place = way == Way::out ? best.place : best.taken;
        const auto lengthOf = [way](const Op& op) { return way == Way::out ? entered(op) : op.information; };
        for (std::size_t bytes = 0; at < order.size() && (bytes += lengthOf(*order[at])) <= place;) ++at;
        for (std::size_t first = at < 2 ? 0 : at - 2; first < order.size() && first <= at && !further; ++first) {
            for (std::size_t later = first + 1; later < order.size() && !further; ++later) {
                const auto begin = order.begin() + static_cast<std::ptrdiff_t>(first), moved = order.begin() + static_cast<std::ptrdiff_t>(later);
                if (std::any_of(begin, moved, [&](const Op* op) { return mustFollow(**moved, *op); })) continue;
                std::rotate(begin, moved, moved + 1);
                const Verdict other = judgeOrder(order, way, whole);
                further = other.text.empty() || other.taken > best.taken;
                if (further) {
                    best = other;
                } else {
                    std::rotate(begin, begin + 1, moved + 1);
                }
            }
        }
    }
    return best;
}

// Requests that were on their way to the driver at the same time may have got there in either order.
void Application::judgeBytes(Way way, bool whole) const {
    const std::vector<const Op*> order = inOrder(way == Way::out ? Kind::write : Kind::read);
    const Verdict verdict = judgeFrom(order, way, whole);
    if (verdict.text.empty()) return;
    std::string record;
    if (way == Way::out) {
        for (const TakenByte& byte : world_.record().taken) record += static_cast<char>(byte.byte);
    } else {
        for (const SentByte& byte : world_.record().given) record += static_cast<char>(byte.byte);
    }
    for (Order& likely : likelyOrders(record, order, way)) {
        if (judgeFrom(std::move(likely), way, whole).text.empty()) return;
    }
    wrong("bytes %s: %s", way == Way::out ? "to the device" : "to the readers", verdict.text.c_str());
}

void Application::judgeAll() {
    for (const Op& op : ops_) {
        if (!op.done()) wrong("a %s never ended", nameOf(op.kind));
        judgeStatus(op);
    }
    judgeSettings();
    judgeBytes(Way::out, false);
    judgeBytes(Way::in, false);
}

}  // namespace explorer
