#include "comport/server.h"

#include <grp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>

#include "kernel/power.h"

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace comport {

namespace {

constexpr const char* service = "qvcdcacm";
constexpr const char* serviceKey = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\qvcdcacm";
constexpr const char* portsClass = "{4D36E978-E325-11CE-BFC1-08002BE10318}";
constexpr const char* modemId = "USB\\Class_02&SubClass_02";
constexpr std::chrono::seconds firstPatience{2};  // with all that are not there at the start

std::filesystem::path defaultLink(const std::string& portName) {
    const char* directory = std::getenv("XDG_RUNTIME_DIR");
    return std::filesystem::path(directory != nullptr && *directory != '\0' ? directory : "/tmp") / portName;
}

// The i-th port has the i-th address from there on; any free one is any free one.
std::optional<NetAddress> addressOf(std::optional<NetAddress> first, std::size_t i) {
    if (first && first->port != 0) {
        first->port = static_cast<std::uint16_t>(first->port + i);
    }
    return first;
}

std::optional<gid_t> groupId(const std::string& name) {
    if (name.empty()) {
        return std::nullopt;
    }
    std::vector<char> texts(65536);
    group entry = {};
    group* found = nullptr;
    ::getgrnam_r(name.c_str(), &entry, texts.data(), texts.size(), &found);
    if (found == nullptr) {
        throw std::runtime_error("--group " + name + ": there is no such group; getent group lists them");
    }
    return entry.gr_gid;
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
    if (!options.captureFile.empty()) {
        capture_ = std::make_unique<Capture>(Capture::Options{
            .path = options.captureFile,
            .tell = [](const std::string& sentence) { std::fprintf(stderr, "comport: %s\n", sentence.c_str()); }});
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
    bus_ = std::make_unique<usb::Bus>(*executive_, usb::Bus::Options{.tap = capture_.get()});
    NTSTATUS status = executive_->loadDriver(service, DriverEntry);
    if (!NT_SUCCESS(status)) {
        throw std::runtime_error("the driver does not load");
    }
    executive_->bindDriver(modemId, service, "Ports", portsClass);
    users_ = std::make_unique<TerminalUsers>();
    plugAll(options);
    if (options.command == Command::serve) {
        openControl(options);
    }
}

// One device after the other, so that they get their COM names in this order. For those that are elsewhere all of them wait a
// moment together; who is not there by then comes later.
void Server::plugAll(const Options& options) {
    const std::vector<DeviceName> devices = options.devices.empty() ? std::vector{DeviceName{options.modem, {}}} : options.devices;
    const std::filesystem::path links = options.ptyLink;
    const bool several = devices.size() > 1;
    if (several && !links.empty()) {
        std::error_code error;
        std::filesystem::create_directories(links, error);
        if (error) {
            throw std::runtime_error("--pty-link " + options.ptyLink + ": " + error.message() +
                                     "; with several devices it is a directory for their links");
        }
    }
    house_ = std::make_unique<ServedPort::House>(ServedPort::House{
        *executive_, *bus_, *users_,
        [links, several](const std::string& name) { return links.empty() ? defaultLink(name) : several ? links / name : links; },
        [this](const ServedPort& port) { portServed(port); }, groupId(options.group)});
    const auto until = std::chrono::steady_clock::now() + firstPatience;
    std::map<DeviceKind, unsigned> numbers;
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const ServedPort::Places places{addressOf(options.rfc2217, i), addressOf(options.tcp, i), options.kick};
        // The kinds of the program's own share their numbers.
        const DeviceKind counted = devices[i].isOwn() ? DeviceKind::modem : devices[i].kind;
        ports_.push_back(std::make_unique<ServedPort>(*house_, devices[i], ++numbers[counted], places));
    }
    // Only now, when it is known which devices somebody has asked for by their names.
    for (const auto& port : ports_) {
        port->begin();
        port->awaitFirstTry(until);
    }
}

void Server::portServed(const ServedPort& port) {
    std::lock_guard guard(servedLock_);
    served_.push_back(&port);
    if (later_) {
        later_(port);
    }
}

std::vector<const ServedPort*> Server::served(std::function<void(const ServedPort&)> later) {
    std::lock_guard guard(servedLock_);
    later_ = std::move(later);
    std::vector<const ServedPort*> ordered;
    for (const auto& port : ports_) {
        if (std::ranges::find(served_, port.get()) != served_.end()) {
            ordered.push_back(port.get());
        }
    }
    return ordered;
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

void Server::unplug() {
    for (const auto& port : ports_) {
        port->unplug();
    }
}

void Server::plugIn() {
    for (const auto& port : ports_) {
        port->plugIn();
    }
}

std::vector<std::string> Server::stop() {
    if (!executive_) {
        return {};
    }
    control_.reset();
    // A front end may wait for power.
    nt::wakeSystem();
    for (const auto& port : ports_) {
        port->tellEnd();
    }
    for (const auto& port : ports_) {
        port->end();
    }
    std::vector<std::string> left = executive_->stop().lines;
    ports_.clear();
    users_.reset();
    bus_.reset();
    executive_.reset();
    capture_.reset();
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
