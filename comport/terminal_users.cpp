#include "comport/terminal_users.h"

#include <sys/inotify.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace comport {

namespace {

int checked(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
    return result;
}

}  // namespace

TerminalUsers::TerminalUsers() {
    events_.assign(checked(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC),
                           "cannot watch terminals (raise fs.inotify.max_user_instances)"));
    wait();
    thread_ = std::thread([this] { loop_.run(); });
}

TerminalUsers::~TerminalUsers() {
    loop_.stop();
    thread_.join();
}

int TerminalUsers::add(const std::string& path, Told told) {
    // An event of it waits for the entry.
    std::lock_guard guard(lock_);
    const int watch = checked(::inotify_add_watch(events_.native_handle(), path.c_str(), IN_OPEN | IN_CLOSE),
                              "cannot watch the terminal (raise fs.inotify.max_user_watches)");
    watches_[watch] = std::move(told);
    return watch;
}

void TerminalUsers::remove(int watch) {
    std::lock_guard guard(lock_);
    watches_.erase(watch);
    ::inotify_rm_watch(events_.native_handle(), watch);
}

void TerminalUsers::wait() {
    events_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& error) {
        if (!error) {
            takeEvents();
            wait();
        }
    });
}

void TerminalUsers::takeEvents() {
    alignas(inotify_event) char buffer[4096];
    std::lock_guard guard(lock_);
    const ssize_t length = ::read(events_.native_handle(), buffer, sizeof(buffer));
    for (char* at = buffer; at < buffer + length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(at);
        at += sizeof(inotify_event) + event->len;
        if (event->mask & IN_Q_OVERFLOW) {
            for (const auto& [watch, told] : watches_) {
                told(true);
            }
        } else if (const auto found = watches_.find(event->wd); found != watches_.end()) {
            found->second((event->mask & IN_CLOSE) != 0);
        }
    }
}

}  // namespace comport
