#include "tests/explorer/application.h"

#include <algorithm>
#include <cstring>

namespace explorer {

namespace {

constexpr std::int64_t liveMs = 5000;
// The close's drain, its control requests timing out, one step of a stop.
constexpr std::int64_t endMs = 8000;
constexpr std::int64_t stepMs = 5;
constexpr std::uint32_t maxLength = 4096;

template <class Value>
std::string bytesOf(const Value& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

SERIAL_TIMEOUTS timeoutsOf(std::uint32_t value) {
    const ULONG forever = MAXULONG;
    const SERIAL_TIMEOUTS choices[] = {{0, 0, 0, 0, 0},       {forever, 0, 0, 0, 0}, {forever, forever, 200, 0, 0}, {20, 0, 0, 0, 50},
                                       {0, 0, 100, 0, 300},   {10, 1, 50, 1, 50},    {forever, 0, 30, 0, 0},        {0, 2, 0, 0, 0},
                                       {0x80000000, 0, 0, 0, 0}};
    return choices[value % std::size(choices)];
}

std::string inputOf(const Control& control, std::uint32_t value) {
    switch (control.internal ? 0 : control.code) {
    case IOCTL_SERIAL_SET_BAUD_RATE: return bytesOf(SERIAL_BAUD_RATE{300 * (1 + value % 400)});
    case IOCTL_SERIAL_SET_QUEUE_SIZE: return bytesOf(SERIAL_QUEUE_SIZE{50 + value % 7 * 300, 50 + value / 7 % 5 * 200});
    case IOCTL_SERIAL_SET_TIMEOUTS: return bytesOf(timeoutsOf(value));
    case IOCTL_SERIAL_SET_WAIT_MASK: return bytesOf(ULONG{value % 8 == 0 ? 0 : value & 0x7ff});
    case IOCTL_SERIAL_PURGE: return bytesOf(ULONG{value & 0x0f});
    default: {
        std::string input(control.input, '\0');
        for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<char>(payload(value, static_cast<std::uint32_t>(i)));
        if (control.internal && !input.empty()) input.replace(0, sizeof(SERIAL_TIMEOUTS), bytesOf(timeoutsOf(value)));
        return input;
    }
    }
}

ULONG valueOf(const std::string& input) {
    ULONG value = 0;
    std::memcpy(&value, input.data(), std::min(sizeof value, input.size()));
    return value;
}

}  // namespace

Application::Application(World& world) : world_(world) {
    world_.readerBehind = [this](std::size_t given) {
        std::size_t left = given;
        for (const Op& op : ops_) left -= op.kind == Kind::read && op.done() ? op.information : 0;
        return left > ring_;
    };
    ring_ = world_.plan.value("ReadCircBufferSize", 65536);
}

void Application::ended(nt::Request& request, void* context) {
    Op& op = *static_cast<Op*>(context);
    if (++op.ends != 1) wrong("a request ended twice");
    op.status = request.status();
    op.information = static_cast<std::uint32_t>(request.information());
    op.ended = now();
    say("a %s ends with %x, %u", op.control ? op.control->name : op.kind == Kind::read ? "read" : op.kind == Kind::write ? "write" : "flush",
        static_cast<unsigned>(op.status), op.information);
}

Op& Application::make(Kind kind, Actor actor) {
    Op& op = ops_.emplace_back();
    op.kind = kind;
    op.opening = current_;
    op.request.setCompletion(ended, &op);
    last_[std::size_t(actor)] = &op;
    return op;
}

template <class Issue>
void Application::issue(Op& op, Issue&& issue) {
    op.issued = now();
    issue(op.opening->file);
    op.returned = now();
    op.back = true;
}

bool Application::open(std::uint32_t name) {
    const auto names = world_.names();
    Opening& opening = openings_.emplace_back();
    world_.visit(rowCreate);
    if (!NT_SUCCESS(opening.file.open(names[name % names.size()]))) return false;
    opening.port = names[0];
    opening.begun = now();
    if (current_ != nullptr) {
        if (current_->port == opening.port) wrong("the port was opened twice at the same time");
        // The modem came back under another identifier: two ports.
        opening.file.close();
        return false;
    }
    // The close of the opening before is over.
    if (world_.closing) world_.losses.end(*world_.closing, 0);
    world_.closing.reset();
    current_ = &opening;
    say("open");
    return true;
}

void Application::close() {
    Opening* const opening = current_;
    if (opening == nullptr) return;
    world_.visit(rowCleanup);
    // With the modem taking all it is sent, what has been written goes out, but for the transfer under way at the end.
    const bool flows = world_.device([](WildDevice& d) { return d.takesAll(); }) && world_.rests() &&
                       world_.raised() == 0 && !world_.faulty() && world_.plan.value("useCtsFlowControl", 0) == 0;
    if (current_ != opening) return;
    current_ = nullptr;
    opening->closing = true;
    opening->closeBegan = now();
    world_.closing = world_.losses.begin("the port closes", flows ? world_.chunk() : unlimited, true);
    opening->file.close();
    say("closed");
}

void Application::read(Actor actor, std::uint32_t length) {
    if (current_ == nullptr) return;
    world_.visit(rowRead);
    Op& op = make(Kind::read, actor);
    op.length = std::min(length, maxLength);
    op.output.resize(op.length);
    issue(op, [&](nt::File& file) { file.read(op.request, op.output.data(), op.length); });
}

void Application::write(Actor actor, std::uint32_t length) {
    if (current_ == nullptr) return;
    world_.visit(rowWrite);
    Op& op = make(Kind::write, actor);
    op.length = std::min(length, maxLength);
    op.id = ++writes_;
    const bool flags = world_.framing() && op.id % 2 == 0;
    for (std::uint32_t i = 0; i < op.length; ++i) {
        const bool flag = flags && (i % 200 == 199 || i + 1 == op.length);
        op.input.push_back(static_cast<char>(flag ? 0x7E : payload(op.id, i, world_.framing())));
    }
    issue(op, [&](nt::File& file) { file.write(op.request, op.input.data(), op.length); });
}

void Application::control(Actor actor, const Control& control, std::uint32_t value, std::uint32_t cut) {
    if (current_ == nullptr) return;
    world_.visit(rowControls + static_cast<std::uint32_t>(&control - controls));
    const bool character = is(control, codeImmediateChar);
    Op& op = make(is(control, codeWaitOnMask) ? Kind::wait : character ? Kind::write : Kind::control, actor);
    op.control = &control;
    op.input = inputOf(control, value);
    if (cut != 0) op.input.resize(op.input.size() - std::min<std::size_t>(cut, op.input.size()));
    op.output.resize(control.output - std::min(cut, control.output));
    if (control.internal) return sendInternal(op);
    if (character) {
        op.id = ++writes_;
        op.length = static_cast<std::uint32_t>(op.input.size());
        if (op.length != 0) op.input[0] = static_cast<char>(payload(op.id, 0, world_.framing()));
    }
    if (is(control, codeSetTimeouts)) {
        noteTimeouts(op.input);
        shortReads_ = shortReads_ || (op.input.size() == control.input && valueOf(op.input) == MAXULONG);
    }
    if (is(control, codeSetWaitMask)) masks_ |= valueOf(op.input);
    std::optional<std::size_t> loss;
    const std::uint32_t mask = is(control, codePurge) ? valueOf(op.input) : 0;
    if (is(control, codeSetQueueSize)) {
        loss = world_.losses.begin("a queue is resized", unlimited, true);
        ring_ = 100;
    } else if ((mask & (SERIAL_PURGE_TXCLEAR | SERIAL_PURGE_RXCLEAR)) != 0) {
        loss = world_.losses.begin("a purge", mask & SERIAL_PURGE_TXCLEAR ? unlimited : 0, mask & SERIAL_PURGE_RXCLEAR);
    }
    issue(op, [&](nt::File& file) {
        file.control(op.request, control.code, op.input.data(), static_cast<ULONG>(op.input.size()), op.output.data(),
                     static_cast<ULONG>(op.output.size()));
    });
    if (loss) world_.losses.end(*loss, 0);
}

void Application::noteTimeouts(const std::string& input) {
    SERIAL_TIMEOUTS timeouts;
    if (input.size() < sizeof timeouts) return;
    std::memcpy(&timeouts, input.data(), sizeof timeouts);
    timeouts_ = timeouts_ || timeouts.ReadIntervalTimeout != 0 || timeouts.ReadTotalTimeoutConstant != 0 ||
                timeouts.ReadTotalTimeoutMultiplier != 0 || timeouts.WriteTotalTimeoutConstant != 0;
}

// As another driver, stacked on the port, sends it; waits for its end.
void Application::sendInternal(Op& op) {
    noteTimeouts(op.input);
    PDEVICE_OBJECT device = IoGetAttachedDevice(op.opening->file.object()->DeviceObject);
    ObReferenceObject(device);
    std::string buffer = op.input;
    buffer.resize(std::max(op.input.size(), op.output.size()));
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    op.issued = now();
    const PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    if (irp != nullptr) {
        irp->AssociatedIrp.SystemBuffer = buffer.data();
        const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = op.control->code;
        next->Parameters.DeviceIoControl.InputBufferLength = static_cast<ULONG>(op.input.size());
        next->Parameters.DeviceIoControl.OutputBufferLength = static_cast<ULONG>(op.output.size());
        const auto back = [](PDEVICE_OBJECT, PIRP, PVOID context) -> NTSTATUS {
            KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
            return STATUS_MORE_PROCESSING_REQUIRED;
        };
        IoSetCompletionRoutine(irp, back, &done, TRUE, TRUE, TRUE);
        IoCallDriver(device, irp);
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    ++op.ends;
    op.back = true;
    op.status = irp != nullptr ? irp->IoStatus.Status : STATUS_INSUFFICIENT_RESOURCES;
    op.information = irp != nullptr ? static_cast<std::uint32_t>(irp->IoStatus.Information) : 0;
    op.output = buffer.substr(0, op.output.size());
    op.returned = op.ended = now();
    say("%s ends with %x, %u", op.control->name, static_cast<unsigned>(op.status), op.information);
    if (irp != nullptr) IoFreeIrp(irp);
    ObDereferenceObject(device);
}

void Application::cancel(std::uint32_t which) {
    std::vector<Op*> outstanding;
    for (Op& op : ops_) {
        const bool internal = op.control != nullptr && op.control->internal;
        if (!op.done() && !internal && op.opening == current_ && current_ != nullptr) outstanding.push_back(&op);
    }
    if (outstanding.empty()) return;
    world_.visit(rowCancel);
    Op& op = *outstanding[outstanding.size() - 1 - which % outstanding.size()];
    op.cancelled = true;
    current_->file.cancel(op.request);
}

// It finds requests, too, that others issue meanwhile.
void Application::cancelAll() {
    Opening& opening = *current_;
    const Moment begin = now();
    opening.file.cancelAll();
    opening.cancelled.push_back({begin, now()});
}

void Application::await(Actor actor, std::uint32_t ms) {
    const Op* const op = last_[std::size_t(actor)];
    for (std::uint32_t waited = 0; op != nullptr && !op->done() && waited < ms; ++waited) sleepMs(1);
}

void Application::take(const Step& step) {
    const auto [a, b, c] = step.args;
    switch (step.verb) {
    case Verb::open:
        open(a);
        return;
    case Verb::close: return close();
    case Verb::read: return read(step.actor, a);
    case Verb::write: return write(step.actor, a);
    case Verb::flush: {
        if (current_ == nullptr) return;
        world_.visit(rowFlush);
        Op& op = make(Kind::flush, step.actor);
        return issue(op, [&](nt::File& file) { file.flush(op.request); });
    }
    case Verb::control: return control(step.actor, controls[a % controlCount], b, c);
    case Verb::cancel: return cancel(a);
    case Verb::cancelAll:
        if (current_ == nullptr) return;
        world_.visit(rowCancel);
        return cancelAll();
    default: return await(step.actor, a);
    }
}

// --- The end of a run ----------------------------------------------------------------------------------------------------------

bool Application::until(bool (Application::*condition)() const, std::int64_t ms) {
    for (std::int64_t waited = 0; !(this->*condition)(); waited += stepMs) {
        if (waited >= ms) return false;
        sleepMs(stepMs);
    }
    return true;
}

bool Application::allEnded() const {
    return std::all_of(ops_.begin(), ops_.end(), [](const Op& op) { return op.done() && op.back; });
}

Op& Application::runControl(std::uint32_t code, const std::string& input) {
    const Control& row = controls[rowOf(code)];
    Op& op = make(Kind::control, Actor::first);
    op.control = &row;
    op.input = input;
    issue(op, [&](nt::File& file) {
        file.control(op.request, code, op.input.data(), static_cast<ULONG>(op.input.size()), nullptr, 0);
    });
    for (int i = 0; i < 1000 && !op.done(); ++i) sleepMs(1);
    return op;
}

bool Application::allTaken() const {
    const auto sent = inOrder(Kind::write);
    std::size_t bytes = 0;
    for (const Op* op : sent) bytes += op->status == STATUS_SUCCESS ? op->length : op->information;
    return world_.record().taken.size() >= bytes;
}

// What failed or framed has its own rules; everything else must arrive once the device is well.
void Application::drain() {
    if (current_ == nullptr) return;
    cancelAll();
    if (!until(&Application::allEnded, endMs)) wrong("a cancelled request does not end");
    if (world_.framing() || world_.faulty()) return;
    timeouts_ = true;
    runControl(codeSetTimeouts, bytesOf(SERIAL_TIMEOUTS{0, 0, 200, 0, 0}));
    // The silence must be longer than one that a slow receive path makes.
    for (unsigned silent = 0; silent < 2;) {
        read(Actor::first, maxLength);
        const Op& op = *last_[0];
        for (std::int64_t waited = 0; !op.done() && waited < liveMs; waited += stepMs) sleepMs(stepMs);
        if (!op.done()) wrong("a read outlives its time-out");
        silent = op.information == 0 ? silent + 1 : 0;
    }
    until(&Application::allTaken, liveMs);
    // Before the close, which may lose what is left.
    judgeBytes(Way::out, true);
    judgeBytes(Way::in, true);
}

void Application::live() {
    world_.rest();
    world_.device([](WildDevice& d) { d.forget(); });
    const std::int64_t begin = now().ms;
    while (!open(0)) {
        if (now().ms - begin >= liveMs) wrong("liveness: the port does not open");
        sleepMs(stepMs);
    }
    world_.raiseLines();
    const std::size_t before = world_.record().taken.size();
    timeouts_ = true;
    // A ring that could not be had is asked for again.
    const auto loss = world_.losses.begin("a queue is resized", unlimited, true);
    runControl(codeSetQueueSize, bytesOf(SERIAL_QUEUE_SIZE{777, 777}));
    runControl(codeSetQueueSize, bytesOf(SERIAL_QUEUE_SIZE{4096, 2048}));
    world_.losses.end(loss, 0);
    runControl(codeSetTimeouts, bytesOf(SERIAL_TIMEOUTS{0, 0, 4000, 0, 0}));
    write(Actor::second, 700);
    world_.device([](WildDevice& d) { d.give(700); });
    read(Actor::first, 700);
    const Op& in = *last_[std::size_t(Actor::first)];
    const Op& out = *last_[std::size_t(Actor::second)];
    while (!in.done() || !out.done() || world_.record().taken.size() < before + 700) {
        if (now().ms - begin < liveMs) {
            sleepMs(stepMs);
            continue;
        }
        wrong("liveness: of 700 bytes each way %zu reached the device, %u of %u the reader%s", world_.record().taken.size() - before,
              in.information, in.length, out.done() ? "" : ", and the write does not end");
    }
    if (in.status != STATUS_SUCCESS || out.status != STATUS_SUCCESS) wrong("liveness: %x and %x", in.status, out.status);
    close();
    if (!until(&Application::allEnded, endMs)) wrong("a request outlives its handle");
    sleepMs(endMs);
}

}  // namespace explorer
