#include "comport/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "comport/unique_fd.h"

namespace comport {

ServiceManager::ServiceManager() {
    const char* name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || *name == '\0') {
        return;
    }
    name_ = name;
    if ((name_[0] != '/' && name_[0] != '@') || name_.size() >= sizeof(sockaddr_un::sun_path)) {
        std::fprintf(stderr, "comport: NOTIFY_SOCKET is neither a path nor an abstract name: %s\n", name);
        name_.clear();
    } else if (name_[0] == '@') {
        name_[0] = '\0';
    }
}

void ServiceManager::tell(const std::string& lines) const {
    if (name_.empty()) {
        return;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name_.data(), name_.size());
    // The length counts: an abstract name ends with it.
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (::sendto(socket.get(), lines.data(), lines.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address), length) < 0) {
        std::fprintf(stderr, "comport: the service manager cannot be told: %s\n", std::strerror(errno));
    }
}

}  // namespace comport
