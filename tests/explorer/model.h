// What must come out: of every request its end, of every byte its place.
//
// The two directions are judged alike. One side sent a sequence of bytes, each a function of its place; the other side received a
// sequence. Received must be sent with pieces left out, and a piece may be left out only where a loss explains it:
//
//   sent       a b c d e f g h i j          (each known since some moment)
//   received   a b c           h i j        (each taken at some moment)
//                      ^ d...g: a loss that began before h was taken and ended after g was sent, of at least four bytes
//
// A loss is an interval in which the driver may drop what it holds: a purge, a stop, a transfer that the device failed.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace explorer {

// The run is wrong: prints "explorer: ..." and ends the process.
[[noreturn]] void wrong(const char* format, ...) __attribute__((format(printf, 1, 2)));

// With `tell` every step, end of a request and byte count is printed, and what the driver traces under its mask.
extern bool tell;
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Every event of a run has its number; two events of one virtual moment are in order, too.
struct Moment {
    std::uint64_t number = 0;
    std::int64_t ms = 0;
};
Moment now();
void restartMoments();

// Begins a device frame.
constexpr std::uint8_t frameHead = 0xAA;

// Byte `place` of stream `id`; the streams of different ids have nothing in common. With `framed` it is no flag, no escape and no
// frameHead, so that it is the same in a frame of either kind, and frames' heads are told from it.
std::uint8_t payload(std::uint32_t id, std::uint32_t place, bool framed = false);

enum class Way : std::uint8_t { out, in };

constexpr std::uint64_t unlimited = ~0ull;

struct Loss {
    const char* why = "";
    Moment begin;
    std::uint64_t endNumber = unlimited;  // what was sent up to here may be lost,
    std::int64_t endMs = INT64_MAX;       // or up to this time, whichever is later
    std::uint64_t outBytes = 0;           // at most; 0: does not concern this way
    bool in = false;
};

struct SentByte {
    std::uint8_t byte;
    Moment at;
};
// A byte that was taken, or was consumed unseen.
struct TakenByte {
    int byte;  // -1: unseen
    Moment at;
};

class Losses {
public:
    // The index is for end().
    std::size_t begin(const char* why, std::uint64_t outBytes, bool in) { return begin(why, outBytes, in, now()); }
    std::size_t begin(const char* why, std::uint64_t outBytes, bool in, const Moment& at);
    // Nothing that is sent `graceMs` from now, or later, may be lost for this reason.
    void end(std::size_t index, std::int64_t graceMs);
    // Whether the paths may have been stopped since.
    bool anySince(const Moment& moment) const;
    // It may take so many bytes on their way to the device.
    void allow(std::size_t index, std::uint64_t outBytes) { losses_[index].outBytes = outBytes; }
    const std::vector<Loss>& all() const { return losses_; }

private:
    std::vector<Loss> losses_;
};

struct Verdict {
    std::string text;       // empty, or what is wrong
    std::size_t taken = 0;  // the byte that nothing explains
    std::size_t place = 0;  // the first place where it could have been
};

// `whole`: everything that was sent must have been taken, but for the losses.
Verdict judge(const std::vector<SentByte>& sent, const std::vector<TakenByte>& taken, const Losses& losses, Way way, bool whole);

// A setting that any thread may store and fetch at any time: what is fetched was the last stored, or one of those stored meanwhile.
class Register {
public:
    explicit Register(std::string initial) : values_{{std::move(initial), {}, {}, true}} {}
    // `surely` false: perhaps it was stored.
    void stored(std::string value, Moment begin, Moment end, bool surely);
    bool mayHold(const std::string& value, Moment begin, Moment end) const;

private:
    struct Value {
        std::string value;
        Moment begin, end;
        bool surely;
    };
    std::vector<Value> values_;
};

}  // namespace explorer
