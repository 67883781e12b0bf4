#include "tests/explorer/model.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

namespace explorer {

namespace {

std::uint64_t lastNumber = 0;

// Whether a byte sent at `at` may be lost to what began before `taken`; with room for how many.
std::uint64_t roomFor(const Losses& losses, Way way, const Moment& at, std::uint64_t takenNumber) {
    std::uint64_t room = 0;
    for (const Loss& loss : losses.all()) {
        const std::uint64_t bytes = way == Way::out ? loss.outBytes : (loss.in ? unlimited : 0);
        if (bytes == 0 || loss.begin.number >= takenNumber) continue;
        if (at.number > loss.endNumber && at.ms > loss.endMs) continue;
        room = bytes == unlimited || room == unlimited ? unlimited : room + bytes;
    }
    return room;
}

// Follows all places at which the receiver may stand. A gap may follow any byte, so the places after it are looked up by value.
class Judge {
public:
    Judge(const std::vector<SentByte>& sent, const Losses& losses, Way way) : sent_(sent), losses_(losses), way_(way) {
        for (std::size_t i = 0; i < sent.size(); ++i) places_[sent[i].byte].push_back(i);
    }

    // False: no place explains this byte.
    bool take(const TakenByte& byte) {
        next_.clear();
        for (const std::size_t at : at_) {
            if (at < sent_.size() && fits(byte, at)) next_.push_back(at + 1);
        }
        if (losses_.none(way_)) return move();
        std::size_t begin = at_.front();
        if (begin >= sent_.size() || roomFor(losses_, way_, sent_[begin].at, byte.at.number) == 0) return move();
        if (byte.byte >= 0) {
            const auto& places = places_[static_cast<std::size_t>(byte.byte)];
            for (auto place = std::upper_bound(places.begin(), places.end(), begin); place != places.end(); ++place) {
                if (!reach(*place, byte)) break;
            }
        } else {
            for (std::size_t place = begin + 1; place < sent_.size() && reach(place, byte); ++place) {
            }
        }
        return move();
    }
    bool restMayBeLost() const {
        for (const std::size_t at : at_) {
            if (at == sent_.size()) return true;
            const std::uint64_t room = roomFor(losses_, way_, sent_.back().at, unlimited);
            if (room >= sent_.size() - at) return true;
        }
        return false;
    }
    std::size_t first() const { return at_.front(); }

private:
    bool fits(const TakenByte& byte, std::size_t at) const {
        return byte.byte < 0 || sent_[at].byte == static_cast<std::uint8_t>(byte.byte);
    }
    // Adds `place` if what lies between it and a place before may be lost. False: nor may anything further be.
    bool reach(std::size_t place, const TakenByte& byte) {
        const std::uint64_t room = roomFor(losses_, way_, sent_[place - 1].at, byte.at.number);
        if (room == 0) return false;
        const auto after = std::lower_bound(at_.begin(), at_.end(), place);
        if (after != at_.begin() && room >= place - *(after - 1)) next_.push_back(place + 1);
        return true;
    }
    bool move() {
        std::sort(next_.begin(), next_.end());
        next_.erase(std::unique(next_.begin(), next_.end()), next_.end());
        if (next_.empty()) return false;
        at_.swap(next_);
        return true;
    }

    const std::vector<SentByte>& sent_;
    const Losses& losses_;
    const Way way_;
    std::array<std::vector<std::size_t>, 256> places_;
    std::vector<std::size_t> at_{0}, next_;
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

Moment now() { return {++lastNumber, static_cast<std::int64_t>(KeQueryInterruptTime() / 10000)}; }
void restartMoments() { lastNumber = 0; }

std::uint8_t payload(std::uint32_t id, std::uint32_t place) {
    std::uint64_t z = (std::uint64_t(id) << 32 | place) + 0x9e3779b97f4a7c15;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return static_cast<std::uint8_t>(z >> 33);
}

std::size_t Losses::begin(const char* why, std::uint64_t outBytes, bool in) {
    losses_.push_back({why, now(), unlimited, INT64_MAX, outBytes, in});
    return losses_.size() - 1;
}

void Losses::end(std::size_t index, std::int64_t graceMs) {
    const Moment at = now();
    losses_[index].endNumber = at.number;
    losses_[index].endMs = graceMs == 0 ? -1 : at.ms + graceMs;
}

bool Losses::none(Way way) const {
    return std::none_of(losses_.begin(), losses_.end(), [way](const Loss& l) { return way == Way::out ? l.outBytes != 0 : l.in; });
}

std::string judge(const std::vector<SentByte>& sent, const std::vector<TakenByte>& taken, const Losses& losses, Way way, bool whole) {
    Judge judge(sent, losses, way);
    char text[300];
    for (std::size_t i = 0; i < taken.size(); ++i) {
        if (judge.take(taken[i])) continue;
        snprintf(text, sizeof text, "byte %zu of %zu taken (%02x, at %lld ms) cannot be what follows place %zu of %zu sent", i,
                 taken.size(), static_cast<unsigned>(taken[i].byte) & 0xff, static_cast<long long>(taken[i].at.ms), judge.first(), sent.size());
        return text;
    }
    if (whole && !judge.restMayBeLost()) {
        snprintf(text, sizeof text, "%zu bytes taken, the last %zu of %zu sent never came", taken.size(), sent.size() - judge.first(),
                 sent.size());
        return text;
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
