// What a service manager is told, as sd_notify(3) describes it: one datagram of NAME=value lines to the socket that NOTIFY_SOCKET
// names, a path or, with "@" in front, an abstract name.
#pragma once

#include <string>

namespace comport {

class ServiceManager {
public:
    // Says so on stderr when NOTIFY_SOCKET is there and cannot be meant; without it nobody is told anything.
    ServiceManager();

    // All ports are served. `status`: one line for a person.
    void ready(const std::string& status) const { tell("READY=1\nSTATUS=" + status + "\n"); }
    void stopping() const { tell("STOPPING=1\n"); }

private:
    void tell(const std::string& lines) const;

    std::string name_;  // as the kernel takes it: of an abstract socket with a zero in front
};

}  // namespace comport
