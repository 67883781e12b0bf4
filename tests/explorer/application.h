// The applications of one run: two threads that share the open port, and the record of what they asked for and got.
//
//   no port --open--> open --close--> no port (requests of the old opening may still end)
//   request: issued --the call returns, it ends, in either order--> ended, once
//
// Everything about a request is judged when it has ended and the run is over: its status against what happened meanwhile, its data
// against the device's record.
#pragma once

#include "tests/explorer/world.h"

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace explorer {

struct Opening;

enum class Kind : std::uint8_t { read, write, flush, wait, control };

struct Op {
    Kind kind = Kind::control;
    const Control* control = nullptr;
    std::uint32_t id = 0;      // stream of a write's bytes
    std::uint32_t length = 0;  // of a read or write
    std::string input, output;
    Opening* opening = nullptr;
    Moment issued, returned, ended;
    bool back = false;       // the issuing call has returned
    bool cancelled = false;  // somebody asked for its end
    unsigned ends = 0;
    NTSTATUS status = STATUS_PENDING;
    std::uint32_t information = 0;
    nt::Request request;

    bool done() const { return ends != 0; }
};

// From an open to its close.
struct Opening {
    nt::File file;
    std::string port;
    Moment begun;
    bool closing = false;
    Moment closeBegan;
    std::vector<std::pair<Moment, Moment>> cancelled;  // all of its requests
};

class Application {
public:
    explicit Application(World& world);

    void take(const Step& step);
    // With the device well: everything under way comes through.
    void drain();
    void close();
    // A fresh opening carries bytes both ways in time.
    void live();
    // Every request has ended, as it may, and every byte came that must.
    void judgeAll();

private:
    bool open(std::uint32_t name);
    Op& make(Kind kind, Actor actor);
    template <class Issue>
    void issue(Op& op, Issue&& issue);
    void read(Actor actor, std::uint32_t length);
    void write(Actor actor, std::uint32_t length);
    void control(Actor actor, const Control& control, std::uint32_t value, std::uint32_t cut);
    void sendInternal(Op& op);
    void noteTimeouts(const std::string& input);
    void cancel(std::uint32_t which);
    void cancelAll();
    void await(Actor actor, std::uint32_t ms);
    bool until(bool (Application::*condition)() const, std::int64_t ms);
    Op& runControl(std::uint32_t code, const std::string& input);
    bool allEnded() const;
    bool allTaken() const;
    static void ended(nt::Request& request, void* context);

    void judgeStatus(const Op& op) const;
    void judgeTransfer(const Op& op) const;
    void judgeWait(const Op& op) const;
    void judgeControl(const Op& op) const;
    bool mayBeCancelled(const Op& op, std::uint32_t purge) const;
    bool troubled(const Op& op) const;
    void judgeSettings() const;
    Verdict judgeOrder(const std::vector<const Op*>& order, Way way, bool whole) const;
    Verdict judgeFrom(std::vector<const Op*> order, Way way, bool whole) const;
    void judgeBytes(Way way, bool whole) const;
    std::vector<const Op*> inOrder(Kind kind) const;

    World& world_;
    std::deque<Op> ops_;
    std::deque<Opening> openings_;
    Opening* current_ = nullptr;
    Op* last_[actorCount] = {};
    std::uint32_t writes_ = 0;
    std::size_t ring_ = 0;      // bytes the receive ring holds, or less
    std::uint32_t masks_ = 0;   // every event ever waited for
    bool timeouts_ = false;     // reads and writes may time out
    bool shortReads_ = false;   // reads may end with less
};

}  // namespace explorer
