#include "tests/explorer/world.h"

#include "kernel/faults.h"
#include "kernel/power.h"
#include "kernel/sim.h"

#include "tests/support/ppp_oracle.h"
#include "usb/sync.h"

#include <algorithm>

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace explorer {

namespace {

constexpr const char* service = "qvcdcacm";
constexpr const char* portsClass = "{4d36e978-e325-11ce-bfc1-08002be10318}";
constexpr const char* deviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Enum\\USB\\VID_1209&PID_0001\\0001\\Device Parameters";
constexpr std::uint32_t givenStream = 0;
// A driver that starts over is done by then: its retries, each with its requests timing out.
constexpr std::int64_t recoveryMs = 6000;
// What is ready has run by then, on a remote device too.
constexpr std::int64_t momentMs = 5, remoteMomentMs = 60;
// A connection that is to break behind some byte breaks at the latest then.
constexpr std::int64_t cutMs = 20;
// An initialisation that failed because the device left is tried again then, even if the device has come back since and works.
constexpr std::int64_t retryMs = 600;
constexpr std::uint64_t stepBound = 3'000'000;
constexpr std::size_t packetBytes = 64;
constexpr std::uint8_t startFraming = 0x61, stopFraming = 0x62;   // vendor requests
constexpr std::size_t deviceHead = 4;                             // in front of a device frame
// Assertions, errors, progress, open and close, Plug and Play and power.
constexpr std::uint32_t tellMask = 0x205f;

}  // namespace

void sleepMs(std::int64_t ms) {
    LARGE_INTEGER time;
    time.QuadPart = -ms * 10000;
    KeDelayExecutionThread(KernelMode, FALSE, &time);
}

void pause(const Step& step) {
    if (step.pauseMs) {
        if (step.pause != 0) sleepMs(step.pause);
        return;
    }
    KSPIN_LOCK lock;
    KIRQL irql;
    KeInitializeSpinLock(&lock);
    for (std::uint32_t i = 0; i < step.pause; ++i) {
        KeAcquireSpinLock(&lock, &irql);
        KeReleaseSpinLock(&lock, irql);
    }
}

// --- The device ----------------------------------------------------------------------------------------------------------

WildDevice::WildDevice(World& world) : world_(world) {}

void WildDevice::give(std::uint32_t length) {
    pieces_.push_back(length);
}

void WildDevice::behave() {
    holding = false;
    packetsLeft.reset();
    stallsIn = stallsOut = stallsControl = mutesControl = 0;
    frames_ = false;
}

void WildDevice::forget() {
    pieces_.clear();
    frame_.clear();
    drop(0x82);
}

// A transfer of full packets is followed by an empty one, and no other is, unless something came between.
void WildDevice::checkEmptyPacket(std::size_t length) {
    const bool disturbed = disturbances_ != world_.losses.all().size() || world_.losses.anySince(lastOut_);
    disturbances_ = world_.losses.all().size();
    if (disturbed || world_.framing() || world_.removals || world_.faulty()) return;
    if (emptyDue_ && length != 0) wrong("no empty packet follows a transfer of full packets");
    if (!emptyDue_ && length == 0) wrong("an empty packet follows a transfer that has ended");
}

std::int32_t WildDevice::dataOut(std::uint8_t, std::span<const std::uint8_t> data, bool ends) {
    if (!midTransfer_ && stallsOut > 0) {
        --stallsOut;
        emptyDue_ = false;
        return usb::dataStall;
    }
    if (holding || (packetsLeft && *packetsLeft == 0)) return usb::dataNak;
    std::size_t length = data.size();
    if (packetsLeft) {
        length = std::min(length, *packetsLeft * packetBytes);
        *packetsLeft -= static_cast<std::uint32_t>((length + packetBytes - 1) / packetBytes);
        if (length == 0) --*packetsLeft;
    }
    if (!midTransfer_) checkEmptyPacket(data.size());
    const Moment at = now();
    lastOut_ = at;
    for (const std::uint8_t byte : data.first(length)) taken.push_back({byte, at});
    outLength_ = (midTransfer_ ? outLength_ : 0) + length;
    midTransfer_ = length != data.size();
    if (!midTransfer_) emptyDue_ = outLength_ != 0 && !ends;
    say("the device takes %zu of %zu bytes", length, data.size());
    return static_cast<std::int32_t>(length);
}

std::int32_t WildDevice::dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) {
    if (endpoint == 0x82) return ScriptedDevice::dataIn(endpoint, space);
    if (endGiven_) {
        endGiven_ = false;
        return 0;
    }
    if (stallsIn > 0) {
        --stallsIn;
        return usb::dataStall;
    }
    if (frames_ && frame_.empty() && !pieces_.empty()) makeFrame();
    if (frame_.empty() && pieces_.empty()) return usb::dataNak;
    return static_cast<std::int32_t>(nextPiece(space));
}

std::size_t WildDevice::nextPiece(std::span<std::uint8_t> space) {
    const bool framed = !frame_.empty();
    const std::size_t length = std::min<std::size_t>(space.size(), framed ? frame_.size() : pieces_.front());
    bool last;
    if (framed) {
        const auto end = frame_.begin() + static_cast<std::ptrdiff_t>(length);
        std::copy(frame_.begin(), end, space.begin());
        frame_.erase(frame_.begin(), end);
        last = frame_.empty();
    } else {
        const Moment at = now();
        for (std::uint8_t& byte : space.first(length)) given.push_back({byte = payload(givenStream, givenPlace_++), at});
        pieces_.front() -= static_cast<std::uint32_t>(length);
        last = pieces_.front() == 0;
        if (last) pieces_.erase(pieces_.begin());
    }
    // The host's transfer goes on until it is full or a short packet comes.
    if (last) endGiven_ = length % packetBytes == 0 && length < space.size();
    return length;
}

// Readers may get it as a PPP frame or, from a driver that does not frame, as it is.
void WildDevice::makeFrame() {
    test::Bytes body;
    for (std::uint32_t i = 0; i < pieces_.front() && body.size() < test::ppp::frameLimit; ++i) {
        body.push_back(payload(givenStream, givenPlace_++, true));
    }
    pieces_.erase(pieces_.begin());
    frame_ = test::ppp::deviceFrame(sequence_++, body);
    const Moment at = now();
    for (std::size_t i = 0; i < deviceHead; ++i) given.push_back({frame_[i], at});
    for (const std::uint8_t byte : test::ppp::hostFrame(body, {})) given.push_back({byte, at});
}

std::optional<usb::ControlReply> WildDevice::misbehave() {
    if (mutesControl > 0) {
        --mutesControl;
        return usb::ControlReply::never();
    }
    if (stallsControl > 0) {
        --stallsControl;
        return usb::ControlReply::stall();
    }
    return std::nullopt;
}

usb::ControlReply WildDevice::control(const usb::SetupPacket& setup, std::span<std::uint8_t> data) {
    if (const auto reply = misbehave()) return *reply;
    if (setup.request == startFraming || setup.request == stopFraming) {
        frames_ = setup.request == startFraming;
        sequence_ = 0;
    }
    return ScriptedDevice::control(setup, data);
}

std::optional<usb::ControlReply> WildDevice::standardControl(const usb::SetupPacket&, std::span<std::uint8_t>) { return misbehave(); }

void WildDevice::busReset() {
    midTransfer_ = endGiven_ = emptyDue_ = frames_ = false;
    frame_.clear();
    ScriptedDevice::busReset();
}

// --- The wire ------------------------------------------------------------------------------------------------------------

namespace {

bool isOut(const usb::Transfer& transfer) { return transfer.type == usb::TransferType::bulk && !transfer.isIn(); }

// The pipe to the device works again afterwards.
bool revives(const usb::Transfer& transfer) {
    constexpr std::uint8_t toEndpoint = 2, clearFeature = 1, setConfiguration = 9;
    if (transfer.type != usb::TransferType::control) return false;
    const usb::SetupPacket& setup = transfer.setup;
    return (setup.requestType == 0 && setup.request == setConfiguration) ||
           (setup.requestType == toEndpoint && setup.request == clearFeature && (setup.index & 0x80) == 0);
}

}  // namespace

Wire::Wire(std::shared_ptr<usb::Backend> inner, World& world) : inner_(std::move(inner)), world_(world), losses_(world.losses) {
    KeInitializeSpinLock(&lock_);
}

void Wire::submit(usb::Transfer* transfer) {
    if (isOut(*transfer) || revives(*transfer)) {
        usb::SpinGuard guard(lock_);
        callers_[transfer] = {transfer->complete, transfer->context};
        transfer->complete = done;
        transfer->context = this;
    }
    inner_->submit(transfer);
}

void Wire::done(usb::Transfer* transfer) {
    Wire& self = *static_cast<Wire*>(transfer->context);
    {
        usb::SpinGuard guard(self.lock_);
        const auto found = self.callers_.find(transfer);
        transfer->complete = found->second.complete;
        transfer->context = found->second.context;
        self.callers_.erase(found);
    }
    isOut(*transfer) ? self.outEnded(*transfer) : self.revived(transfer->status);
    transfer->complete(transfer);
}

// The driver sends once more what failed first, and asks to start over when the next fails, too. Until it does, the bus refuses what
// comes for a pipe that the device has halted, and that is gone.
void Wire::outEnded(const usb::Transfer& transfer) {
    if (transfer.status == usb::TransferStatus::ok) {
        failures_ = 0;
        return;
    }
    if (transfer.actual < transfer.length) {
        losses_.end(losses_.begin("a transfer ends early", transfer.length - transfer.actual, false), 0);
    }
    const bool halts = transfer.status == usb::TransferStatus::stalled || transfer.status == usb::TransferStatus::failed;
    if (halts && ++failures_ > 1 && !refusing_) refusing_ = losses_.begin("a halted pipe takes nothing", unlimited, false);
}

void Wire::revived(usb::TransferStatus status) {
    if (!refusing_ || status != usb::TransferStatus::ok) return;
    losses_.end(*refusing_, 0);
    refusing_.reset();
}

bool Wire::suspend(bool remoteWake) {
    world_.suspends();
    return inner_->suspend(remoteWake);
}

bool Wire::resetPort() {
    revived(usb::TransferStatus::ok);
    return inner_->resetPort();
}

// --- Boot and end ------------------------------------------------------------------------------------------------------------

World::World(const Plan& p, Cells& cells)
    : plan(p), cells_(cells), chunk_(plan.value("FlowTest", 0) != 0 ? 64 : plan.value("WriteBufferSize", 4096)),
      momentMs_(plan.value(remote, 0) != 0 ? remoteMomentMs : momentMs) {
    framing_ = plan.uses(Verb::framing);
    faulty_ = plan.uses(Verb::fail) || plan.uses(Verb::stallControl) || plan.uses(Verb::muteControl) || plan.uses(Verb::stallIn) ||
              plan.uses(Verb::stallOut);
}

World::~World() = default;

// Assertions of the driver trace and go on; here they end the run.
void World::sink(void* context, const char* text, std::size_t length) {
    const std::string_view line(text, length);
    if (tell) say("driver: %.*s", static_cast<int>(length - (length != 0 && text[length - 1] == '\n')), text);
    World& self = *static_cast<World*>(context);
    if (self.startingAgain_ && line.find("ASSERTION FAILED: (Pipe!=NULL)") != line.npos) {
        self.pipeMissed_ = true;
        return;
    }
    // A frame that is too long is given up with its bytes counted.
    if (self.framing_ && line.find("ASSERTION FAILED: (DeFramer->Count == 0)") != line.npos) return;
    if (line.find("ASSERTION FAILED") != line.npos || line.find("Memory Log") != line.npos) {
        wrong("the driver says: %.*s", static_cast<int>(length), text);
    }
}

void World::boot() {
    nt::Options options;
    options.mode = nt::Mode::simulated;
    options.seed = plan.schedule;
    options.debugSink = sink;
    options.debugContext = this;
    executive_ = std::make_unique<nt::Executive>(options);
    nt::sim::setMaxSteps(stepBound);
    restartMoments();
    bus_ = std::make_unique<usb::Bus>(*executive_);
    if (!NT_SUCCESS(executive_->loadDriver(service, DriverEntry))) wrong("the driver does not load");
    executive_->bindDriver("USB\\Class_02&SubClass_02", service, "Ports", portsClass);
    if (tell) executive_->registry().setDword("HKLM\\SYSTEM\\CurrentControlSet\\Services\\qvcdcacm", "TraceMask", tellMask);
    for (const auto& [name, value] : plan.values) {
        if (isOfDriver(name)) executive_->registry().setDword(deviceKey, name, value);
    }
    auto device = std::make_unique<WildDevice>(*this);
    device_ = device.get();
    backend_ = std::make_shared<usb::VirtualBackend>(std::move(device), "modem");
    usb::PortOptions port;
    port.rejectD0WhenGone = plan.value(rejectD0, 0) != 0;
    port_ = bus_->plug(std::make_shared<Wire>(connect(), *this), "0001", port);
    instance_ = bus_->instancePath(port_);
    executive_->settle();
    sleepMs(1);
}

// The way from the bus to the device.
std::shared_ptr<usb::Backend> World::connect() {
    if (plan.value(remote, 0) == 0) return backend_;
    usb::usbip::DeviceRecord record = usb::usbip::describe(device_->deviceDescriptor(), device_->configurationDescriptor(0));
    record.busId = "1-1";
    record.busNumber = 1;
    record.deviceNumber = 2;
    wire_ = std::make_unique<test::UsbipWire>(std::vector{std::make_shared<usb::UsbipExport>(backend_, record)});
    wire_->pieceBytes = plan.value(remotePiece, 0);
    wire_->delayMs = plan.value(remoteDelay, 0);
    return std::make_shared<usb::UsbipBackend>(wire_->link(), record.busId, "server:3240");
}

void World::end() {
    const bool byHand = plan.schedule % 2 == 0;
    if (byHand) {
        if (!NT_SUCCESS(executive_->queryRemove(instance_))) wrong("the closed port may not be removed");
        executive_->removeDevice(instance_);
    }
    bus_->unplug(port_);
    executive_->settle();
    sleepMs(10);
    if (!NT_SUCCESS(executive_->unloadDriver(service))) wrong("the driver does not unload");
    wire_.reset();
    const nt::LeakReport report = executive_->stop();
    bus_.reset();
    if (!report.clean()) wrong("left behind: %s (%zu in all)", report.lines.front().c_str(), report.lines.size());
    executive_.reset();
    backend_.reset();
}

std::vector<std::string> World::names() {
    std::vector<std::string> names;
    for (const auto& node : executive_->devices()) {
        if (node.instancePath == instance_) names.push_back("\\DosDevices\\" + node.portName);
    }
    if (names.empty()) names.push_back("\\DosDevices\\COM3");
    for (auto& link : executive_->enabledInterfaces()) names.push_back(link);
    return names;
}

DeviceState World::state() {
    if (place_ != DeviceState::running) return place_;
    if (asleep_) return DeviceState::asleep;
    return low_ || device_->isSuspended ? DeviceState::lowPower : DeviceState::running;
}

// --- Steps -------------------------------------------------------------------------------------------------------------------

void World::take(const Step& step) {
    // A close that meets anything of this may not get its bytes out.
    if (closing) losses.allow(*closing, unlimited);
    if (step.verb < Verb::unplug) return deviceStep(step);
    moving_ = true;
    step.verb < Verb::powerDown ? plugStep(step) : powerStep(step);
    moving_ = false;
}

void World::over(std::optional<std::size_t>& loss, std::int64_t graceMs) {
    losses.end(*loss, graceMs);
    loss.reset();
}

// From now on transfers may fail, and the driver may start over. What that costs on the way to the device the wire knows.
void World::error(const char* why) { losses.end(losses.begin(why, 0, true), recoveryMs); }

void World::deviceStep(const Step& step) {
    const std::uint32_t a = step.args[0], b = step.args[1];
    switch (step.verb) {
    case Verb::send:
        return device([&](WildDevice& d) {
            for (std::uint32_t i = 0; i < std::min(b, 8u); ++i) d.give(a / (i + 1) + 1);
        });
    case Verb::stallIn:
        error("the device stalls bulk IN");
        return device([&](WildDevice& d) { d.stallsIn += a; });
    case Verb::stallOut:
        error("the device stalls bulk OUT");
        return device([&](WildDevice& d) { d.stallsOut += a; });
    case Verb::stallControl:
        error("the device stalls requests");
        return device([&](WildDevice& d) { d.stallsControl += a; });
    case Verb::muteControl:
        error("the device does not answer requests");
        return device([&](WildDevice& d) { d.mutesControl += a; });
    case Verb::hold: return device([&](WildDevice& d) { d.holding = a != 0; });
    case Verb::allow: return device([&](WildDevice& d) { d.packetsLeft = a; });
    case Verb::remoteWake:
        // Seen only while the device is suspended and may wake the host.
        device([](WildDevice& d) { d.wakesHost = true; });
        return device([](WildDevice& d) { d.wakesHost = false; });
    default: return lineStep(step);
    }
}

void World::lineStep(const Step& step) {
    const std::uint32_t a = step.args[0];
    switch (step.verb) {
    case Verb::lines:
        raised_ |= SERIAL_EV_DSR | SERIAL_EV_RLSD | SERIAL_EV_RING | SERIAL_EV_BREAK | SERIAL_EV_ERR;
        return device([&](WildDevice& d) { d.notify(test::serialState(static_cast<std::uint16_t>(a))); });
    case Verb::network:
        raised_ |= SERIAL_EV_CTS;
        return device([&](WildDevice& d) { d.notify(test::networkConnection(a != 0)); });
    case Verb::framing:
        if (!framedSince_) framedSince_ = now();
        return device([&](WildDevice& d) { d.notify(test::vendorNotification(a != 0 ? 0x10 : 0x11)); });
    default: return malformed(a);
    }
}

void World::malformed(std::uint32_t which) {
    const test::Bytes texts[] = {{0xA1, 0x20, 0, 0, 0, 0, 2},         {0xA1, 0x20, 0, 0, 0, 0, 2, 0, 3}, {0xA1, 0x01, 0, 0, 0, 0, 0, 0},
                                 {0xC1, 0x12, 0, 0, 0, 0, 0, 0},      {0x81, 0x20, 0, 0, 0, 0, 2, 0, 3, 0}, {0xA1, 0x77, 1, 2, 3, 4, 5, 6, 7, 8}};
    device([&](WildDevice& d) { d.notify(texts[which % std::size(texts)]); });
}

void World::leave() {
    visit(rowSurprise);
    removals = true;
    goneSince_ = now();
    const auto loss = losses.begin("the device is gone", 2 * chunk_, true);
    if (placeLoss_) losses.end(*placeLoss_, momentMs_);
    placeLoss_ = loss;
    place_ = DeviceState::gone;
    low_ = false;
}

void World::unplug() {
    if (place_ == DeviceState::gone) return;
    leave();
    bus_->unplug(port_);
}

void World::cut(std::uint32_t bytes) {
    if (place_ == DeviceState::gone) return;
    if (!wire_) return unplug();
    leave();
    wire_->cutAfter = wire_->moved() + bytes;
    for (std::int64_t waited = 0; wire_->connected() && waited < cutMs; ++waited) sleepMs(1);
    wire_->cutAfter = ~0ull;
    wire_->cut();
}

void World::replug() {
    if (place_ != DeviceState::gone) return;
    visit(rowStart);
    bus_->replug(port_);
    instance_ = bus_->instancePath(port_);
    if (!asleep_) executive_->settle();
    sleepMs(1);
    place_ = DeviceState::running;
    newDevices.push_back({goneSince_, now()});
    over(placeLoss_, wire_ ? retryMs : momentMs_);
}

void World::queryStop() {
    if (place_ != DeviceState::running) return;
    visit(rowQueryStop);
    placeLoss_ = losses.begin("the device is to stop", 0, true);
    place_ = DeviceState::stopPending;
    executive_->queryStop(instance_);
}

void World::startDevice() {
    if (place_ != DeviceState::stopped && place_ != DeviceState::removed) return;
    visit(rowStart);
    const bool removed = place_ == DeviceState::removed;
    startingAgain_ = !removed;
    const NTSTATUS status = executive_->startDevice(instance_);
    startingAgain_ = false;
    if (pipeMissed_ && NT_SUCCESS(status)) wrong("a pipe was missed though the device started");
    pipeMissed_ = false;
    sleepMs(1);
    place_ = DeviceState::running;
    if (removed) newDevices.push_back({goneSince_, now()});
    over(placeLoss_, momentMs_);
}

void World::plugStep(const Step& step) {
    // The PnP manager stands still while the system sleeps.
    if (asleep_ && step.verb != Verb::unplug && step.verb != Verb::cut) return;
    const auto cancel = [&](DeviceState from, std::uint32_t row, auto&& call) {
        if (place_ != from) return;
        visit(row);
        call();
        place_ = DeviceState::running;
        over(placeLoss_, momentMs_);
    };
    switch (step.verb) {
    case Verb::unplug: return unplug();
    case Verb::cut: return cut(step.args[0]);
    case Verb::replug: return replug();
    case Verb::queryStop: return queryStop();
    case Verb::stop:
        if (place_ != DeviceState::stopPending) return;
        visit(rowStop);
        place_ = DeviceState::stopped;
        losses.allow(*placeLoss_, 2 * chunk_);
        executive_->stopDevice(instance_);
        return;
    case Verb::cancelStop:
        return cancel(DeviceState::stopPending, rowCancelStop, [&] { executive_->cancelStop(instance_); });
    case Verb::start: return startDevice();
    case Verb::cancelRemove:
        return cancel(DeviceState::removePending, rowCancelRemove, [&] { executive_->cancelRemove(instance_); });
    case Verb::queryRemove: {
        if (place_ != DeviceState::running) return;
        visit(rowQueryRemove);
        placeLoss_ = losses.begin("the device is to be removed", 0, true);
        const bool may = NT_SUCCESS(executive_->queryRemove(instance_));
        if (may) {
            place_ = DeviceState::removePending;
        } else {
            over(placeLoss_, momentMs_);
        }
        return;
    }
    case Verb::remove:
        if (place_ != DeviceState::removePending) return;
        visit(rowRemove);
        removals = true;
        goneSince_ = now();
        if (NT_SUCCESS(executive_->removeDevice(instance_))) {
            place_ = DeviceState::removed;
            low_ = false;
            losses.allow(*placeLoss_, 2 * chunk_);
            return;
        }
        // Opened meanwhile.
        place_ = DeviceState::running;
        over(placeLoss_, momentMs_);
        return;
    default: {
        if (place_ != DeviceState::running) return;
        removals = true;
        const Moment begin = now();
        const auto loss = losses.begin("the device restarts", 2 * chunk_, true);
        executive_->restart(instance_);
        sleepMs(1);
        newDevices.push_back({begin, now()});
        losses.end(loss, momentMs_);
    }
    }
}

// A device power request to the top of the stack, as its power policy owner would make it; waits for its end.
void World::powerTo(DEVICE_POWER_STATE state) {
    PDEVICE_OBJECT pdo = nullptr;
    for (const auto& node : executive_->devices()) {
        if (node.instancePath == instance_ && node.state == nt::DeviceState::started) pdo = node.pdo;
    }
    if (pdo == nullptr) return;
    ObReferenceObject(pdo);
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    POWER_STATE power;
    power.DeviceState = state;
    const auto ended = [](PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK) {
        KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    };
    if (NT_SUCCESS(PoRequestPowerIrp(pdo, IRP_MN_SET_POWER, power, ended, &done, nullptr))) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    ObDereferenceObject(pdo);
}

void World::powerUp() {
    if (!powerLoss_) return;
    if (present()) {
        visit(rowPowerUp);
        powerTo(PowerDeviceD0);
    }
    low_ = false;
    over(powerLoss_, momentMs_);
}

void World::wake() {
    if (!asleep_) return;
    visit(rowWake);
    nt::wakeSystem();
    asleep_ = false;
    if (place_ != DeviceState::gone) executive_->settle();
    sleepMs(1);
    over(sleepLoss_, momentMs_);
}

void World::heal() {
    nt::faults::clear();
    if (faultLoss_) over(faultLoss_, recoveryMs);
}

void World::powerStep(const Step& step) {
    const std::uint32_t a = step.args[0];
    switch (step.verb) {
    case Verb::powerDown:
        if (powerLoss_ || place_ != DeviceState::running || asleep_) return;
        visit(rowPowerDown);
        powerLoss_ = losses.begin("the device goes to low power", 2 * chunk_, true);
        low_ = true;
        return powerTo(a == 2 ? PowerDeviceD2 : PowerDeviceD3);
    case Verb::powerUp: return asleep_ ? void() : powerUp();
    case Verb::sleep:
        if (asleep_ || powerLoss_) return;
        visit(rowSleep);
        sleepLoss_ = losses.begin("the system sleeps", 2 * chunk_, true);
        asleep_ = true;
        nt::sleepSystem(static_cast<SYSTEM_POWER_STATE>(std::clamp(a, 2u, 5u)));
        return;
    case Verb::wake: return wake();
    case Verb::fail:
        if (faultLoss_) return;
        faultLoss_ = losses.begin("calls fail", unlimited, true);
        return nt::faults::failNth(static_cast<nt::faults::Kind>(a % std::size_t(nt::faults::Kind::count_)), std::max(step.args[1], 1u),
                                   step.args[2] != 0 ? nt::faults::Extent::fromThenOn : nt::faults::Extent::once);
    default: return heal();
    }
}

void World::mend() {
    heal();
    device([](WildDevice& d) { d.behave(); });
    wake();
    powerUp();
    const auto step = [&](Verb verb) { plugStep(Step{Actor::system, verb, 0, false, false, {}}); };
    step(Verb::cancelStop);
    step(Verb::cancelRemove);
    step(Verb::start);
    replug();
    raiseLines();
}

// A driver that suspends a device stops its reads: what they hold because the reader's ring is full goes, and what arrives while it
// waits for them to come home.
void World::suspends() {
    const std::vector<SentByte>& given = device_->given;
    const bool justGiven = !given.empty() && now().ms - given.back().at.ms <= momentMs_;
    if (justGiven || readerBehind(given.size())) losses.end(losses.begin("the device is suspended", 0, true), 0);
}

// What still waits for its time has come.
void World::rest() { sleepMs(wire_ && removals ? retryMs : 1); }

// Nothing holds the host back. An open port hears of it.
void World::raiseLines() {
    if (raised_ == 0 && plan.value("useCtsFlowControl", 0) == 0) return;
    raised_ |= SERIAL_EV_CTS;
    device([](WildDevice& d) {
        d.notify(test::serialState(0));
        d.notify(test::networkConnection(true));
    });
}

void World::startOver() {
    unplug();
    executive_->settle();
    sleepMs(1);
    replug();
}

}  // namespace explorer
