#include "comport/options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <map>

#include "comport/control.h"

namespace comport {

std::optional<std::uint32_t> parseMask(const std::string& text) {
    bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char* begin = text.data() + (hexadecimal ? 2 : 0);
    const char* end = text.data() + text.size();
    std::uint32_t value = 0;
    auto [stop, error] = std::from_chars(begin, end, value, hexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

namespace {

std::string checkMask(const std::string& text) {
    return parseMask(text) ? "" : "'" + text + "' is not a mask; give 32 bits as a number, 0x3 for example";
}

std::string checkAddress(const std::string& text) {
    return parseAddress(text) ? "" : "'" + text + "' is not an address; give [ADDR:]PORT, 2217 or [::1]:2217 for example";
}

std::string checkDevice(const std::string& text) {
    return parseDevice(text) ? "" : "'" + text + "' is not a device; give " + deviceForms + ", usbip://192.0.2.7/1-1 for example";
}

std::string checkUsbServer(const std::string& text) {
    const auto address = parseUsbip(text);
    return text == "libusb" || (address && address->busId.empty())
               ? ""
               : "'" + text + "' is neither a server nor this machine; give usbip://HOST[:PORT] or libusb";
}

std::string checkName(const std::string& text) {
    return text.empty() ? "the name is empty; give a path" : "";
}

struct Parser {
    CLI::App app{"A USB modem as a COM port: serves it to applications on a pseudo-terminal.", "comport"};
    CLI::App* serve = app.add_subcommand("serve", "Serve the ports of modems, the virtual one unless told, until SIGINT or SIGTERM.");
    CLI::App* check = app.add_subcommand(
        "check", "Try everything: dial, 10 MB through the modem's echo, unplug, plug in, go on.");
    CLI::App* list = app.add_subcommand("list", "Show the ports of a running server.");
    CLI::App* status = app.add_subcommand("status", "Show settings, lines, queues and counters of a running server's ports.");
    CLI::App* ctl = app.add_subcommand("ctl", "Pull the lines of a running server's modem, ring it, unplug it.");
    CLI::App* modem = app.add_subcommand("modem", "Export the virtual modem to USB/IP clients until SIGINT or SIGTERM.");
    Options options;
    std::string mask;
    std::vector<std::string> devices;
    std::string usbServer;
    std::string usbip;
    std::string rfc2217;
    std::string tcp;

    Parser() {
        options.registryFile = "comport.reg";
        app.set_version_flag("--version", "comport " COMPORT_VERSION);
        app.require_subcommand(1);
        serve->add_option("--registry", options.registryFile, "Registry file, made with the defaults if there is none")
            ->take_last()
            ->check(checkName)
            ->type_name("FILE")
            ->capture_default_str();
        serve->add_option("--pty-link", options.ptyLink,
                          "Path of the link to the terminal [named after the port, in XDG_RUNTIME_DIR or /tmp]; "
                          "with several devices the directory of the links")
            ->check(checkName)
            ->type_name("PATH");
        serve->add_option("--group", options.group, "A group that may use the terminal, besides its owner")
            ->take_last()
            ->check(checkName)
            ->type_name("GROUP");
        serve->add_option("--rfc2217", rfc2217, "Serve the port to RFC 2217 clients there, on the loopback address unless told; "
                                               "that of each further device at the next number")
            ->take_last()
            ->check(checkAddress)
            ->type_name("[ADDR:]PORT");
        serve->add_option("--tcp", tcp, "Serve the port's bytes, and nothing else, there; that of each further device at the next number")
            ->take_last()
            ->check(checkAddress)
            ->type_name("[ADDR:]PORT");
        serve->add_flag("--kick", options.kick, "A new network client ends the one before it, instead of being told that the port is in use");
        serve->footer("SIGUSR1 unplugs the devices, SIGUSR2 plugs them in again.");
        auto* device = serve->add_option("--usb", devices, "What is plugged in: " + std::string(deviceForms) + "; up to " +
                                             std::to_string(maximumDevices) + " times, the names COM3, COM4, ... go in this order")
                           ->allow_extra_args(false)
                           ->check(checkDevice)
                           ->type_name("DEVICE");
        list->add_option("--usb", usbServer, "Show what a USB/IP server exports instead, or the modems that are plugged in here: libusb")
            ->take_last()
            ->check(checkUsbServer)
            ->type_name("usbip://HOST[:PORT]|libusb");
        modem->add_option("--usbip", usbip, "Export it there, on the loopback address unless told")
            ->take_last()
            ->required()
            ->check(checkAddress)
            ->type_name("[ADDR:]PORT");
        for (CLI::App* command : {serve, modem}) {
            auto* kind = command->add_option("--modem", options.modem, "What is plugged in: modem, or loopback, a wired loop plug [modem]")
                             ->transform(CLI::CheckedTransformer(std::map<std::string, DeviceKind>{{"modem", DeviceKind::modem},
                                                                                                   {"loopback", DeviceKind::loopback}})
                                             .description(""))
                             ->type_name("KIND");
            if (command == serve) {
                kind->excludes(device);
            }
        }
        addControlOptions();
        for (CLI::App* command : {serve, check}) {
            command->add_option("--trace", mask, "Trace categories of the driver, kept in the registry as TraceMask [3]")
                ->check(checkMask)
                ->type_name("MASK");
            command->add_option("--trace-file", options.traceFile, "Append trace lines to a file instead of stderr")
                ->take_last()
                ->check(checkName)
                ->type_name("FILE");
            command->add_option("--capture", options.captureFile,
                                "Write what passes on the USB wire to a pcap file, PPP frames to FILE.N.ppp.pcap (without FILE's "
                                ".pcap; N is the device)")
                ->take_last()
                ->check(checkName)
                ->type_name("FILE");
            command->add_flag("!--no-verifier", options.verifier, "Do not check the rules of the kernel while running");
        }
    }

    void addControlOptions() {
        for (CLI::App* command : {serve, list, status, ctl}) {
            command->add_option("--control", options.controlPath,
                                "Path of the socket for list, status and ctl [in XDG_RUNTIME_DIR or /tmp/comport-UID]")
                ->take_last()
                ->check(checkName)
                ->type_name("PATH");
        }
        for (CLI::App* command : {list, status}) {
            command->add_flag("--json", options.json, "Print the server's reply as it is");
        }
        status->add_option("port", options.port, "The port, COM3 for example [all]")->type_name("PORT");
        ctl->add_option("--port", options.port, "The port [the only one]")->take_last()->type_name("PORT");
        ctl->add_option("order", options.words, "What to do, see below")->required()->type_name("WORDS");
        ctl->footer(std::string(orderHelp()));
    }

    // The command that was given, null when none was.
    CLI::App* given() const {
        std::vector<CLI::App*> commands = app.get_subcommands();
        return commands.empty() ? nullptr : commands.front();
    }

    void takeDevices() {
        for (const std::string& text : devices) {
            const DeviceName device = *parseDevice(text);
            if (device.isUnique() && std::ranges::find(options.devices, device) != options.devices.end()) {
                throw CLI::ValidationError("--usb", text + " is given twice");
            }
            options.devices.push_back(device);
        }
        const std::size_t count = std::max<std::size_t>(options.devices.size(), 1);
        if (count > maximumDevices) {
            throw CLI::ValidationError("--usb", std::to_string(count) + " devices; one process serves at most " +
                                                    std::to_string(maximumDevices) + ", start another for the rest");
        }
        for (const auto& [option, address] : {std::pair("--rfc2217", options.rfc2217), std::pair("--tcp", options.tcp)}) {
            if (address && address->port + count - 1 > 65535) {
                throw CLI::ValidationError(option, "there are not " + std::to_string(count) + " ports from " +
                                                       std::to_string(address->port) + " on; begin lower");
            }
        }
        if (!options.rfc2217 || !options.tcp || options.rfc2217->port == 0 || options.tcp->port == 0) {
            return;
        }
        const std::size_t apart = static_cast<std::size_t>(std::abs(options.rfc2217->port - options.tcp->port));
        if (apart < count && options.rfc2217->host == options.tcp->host) {
            throw CLI::ValidationError("--tcp", "each needs " + std::to_string(count) + " ports from its own on, and those of --rfc2217 "
                                                "and --tcp overlap; put them further apart");
        }
    }

    ParseResult parse(std::vector<std::string> arguments) {
        std::ranges::reverse(arguments);
        app.parse(arguments);
        if (check->parsed()) {
            options.command = Command::check;
            options.registryFile.clear();
        }
        const std::pair<CLI::App*, Command> clients[] = {
            {list, Command::list}, {status, Command::status}, {ctl, Command::ctl}, {modem, Command::modem}};
        for (const auto& [command, value] : clients) {
            if (command->parsed()) {
                options.command = value;
            }
        }
        if (!rfc2217.empty()) {
            options.rfc2217 = parseAddress(rfc2217);
        }
        if (!tcp.empty()) {
            options.tcp = parseAddress(tcp);
        }
        options.usbHere = usbServer == "libusb";
        if (!usbServer.empty() && !options.usbHere) {
            options.usbServer = parseUsbip(usbServer);
        }
        takeDevices();
        if (!usbip.empty()) {
            options.usbip = parseAddress(usbip);
        }
        if (!mask.empty()) {
            options.traceMask = parseMask(mask);
        }
        return {options, "", 0};
    }
};

}  // namespace

ParseResult parseOptions(const std::vector<std::string>& arguments) {
    Parser parser;
    try {
        return parser.parse(arguments);
    } catch (const CLI::CallForHelp&) {
        const CLI::App* command = parser.given();
        return {std::nullopt, command != nullptr ? command->help() : parser.app.help(), 0};
    } catch (const CLI::CallForVersion& version) {
        return {std::nullopt, std::string(version.what()) + "\n", 0};
    } catch (const CLI::ParseError& error) {
        return {std::nullopt, "comport: " + std::string(error.what()) + "\nTry comport --help.\n", 2};
    }
}

}  // namespace comport
