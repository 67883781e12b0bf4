#include <asio.hpp>
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "comport/check.h"
#include "comport/client.h"
#include "comport/options.h"
#include "comport/server.h"
#include "comport/service_manager.h"
#include "comport/usbip_client.h"
#include "comport/usbip_modem.h"

namespace {

// SIGINT and SIGTERM end the service; the modem comes and goes with SIGUSR1 and SIGUSR2. What comes before run() waits for it.
class Signals {
public:
    Signals() {
        signals_.add(SIGUSR1);
        signals_.add(SIGUSR2);
    }

    // Until it is ended.
    void run(comport::Server& server) {
        wait(server);
        loop_.run();
    }

private:
    void wait(comport::Server& server) {
        signals_.async_wait([&](const asio::error_code& error, int number) {
            if (error || number == SIGINT || number == SIGTERM) {
                return;
            }
            if (number == SIGUSR1) {
                server.unplug();
            } else {
                server.plugIn();
            }
            wait(server);
        });
    }

    asio::io_context loop_{1};
    asio::signal_set signals_{loop_, SIGINT, SIGTERM};
};

std::string placesOf(const comport::ServedPort& port, const char* between) {
    std::string text = port.link();
    for (const std::string& url : port.urls()) {
        text += between + url;
    }
    return text;
}

// One line a port when there are several.
void tell(const comport::ServedPort& port) {
    std::printf("%s (%s) is served at %s\n", port.name().c_str(), port.device().c_str(), placesOf(port, ", ").c_str());
    std::fflush(stdout);
}

using Ports = std::vector<const comport::ServedPort*>;

void greet(const comport::Options& options, const Ports& served) {
    if (options.devices.size() > 1) {
        for (const comport::ServedPort* port : served) {
            tell(*port);
        }
    } else if (!served.empty()) {
        std::printf("%s is served at %s\n", served[0]->name().c_str(), placesOf(*served[0], "\nand at ").c_str());
    }
    if (!served.empty()) {
        const std::string link = served[0]->link();
        std::printf("Try: picocom %s   (%s; leave with Ctrl-A Ctrl-X)\n", link.c_str(),
                    served[0]->kind() == comport::DeviceKind::loopback ? "what you type comes back" : "type ATI, Enter");
        if (served[0]->kind() == comport::DeviceKind::modem) {
            std::printf("Dial up: pppd %s 115200 local nodetach noauth user me password me connect "
                        "'/usr/sbin/chat -v \"\" ATD*99# CONNECT'\n  (Debian's package ppp; as root, where there is /dev/ppp), "
                        "then: ping 192.0.2.1\n",
                        link.c_str());
        }
    }
    std::fflush(stdout);
}

std::string summaryOf(const Ports& served) {
    if (served.size() > 4) {
        return std::to_string(served.size()) + " ports are served";
    }
    std::string text;
    for (const comport::ServedPort* port : served) {
        text += (text.empty() ? "" : ", ") + port->name() + " at " + port->link();
    }
    return text.empty() ? "no device is there yet" : text;
}

// A port takes some twenty descriptors; the limit that a shell gives is too low for a hundred.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int serve(const comport::Options& options) {
    raiseDescriptorLimit();
    Signals signals;
    comport::Server server(options);
    const Ports served = server.served(tell);
    greet(options, served);
    const comport::ServiceManager manager;
    manager.ready(summaryOf(served));
    signals.run(server);
    manager.stopping();
    std::vector<std::string> left = server.stop();
    for (const std::string& line : left) {
        std::fprintf(stderr, "comport: left at unload: %s\n", line.c_str());
    }
    return left.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    // What cannot be written is told by the call.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    comport::ParseResult parsed = comport::parseOptions({argv + 1, argv + argc});
    if (!parsed.options) {
        std::fputs(parsed.text.c_str(), parsed.exitCode == 0 ? stdout : stderr);
        return parsed.exitCode;
    }
    try {
        switch (parsed.options->command) {
        case comport::Command::serve: return serve(*parsed.options);
        case comport::Command::check: return comport::runCheck(*parsed.options);
        case comport::Command::modem: return comport::runModem(*parsed.options);
        case comport::Command::list:
            if (parsed.options->usbHere) {
                return comport::runLibusbList();
            }
            if (parsed.options->usbServer) {
                return comport::runUsbipList(*parsed.options);
            }
            [[fallthrough]];
        default: return comport::runClient(*parsed.options);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "comport: %s\n", error.what());
        return 1;
    }
}
