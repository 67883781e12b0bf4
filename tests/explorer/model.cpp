#include "tests/explorer/model.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

namespace explorer {

namespace {

std::uint64_t lastNumber = 0;

// What may be lost of a sequence, seen from the moment at which something later was taken.
class Allowance {
public:
    Allowance(const std::vector<SentByte>& sent, const Losses& losses, Way way) : sent_(sent), losses_(losses), way_(way) {}

    void lookFrom(std::uint64_t takenNumber) {
        if (takenNumber == lookedFrom_) return;
        lookedFrom_ = takenNumber;
        parts_.clear();
        limit_ = 0;
        for (const Loss& loss : losses_.all()) {
            const std::uint64_t room = way_ == Way::out ? loss.outBytes : (loss.in ? unlimited : 0);
            if (room == 0 || loss.begin.number >= takenNumber) continue;
            parts_.push_back({limitOf(loss), room});
            limit_ = std::max(limit_, parts_.back().limit);
        }
    }
    // Places from here on may not be lost.
    std::size_t limit() const { return limit_; }
    // Whether all bytes from one place to before another may be missing: what a loss cannot have met, later ones must have taken.
    bool mayMiss(std::size_t from, std::size_t to) const {
        if (!fit(from, to)) return false;
        return std::all_of(parts_.begin(), parts_.end(), [&](const Part& part) {
            return part.limit <= from || part.limit >= to || fit(part.limit, to);
        });
    }

private:
    struct Part {
        std::size_t limit;
        std::uint64_t room;
    };
    bool fit(std::size_t from, std::size_t to) const {
        std::uint64_t room = 0;
        for (const Part& part : parts_) {
            if (part.limit > from) room = part.room == unlimited || room == unlimited ? unlimited : room + part.room;
        }
        return room >= to - from;
    }
    // Places are in the order of their moments.
    std::size_t limitOf(const Loss& loss) const {
        const auto end = std::partition_point(sent_.begin(), sent_.end(), [&](const SentByte& byte) {
            return byte.at.number <= loss.endNumber || byte.at.ms <= loss.endMs;
        });
        return static_cast<std::size_t>(end - sent_.begin());
    }

    const std::vector<SentByte>& sent_;
    const Losses& losses_;
    const Way way_;
    std::vector<Part> parts_;
    std::size_t limit_ = 0;
    std::uint64_t lookedFrom_ = 0;
};

// Follows all places at which the receiver may stand, as ranges.
class Judge {
public:
    Judge(const std::vector<SentByte>& sent, const Losses& losses, Way way) : sent_(sent), allowance_(sent, losses, way) {
        for (std::size_t i = 0; i < sent.size(); ++i) places_[sent[i].byte].push_back(i);
    }

    // False: no place explains this byte.
    bool take(const TakenByte& byte) {
        next_.clear();
        allowance_.lookFrom(byte.at.number);
        const std::size_t begin = at_.front().first;
        const std::size_t limit = allowance_.limit();
        if (byte.byte < 0) {
            for (const Range& range : at_) {
                if (range.first < sent_.size()) next_.push_back({range.first + 1, std::min(range.last, sent_.size() - 1) + 1});
            }
            // Only readers consume bytes unseen, and what they lose is not bounded.
            if (limit > begin) next_.push_back({begin + 1, std::min(limit, sent_.size() - 1) + 1});
        } else {
            const auto& places = places_[static_cast<std::size_t>(byte.byte)];
            const std::size_t end = std::max(limit, at_.back().last) + 1;
            for (auto place = std::lower_bound(places.begin(), places.end(), begin); place != places.end() && *place < end; ++place) {
                if (reachable(*place)) next_.push_back({*place + 1, *place + 1});
            }
        }
        return move();
    }
    bool restMayBeLost() {
        allowance_.lookFrom(unlimited);
        const std::size_t last = at_.back().last;
        return last == sent_.size() || (allowance_.limit() == sent_.size() && allowance_.mayMiss(last, sent_.size()));
    }
    std::size_t first() const { return at_.front().first; }

private:
    struct Range {
        std::size_t first, last;
    };
    bool reachable(std::size_t place) const {
        const auto after = std::partition_point(at_.begin(), at_.end(), [place](const Range& r) { return r.first <= place; });
        const std::size_t before = std::min((after - 1)->last, place);
        return before == place || (place <= allowance_.limit() && allowance_.mayMiss(before, place));
    }
    bool move() {
        std::sort(next_.begin(), next_.end(), [](const Range& a, const Range& b) { return a.first < b.first; });
        at_.clear();
        for (const Range& range : next_) {
            if (!at_.empty() && range.first <= at_.back().last + 1) {
                at_.back().last = std::max(at_.back().last, range.last);
            } else {
                at_.push_back(range);
            }
        }
        return !at_.empty();
    }

    const std::vector<SentByte>& sent_;
    Allowance allowance_;
    std::array<std::vector<std::size_t>, 256> places_;
    std::vector<Range> at_{{0, 0}}, next_;
};

}  // namespace

void wrong(const char* format, ...) {
    char text[600];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fprintf(stderr, "explorer: %s\n", text);
    fflush(stderr);
    _exit(3);
}

bool tell = false;

void say(const char* format, ...) {
    if (!tell) return;
    fprintf(stderr, "%6lld ms  ", static_cast<long long>(KeQueryInterruptTime() / 10000));
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
}

Moment now() { return {++lastNumber, static_cast<std::int64_t>(KeQueryInterruptTime() / 10000)}; }
void restartMoments() { lastNumber = 0; }

std::uint8_t payload(std::uint32_t id, std::uint32_t place, bool framed) {
    std::uint64_t z = (std::uint64_t(id) << 32 | place) + 0x9e3779b97f4a7c15;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    const auto byte = static_cast<std::uint8_t>(z >> 33);
    const bool special = byte == 0x7D || byte == 0x7E || byte == frameHead;
    return framed && special ? byte ^ 1 : byte;
}

std::size_t Losses::begin(const char* why, std::uint64_t outBytes, bool in, const Moment& at) {
    losses_.push_back({why, at, unlimited, INT64_MAX, outBytes, in});
    return losses_.size() - 1;
}

void Losses::end(std::size_t index, std::int64_t graceMs) {
    const Moment at = now();
    losses_[index].endNumber = at.number;
    losses_[index].endMs = graceMs == 0 ? -1 : at.ms + graceMs;
}

bool Losses::anySince(const Moment& moment) const {
    return std::any_of(losses_.begin(), losses_.end(),
                       [&](const Loss& l) { return l.in && (l.endNumber > moment.number || l.endMs >= moment.ms); });
}

Verdict judge(const std::vector<SentByte>& sent, const std::vector<TakenByte>& taken, const Losses& losses, Way way, bool whole) {
    Judge judge(sent, losses, way);
    char text[300];
    for (std::size_t i = 0; i < taken.size(); ++i) {
        const std::size_t place = judge.first();
        if (judge.take(taken[i])) continue;
        snprintf(text, sizeof text, "byte %zu of %zu taken (%02x, at %lld ms) cannot be what follows place %zu of %zu sent", i,
                 taken.size(), static_cast<unsigned>(taken[i].byte) & 0xff, static_cast<long long>(taken[i].at.ms), place, sent.size());
        return {text, i, place};
    }
    if (whole && !judge.restMayBeLost()) {
        snprintf(text, sizeof text, "%zu bytes taken, the last %zu of %zu sent never came", taken.size(), sent.size() - judge.first(),
                 sent.size());
        return {text, taken.size(), judge.first()};
    }
    return {};
}

void Register::stored(std::string value, Moment begin, Moment end, bool surely) {
    values_.push_back({std::move(value), begin, end, surely});
}

bool Register::mayHold(const std::string& value, Moment begin, Moment end) const {
    return std::any_of(values_.begin(), values_.end(), [&](const Value& v) {
        if (v.value != value || v.begin.number >= end.number) return false;
        return std::none_of(values_.begin(), values_.end(), [&](const Value& later) {
            return later.surely && v.end.number < later.begin.number && later.end.number < begin.number;
        });
    });
}

}  // namespace explorer
