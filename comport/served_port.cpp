#include "comport/served_port.h"

#include <algorithm>
#include <cstdio>

#include "kernel/power.h"

namespace comport {

namespace {

std::string textOf(const DeviceName& name, const DeviceSource& source) {
    if (!source.own) {
        return source.backend->location();
    }
    return name.kind == DeviceKind::modem ? "virtual" : wordOf(name.kind);
}

}  // namespace

ServedPort::ServedPort(const House& house, const DeviceName& device, unsigned number, const Places& places)
    : house_(house), kind_(device.kind), places_(places), source_(makeDevice(device, number)), device_(textOf(device, source_)) {
    if (source_.watch) {
        watchDevice();
    }
}

ServedPort::~ServedPort() {
    tellEnd();
    end();
}

void ServedPort::watchDevice() {
    reconnector_ = std::make_unique<Reconnector>([this] { return tryOnce(); });
    const auto lost = [this] {
        ++losses_;
        report(source_.error());
        reconnector_->lost();
    };
    source_.watch(lost, [this] { reconnector_->now(); });
}

void ServedPort::begin() {
    if (reconnector_) {
        reconnector_->now();
        return;
    }
    std::lock_guard plug(plugLock_);
    if (!connect()) {
        throw std::runtime_error(device_ + ": it cannot be plugged in");
    }
}

void ServedPort::awaitFirstTry(std::chrono::steady_clock::time_point until) {
    std::unique_lock state(stateLock_);
    if (reconnector_) {
        triedChanged_.wait_until(state, until, [this] { return tried_; });
    }
    awaited_ = true;
    if (!failure_.empty()) {
        throw std::runtime_error(failure_);
    }
}

void ServedPort::tellEnd() {
    if (reconnector_) {
        reconnector_->tellEnd();
    }
    std::lock_guard state(stateLock_);
    if (frontEnd_) {
        frontEnd_->end();
    }
    for (const auto& server : netServers_) {
        server->end();
    }
}

void ServedPort::end() {
    if (reconnector_) {
        reconnector_->end();
    }
    netServers_.clear();
    frontEnd_.reset();
}

bool ServedPort::isServed() const {
    return !name().empty();
}

std::string ServedPort::name() const {
    std::lock_guard state(stateLock_);
    return name_;
}

std::string ServedPort::link() const {
    std::lock_guard state(stateLock_);
    return frontEnd_ ? frontEnd_->link().string() : "";
}

std::vector<std::string> ServedPort::urls() const {
    std::lock_guard state(stateLock_);
    std::vector<std::string> urls;
    for (const auto& server : netServers_) {
        urls.push_back(server->url());
    }
    return urls;
}

// ---- the device comes and goes ----

// On the reconnector's thread. False: not yet.
bool ServedPort::tryOnce() {
    std::lock_guard plug(plugLock_);
    bool content = true;
    std::string failure;
    try {
        bool wanted;
        {
            std::lock_guard state(stateLock_);
            wanted = pluggedIn_;
        }
        // Something has arrived, but this device has been there all the time.
        content = !wanted || lossesThen_ == losses_ || connect();
    } catch (const std::runtime_error& error) {
        failure = error.what();
    }
    std::lock_guard state(stateLock_);
    failure_ = failure;
    if (!failure.empty() && awaited_) {
        std::fprintf(stderr, "comport: %s: %s\n", device_.c_str(), failure.c_str());
    }
    tried_ = true;
    triedChanged_.notify_all();
    return content;
}

// plugLock_ held. False: the device is not there.
bool ServedPort::connect() {
    const usb::PortNumber before = usbPort_;  // written with plugLock_ held
    const usb::PortStatistics last = house_.bus.statistics(before);
    const unsigned losses = losses_;
    usb::PortNumber port = before;
    if (before == 0) {
        const std::string id = source_.locate ? source_.locate() : source_.instanceId;
        port = id.empty() ? 0 : house_.bus.plug(source_.backend, id, source_.options);
    } else if (!house_.bus.replug(before)) {
        port = 0;
    }
    if (port == 0) {
        if (source_.error) {
            report(source_.error());
        }
        return false;
    }
    lossesThen_ = losses;
    {
        std::lock_guard state(stateLock_);
        usbPort_ = port;
        if (before != 0) {
            earlier_ += last;
            ++reconnects_;
        }
        if (losses_ != losses) {
            return true;  // it came, and has left again
        }
        complaint_.clear();
    }
    if (before != 0 && reconnector_) {
        std::fprintf(stderr, "comport: %s is back\n", device_.c_str());
    }
    house_.executive.settle();
    noticeArrival();
    return true;
}

// Once, while it is the same.
void ServedPort::report(const std::string& why) {
    {
        std::lock_guard state(stateLock_);
        if (why == complaint_) {
            return;
        }
        complaint_ = why;
    }
    std::fprintf(stderr, "comport: %s: %s; it is tried again\n", device_.c_str(), why.c_str());
}

// The newest at its place.
std::optional<nt::DeviceNode> ServedPort::nodeOf(const std::vector<nt::DeviceNode>& devices) const {
    const std::string path = house_.bus.instancePath(usbPort_);
    const auto found = std::ranges::find(devices.rbegin(), devices.rend(), path, &nt::DeviceNode::instancePath);
    return path.empty() || found == devices.rend() ? std::nullopt : std::optional(*found);
}

// plugLock_ held.
void ServedPort::noticeArrival() {
    const std::optional<nt::DeviceNode> node = nodeOf(house_.executive.devices());
    if (!node && nt::systemState() != PowerSystemWorking) {
        return;  // it arrives when the system wakes
    }
    if (!node || node->portName.empty()) {
        if (source_.own) {
            throw std::runtime_error("the modem got no COM port; --trace 0x1F says why");
        }
        std::fprintf(stderr, "comport: %s is no modem that the driver serves\n", device_.c_str());
        return;
    }
    if (node->state == nt::DeviceState::startFailed) {
        std::fprintf(stderr, "comport: %s: %s does not start; --trace 0x1F says why\n", device_.c_str(), node->portName.c_str());
    }
    if (!isServed()) {
        serve(node->portName);
    } else if (node->portName != name()) {
        std::fprintf(stderr, "comport: %s is another device now, %s; start anew to serve that\n", device_.c_str(),
                     node->portName.c_str());
    }
    tellFrontEnds();
}

// plugLock_ held.
void ServedPort::serve(const std::string& name) {
    // On disk from now on, whatever becomes of the process.
    house_.executive.registry().save();
    auto frontEnd = std::make_unique<FrontEnd>(name, lease_, house_.users, house_.linkOf(name), house_.group);
    std::vector<std::unique_ptr<NetServer>> servers;
    auto listen = [&](NetProtocol protocol, const std::optional<NetAddress>& address) {
        if (address) {
            servers.push_back(std::make_unique<NetServer>(name, lease_, protocol, *address, places_.kick));
        }
    };
    listen(NetProtocol::rfc2217, places_.rfc2217);
    listen(NetProtocol::raw, places_.tcp);
    {
        std::lock_guard state(stateLock_);
        frontEnd_ = std::move(frontEnd);
        netServers_ = std::move(servers);
        name_ = name;
    }
    house_.served(*this);
}

void ServedPort::tellFrontEnds() {
    std::lock_guard state(stateLock_);
    if (frontEnd_) {
        frontEnd_->modemArrived();
    }
    for (const auto& server : netServers_) {
        server->modemArrived();
    }
}

void ServedPort::woken() {
    const std::unique_lock plug(plugLock_, std::try_to_lock);
    if (plug && usbPort_ != 0 && !isServed()) {
        noticeArrival();
    }
    tellFrontEnds();
}

void ServedPort::unplug() {
    std::lock_guard plug(plugLock_);
    {
        std::lock_guard state(stateLock_);
        if (!pluggedIn_) {
            return;
        }
        pluggedIn_ = false;
    }
    house_.bus.unplug(usbPort_);
    lossesThen_.reset();
    house_.executive.settle();
    if (source_.own) {
        withModem([](modem::AcmDevice& modem) { modem.powerCycle(); });
    }
}

// What a device that is elsewhere does not do now, its reconnector goes on with.
void ServedPort::plugIn() {
    std::lock_guard plug(plugLock_);
    {
        std::lock_guard state(stateLock_);
        if (pluggedIn_) {
            return;
        }
        pluggedIn_ = true;
    }
    const bool there = connect();
    if (!there && reconnector_) {
        reconnector_->lost();
    } else if (!there) {
        std::lock_guard state(stateLock_);
        pluggedIn_ = false;
    }
}

}  // namespace comport
