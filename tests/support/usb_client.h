// A function driver that does nothing by itself (that of tests/kernel_bus.h): it attaches to every device with the scripted
// device's ids and lets the test send requests to the bus driver below.
#pragma once

#include "tests/support/rig.h"

#include <ntplatform.h>

#include <deque>
#include <string>
#include <vector>

namespace test {

// One request to the bus driver, reusable. Counts its completions: a second one for the same submission fails the test.
class ClientRequest {
public:
    ClientRequest();
    ~ClientRequest();
    ClientRequest(const ClientRequest&) = delete;
    ClientRequest& operator=(const ClientRequest&) = delete;

    // Sends `urb` (or the control code) down. The status IoCallDriver gave.
    NTSTATUS submit(ULONG code = IOCTL_INTERNAL_USB_SUBMIT_URB, PVOID argument = nullptr);
    // Waits for the end; the IRP's status. STATUS_TIMEOUT when `timeoutMs` passed first.
    NTSTATUS wait(std::uint32_t timeoutMs = 10000);
    bool done() { return KeReadStateEvent(&done_) != 0; }
    void cancel() { IoCancelIrp(irp_); }
    // submit() and wait() in one.
    NTSTATUS run(ULONG code = IOCTL_INTERNAL_USB_SUBMIT_URB, PVOID argument = nullptr);

    // A bulk or interrupt transfer in `urb`.
    ClientRequest& data(USBD_PIPE_HANDLE pipe, bool in, void* buffer, ULONG length, bool shortOk = true);
    ClientRequest& pipeRequest(USHORT function, USBD_PIPE_HANDLE pipe);
    USBD_STATUS usbd() const { return urb.UrbHeader.Status; }
    ULONG length() const { return urb.UrbBulkOrInterruptTransfer.TransferBufferLength; }

    URB urb{};
    unsigned completions = 0;
    bool completedInside = false;  // the completion came before IoCallDriver returned, on the same thread

private:
    static IO_COMPLETION_ROUTINE completed;

    PIRP irp_ = nullptr;
    KEVENT done_;
    PKTHREAD submitter_ = nullptr;
};

struct ClientPipes {
    USBD_PIPE_HANDLE in = nullptr, out = nullptr, interrupt = nullptr;
};

// A read under way, and its memory.
struct ClientRead : ClientRequest {
    ClientRead(USBD_PIPE_HANDLE pipe, ULONG room) : buffer(room) { again(pipe); }
    void again(USBD_PIPE_HANDLE pipe) { data(pipe, true, buffer.data(), static_cast<ULONG>(buffer.size())).submit(); }
    std::string text() const { return {buffer.data(), length()}; }
    std::vector<char> buffer;
};
// Several at once, in the order they were submitted in.
using ClientReads = std::deque<ClientRead>;

// The text of one read, which must succeed.
std::string readText(USBD_PIPE_HANDLE pipe, ULONG room = 4096);

class UsbClient {
public:
    // Loads and binds the driver. One at a time.
    explicit UsbClient(nt::Executive& executive);

    // The stack of the latest device, null while there is none.
    static PDEVICE_OBJECT lower();
    // Reads the configuration, selects its first two interfaces and finds the pipes. The IRP's status.
    static NTSTATUS configure(ClientPipes& pipes);
    // The same where nothing may fail.
    static ClientPipes configured();
};

// A machine without the driver under test and with no device yet.
RigOptions busOnly(std::uint64_t seed = 1);

}  // namespace test
