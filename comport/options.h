// The command line of the program.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "comport/device_source.h"

namespace comport {

enum class Command { serve, check, list, status, ctl, modem };

struct Options {
    Command command = Command::serve;
    std::string registryFile;  // "" = in memory
    std::string ptyLink;       // "" = named after the port; of several ports the directory of the links
    std::string group;         // may use the terminals; "" = as the system has it
    std::optional<NetAddress> rfc2217;  // serve the first port there, each next one at the next number
    std::optional<NetAddress> tcp;      // the same, raw bytes
    bool kick = false;                  // a new network client ends the one before it
    std::optional<std::uint32_t> traceMask;
    std::string traceFile;     // "" = stderr
    std::string captureFile;   // "" = no capture
    bool verifier = true;
    std::vector<DeviceName> devices;    // serve: what is plugged in; empty: `modem` alone
    DeviceKind modem = DeviceKind::modem;  // modem: what is exported
    std::optional<UsbAddress> usbServer;   // list: what that one exports
    bool usbHere = false;                  // list: what is plugged into this machine
    std::optional<NetAddress> usbip;    // modem: export it there
    std::string controlPath;   // "" = the usual place
    bool json = false;         // list, status: the reply as it is
    std::string port;          // status, ctl: "" = all, or the only one
    std::vector<std::string> words;  // ctl: what to do
};

// The driver has as many names for its devices.
inline constexpr std::size_t maximumDevices = 100;

// Decimal, or hexadecimal with 0x.
std::optional<std::uint32_t> parseMask(const std::string& text);

// Either options, or a text to print and the exit code that goes with it (0: to stdout, for help and version; 2: to stderr).
struct ParseResult {
    std::optional<Options> options;
    std::string text;
    int exitCode = 0;
};

// `arguments` without the program's own name.
ParseResult parseOptions(const std::vector<std::string>& arguments);

}  // namespace comport
