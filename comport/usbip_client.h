// A port whose modem is elsewhere: the list of what a USB/IP server exports, and coming back after a lost connection.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "comport/options.h"

namespace comport {

// Prints what the server of options.usbServer exports. The exit code.
int runUsbipList(const Options& options);

// Tries again and again, on a thread of its own, longer apart each time.
//
//   content --lost()--> waiting --the time has come, or now()--> attempt --true--> content; --false--> waiting
class Reconnector {
public:
    explicit Reconnector(std::function<bool()> attempt);
    ~Reconnector() { end(); }
    Reconnector(const Reconnector&) = delete;
    Reconnector& operator=(const Reconnector&) = delete;

    // Any thread, at PASSIVE_LEVEL: an attempt is due after a while, or at once.
    void lost();
    void now();
    // No attempt begins after it returned. lost() and now() may still be called.
    void tellEnd();
    // That, and waits for an attempt that is under way.
    void end();

private:
    void run();

    const std::function<bool()> attempt_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool lost_ = false;
    bool hurry_ = false;
    bool ending_ = false;
    std::thread thread_;
};

}  // namespace comport
