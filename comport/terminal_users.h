// Tells when somebody opens or closes a terminal, by the kernel's file events. One watch for all terminals of the process: a user
// has few (fs.inotify.max_user_instances is 128).
#pragma once

#include <asio.hpp>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace comport {

class TerminalUsers {
public:
    // `closed`: somebody may have closed it; else somebody opened it. On the watch's thread; must not wait for anything.
    using Told = std::function<void(bool closed)>;

    // This and add() throw std::runtime_error with a sentence.
    TerminalUsers();
    // Nothing is watched any more.
    ~TerminalUsers();
    TerminalUsers(const TerminalUsers&) = delete;
    TerminalUsers& operator=(const TerminalUsers&) = delete;

    // Any thread. The number of the watch; whatever happens from now on is told.
    int add(const std::string& path, Told told);
    // Any thread. Nothing is told any more once it has returned.
    void remove(int watch);

private:
    void wait();
    void takeEvents();

    asio::io_context loop_{1};
    asio::posix::stream_descriptor events_{loop_};  // inotify
    std::mutex lock_;
    std::map<int, Told> watches_;  // guarded by lock_, which is held while they are called
    std::thread thread_;
};

}  // namespace comport
