#include "comport/server.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "kernel/power.h"

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace comport {

namespace {

constexpr const char* service = "qvcdcacm";
constexpr const char* serviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\qvcdcacm";
constexpr const char* portsClass = "{4D36E978-E325-11CE-BFC1-08002BE10318}";
constexpr const char* modemId = "USB\\Class_02&SubClass_02";

std::filesystem::path defaultLink(const std::string& portName) {
    const char* directory = std::getenv("XDG_RUNTIME_DIR");
    return std::filesystem::path(directory != nullptr && *directory != '\0' ? directory : "/tmp") / portName;
}

}  // namespace

Server::Server(const Options& options) {
    if (!options.traceFile.empty()) {
        traceFile_.reset(std::fopen(options.traceFile.c_str(), "a"));
        if (!traceFile_) {
            throw std::runtime_error("--trace-file " + options.traceFile + ": " + std::strerror(errno) +
                                     "; give a file that can be written");
        }
    }
    try {
        boot(options);
    } catch (...) {
        stop();
        throw;
    }
}

Server::~Server() {
    stop();
}

void Server::boot(const Options& options) {
    nt::Options boot;
    boot.mode = nt::Mode::real;
    boot.verifier = options.verifier;
    boot.registryFile = options.registryFile;
    boot.debugSink = trace;
    boot.debugContext = this;
    boot.errorLogSink = logEvent;
    executive_ = std::make_unique<nt::Executive>(boot);
    if (options.traceMask) {
        setTraceMask(*options.traceMask);
    }
    bus_ = std::make_unique<usb::Bus>(*executive_);
    NTSTATUS status = executive_->loadDriver(service, DriverEntry);
    if (!NT_SUCCESS(status)) {
        throw std::runtime_error("the driver does not load");
    }
    executive_->bindDriver(modemId, service, "Ports", portsClass);
    plugFirst(options.devices.empty() ? DeviceName{options.modem, {}} : options.devices.front());
    for (const nt::DeviceNode& device : executive_->devices()) {
        if (device.service == service) {
            portName_ = device.portName;
        }
    }
    if (portName_.empty()) {
        throw std::runtime_error("the modem got no COM port; --trace 0x1F says why");
    }
    // On disk from now on, whatever becomes of the process.
    executive_->registry().save();
    frontEnd_ = std::make_unique<FrontEnd>(
        portName_, lease_, options.ptyLink.empty() ? defaultLink(portName_) : std::filesystem::path(options.ptyLink));
    auto listen = [&](NetProtocol protocol, const std::optional<NetAddress>& address) {
        if (address) {
            netServers_.push_back(std::make_unique<NetServer>(portName_, lease_, protocol, *address, options.kick));
        }
    };
    listen(NetProtocol::rfc2217, options.rfc2217);
    listen(NetProtocol::raw, options.tcp);
    if (options.command == Command::serve) {
        openControl(options);
    }
}

void Server::plugFirst(const DeviceName& name) {
    kind_ = name.kind;
    source_ = makeDevice(name, 1);
    if (source_.watch) {
        reconnector_ = std::make_unique<Reconnector>([this] { return reconnect(); });
        source_.watch(
            [this] {
                std::fprintf(stderr, "comport: %s: %s; it is tried again\n", source_.backend->location().c_str(), source_.error().c_str());
                reconnector_->lost();
            },
            {});
    }
    usbPort_ = bus_->plug(source_.backend, source_.instanceId, source_.options);
    if (usbPort_ == 0) {
        throw std::runtime_error(source_.backend->location() + ": " + (source_.error ? source_.error() : "it cannot be plugged in"));
    }
    pluggedIn_ = true;
    executive_->settle();
}

// On the reconnector's thread. False: not yet.
bool Server::reconnect() {
    std::lock_guard guard(plugLock_);
    if (!pluggedIn_) {
        return true;
    }
    usb::PortStatistics last = bus_->statistics(usbPort_);
    const std::string why = source_.error();
    if (!bus_->replug(usbPort_)) {
        if (why != source_.error()) {
            std::fprintf(stderr, "comport: %s: %s\n", source_.backend->location().c_str(), source_.error().c_str());
        }
        return false;
    }
    std::fprintf(stderr, "comport: %s is back\n", source_.backend->location().c_str());
    earlier_ += last;
    ++reconnects_;
    executive_->settle();
    tellFrontEnds();
    return true;
}

// A server that shares the usual place with another goes on without; one that was told a place wants it.
void Server::openControl(const Options& options) {
    try {
        control_ = std::make_unique<ControlSocket>(
            options.controlPath.empty() ? controlSocketPath(true) : std::filesystem::path(options.controlPath),
            static_cast<ControlTarget&>(*this));
    } catch (const std::runtime_error& error) {
        if (!options.controlPath.empty()) {
            throw;
        }
        std::fprintf(stderr, "comport: no list, status and ctl: %s\n", error.what());
    }
}

// The driver reads it with each opening of the port.
void Server::setTraceMask(std::uint32_t mask) {
    executive_->registry().setDword(serviceKey, "TraceMask", mask);
}

std::vector<std::string> Server::urls() const {
    std::vector<std::string> urls;
    for (const std::unique_ptr<NetServer>& server : netServers_) {
        urls.push_back(server->url());
    }
    return urls;
}

void Server::unplug() {
    std::lock_guard guard(plugLock_);
    if (!pluggedIn_) {
        return;
    }
    pluggedIn_ = false;
    bus_->unplug(usbPort_);
    executive_->settle();
    if (source_.own) {
        withModem([](modem::AcmDevice& modem) { modem.powerCycle(); });
    }
}

void Server::plugIn() {
    std::lock_guard guard(plugLock_);
    if (pluggedIn_) {
        return;
    }
    usb::PortStatistics last = bus_->statistics(usbPort_);
    pluggedIn_ = bus_->replug(usbPort_);
    if (pluggedIn_) {
        earlier_ += last;
        ++reconnects_;
    } else if (reconnector_) {
        pluggedIn_ = true;  // as far as this program goes; the rest is the server's
        reconnector_->lost();
    }
    executive_->settle();
    tellFrontEnds();
}

void Server::tellFrontEnds() {
    frontEnd_->modemArrived();
    for (std::unique_ptr<NetServer>& server : netServers_) {
        server->modemArrived();
    }
}

std::vector<std::string> Server::stop() {
    if (!executive_) {
        return {};
    }
    control_.reset();
    if (reconnector_) {
        reconnector_->end();
    }
    // A front end may wait for power.
    nt::wakeSystem();
    netServers_.clear();
    frontEnd_.reset();
    std::vector<std::string> left = executive_->stop().lines;
    source_ = {};
    bus_.reset();
    executive_.reset();
    return left;
}

void Server::trace(void* context, const char* text, std::size_t length) {
    Server& self = *static_cast<Server*>(context);
    std::FILE* file = self.traceFile_ ? self.traceFile_.get() : stderr;
    std::fwrite(text, 1, length, file);
    std::fflush(file);
}

void Server::logEvent(void*, const nt::ErrorLogEntry& entry) {
    for (const std::string& text : entry.strings) {
        std::fprintf(stderr, "event log: %s: %s\n", entry.driver.c_str(), text.c_str());
    }
}

}  // namespace comport
