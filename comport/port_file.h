// The COM port as the front end uses it: an application's handle of the executive's file API.
#pragma once

#include <string>

#include "comport/port.h"
#include "comport/port_lease.h"
#include "kernel/file.h"

namespace comport {

class PortFile : public Port {
public:
    // `wake` is called when a transfer has ended, from any thread, at up to DISPATCH_LEVEL.
    using Wake = void (*)(void* context);

    // The port is opened only while `lease` can be had.
    PortFile(std::string portName, PortLease& lease, Wake wake, void* context);

    // Another front end has the port.
    bool busy() const { return lease_.heldByOther(this); }

    // Waits for wakes still running; all transfers must have ended.
    ~PortFile() override;

    bool open() override;
    void close() override;
    void read(Transfer& transfer) override;
    void write(Transfer& transfer) override;
    void flush(Transfer& transfer) override;
    void control(Transfer& transfer, ULONG code) override;
    void query(Transfer& transfer, ULONG code) override;
    void purge(ULONG mask) override;
    void readHeldBack() override;

private:
    // Fits the executive's completion; the transfer holds its request.
    static void ended(nt::Request& request, void* context);
    nt::Request& prepare(Transfer& transfer);

    std::string name_;
    PortLease& lease_;
    Wake wake_;
    void* context_;
    nt::File file_;
    std::atomic<int> callsInside_{0};
};

}  // namespace comport
