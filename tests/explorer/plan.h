// What one run does: a schedule, the settings of the device's key, and a list of steps. A plan is generated from a seed, can be
// written down, read back and cut, so a failure keeps its meaning when steps are dropped.
//
// Text form, one step a line, in the order each actor takes its own:
//
//   schedule 17
//   set IdleInterval 1
//   first ~5 write 300 0 0           # after 5 ms
//   system +120 then unplug 0 0 0    # once all steps above have begun, and after 120 scheduling points
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace explorer {

// Two threads of applications, and one that is the device's, the bus's and the system's fate.
enum class Actor : std::uint8_t { first, second, system };
constexpr std::size_t actorCount = 3;

enum class Verb : std::uint8_t {
    // Applications.
    open,       // by name 0: the COM name, 1: the interface
    close,
    read,       // length
    write,      // length
    flush,
    control,    // row of the table, value, bytes to cut off the buffers
    cancel,     // which of the outstanding requests
    cancelAll,
    await,      // up to so many ms for the own last request
    // Any actor.
    stand,      // still at the n-th scheduling point of the next step, until nobody else can run
    // The device.
    send,       // length, pieces
    lines,      // SERIAL_STATE bits
    network,    // connected
    malformed,  // which
    framing,    // 1 start, 0 stop
    stallIn,    // transfers
    stallOut,   // transfers
    stallControl,  // requests
    muteControl,   // requests that are never answered
    hold,       // 1: takes nothing, 0: takes again
    allow,      // takes so many packets, then nothing
    remoteWake,
    // The system.
    unplug,
    cut,        // a remote device's connection, after so many more bytes
    replug,
    queryStop,
    stop,
    cancelStop,
    start,
    queryRemove,
    remove,
    cancelRemove,
    restart,
    powerDown,  // device state 2 or 3
    powerUp,
    sleep,      // system state
    wake,
    fail,       // kind, n-th, 1: from then on
    heal,
    count_,
};

struct Step {
    Actor actor = Actor::first;
    Verb verb = Verb::open;
    std::uint32_t pause = 0;
    bool pauseMs = false;  // else in scheduling points
    bool ordered = false;  // begins after all steps above it, unless one of them hangs
    std::array<std::uint32_t, 3> args{};
};

// Settings of the bus, not of the driver: the device that left refuses to be powered; the device is a remote one, and its connection
// delivers in pieces of so many bytes (0: any) and holds them back for so many milliseconds.
constexpr const char* rejectD0 = "Bus.RejectD0WhenGone";
constexpr const char* remote = "Bus.Remote";
constexpr const char* remotePiece = "Bus.RemotePieceBytes";
constexpr const char* remoteDelay = "Bus.RemoteDelayMs";
inline bool isOfDriver(const std::string& setting) { return !setting.starts_with("Bus."); }

struct Plan {
    std::uint64_t schedule = 1;
    std::map<std::string, std::uint32_t> values;
    std::vector<Step> steps;

    std::uint32_t value(const std::string& name, std::uint32_t otherwise) const;
    bool uses(Verb verb) const;
};

// `alwaysRemote`: not only one in five.
Plan generate(std::uint64_t seed, bool alwaysRemote = false);
std::string toText(const Step& step);
std::string toText(const Plan& plan);
// Throws std::runtime_error with the line that cannot be taken.
Plan fromText(std::string_view text);

// Drops steps and settings and shortens pauses as long as `stillFails`; it is asked at most `budget` times.
Plan shrink(Plan plan, const std::function<bool(const Plan&)>& stillFails, unsigned budget);

}  // namespace explorer
