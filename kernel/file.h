// How applications reach devices: open by name, asynchronous requests, cancel, close.
//
// Requests are buffered I/O: input is copied in when the request is issued, output is copied out when it ends (nothing on an
// error status, `information` bytes otherwise). Once the caches are warm no request allocates.
// IRP_MJ_CLEANUP goes down at close(), IRP_MJ_CLOSE when the last outstanding request of the file has ended too.
#pragma once

#include <wdm.h>

#include <memory>
#include <string_view>

namespace nt {

class File;
struct FileRecord;

// One request slot, owned by the caller. It must live until its completion has been called (the verifier stops whoever
// destroys it before), and may be used again, or destroyed, from within that call: nothing touches it afterwards.
class Request {
public:
    // Called exactly once per issued request, at up to DISPATCH_LEVEL, perhaps before the issuing call returns.
    using Completion = void (*)(Request& request, void* context);

    Request() = default;
    Request(Completion completion, void* context) : completion_(completion), context_(context) {}
    ~Request() {
        if (irp_ != nullptr) [[unlikely]] destroyedEarly();
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // Only between requests.
    void setCompletion(Completion completion, void* context) {
        completion_ = completion;
        context_ = context;
    }

    // Final status and bytes moved; valid from the completion on.
    NTSTATUS status() const { return status_; }
    ULONG_PTR information() const { return information_; }

private:
    friend class File;
    friend struct FileRecord;

    void destroyedEarly() const;

    Completion completion_ = nullptr;
    void* context_ = nullptr;
    PIRP irp_ = nullptr;  // guarded by the file's lock; null when nothing is outstanding
    NTSTATUS status_ = 0;
    ULONG_PTR information_ = 0;
};

struct IoResult {
    NTSTATUS status = 0;
    ULONG_PTR information = 0;
};

class File {
public:
    File() = default;
    ~File() { close(); }
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;

    // Opens "\DosDevices\COM5", "\??\COM5", "\Device\…" or an interface's link name; PASSIVE_LEVEL. What IRP_MJ_CREATE gave, or
    // STATUS_OBJECT_NAME_NOT_FOUND. The file must not be open.
    NTSTATUS open(std::string_view name);
    bool isOpen() const { return record_ != nullptr; }
    PFILE_OBJECT object() const;

    // Issue one request; IRQL as the driver's dispatch routine asks for it (PASSIVE_LEVEL as a rule). Return STATUS_PENDING or
    // the final status; the completion is called either way. Buffers must live until then.
    NTSTATUS read(Request& request, void* buffer, ULONG length);
    NTSTATUS write(Request& request, const void* buffer, ULONG length);
    NTSTATUS flush(Request& request);
    // METHOD_BUFFERED codes only.
    NTSTATUS control(Request& request, ULONG code, const void* input, ULONG inputLength, void* output, ULONG outputLength);

    // The same, waiting for the end; below DISPATCH_LEVEL.
    IoResult read(void* buffer, ULONG length);
    IoResult write(const void* buffer, ULONG length);
    IoResult flush();
    IoResult control(ULONG code, const void* input = nullptr, ULONG inputLength = 0, void* output = nullptr,
                     ULONG outputLength = 0);

    // Asks for the end of one request; harmless when it has ended. The request's completion follows in any case.
    void cancel(Request& request);
    // The same for all requests of this handle.
    void cancelAll();

    // Closes the handle: IRP_MJ_CLEANUP has been served on return. PASSIVE_LEVEL. Outstanding requests may end later.
    void close();

private:
    FileRecord* record_ = nullptr;
};

}  // namespace nt
