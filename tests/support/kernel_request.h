// A request of another driver to a device object, as one stacked on the port would send it.
#pragma once

#include "tests/support/port.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace test {

// One buffered control to `device`, reusable. Its buffer is as long as the longer side; what stands behind it must stay.
class KernelRequest {
public:
    explicit KernelRequest(PDEVICE_OBJECT device) : device_(device), irp_(IoAllocateIrp(2 * device->StackSize, FALSE)) {
        KeInitializeEvent(&ended_, NotificationEvent, TRUE);
    }
    ~KernelRequest() {
        EXPECT_TRUE(done()) << "a request is destroyed under way";
        IoFreeIrp(irp_);
    }
    KernelRequest(const KernelRequest&) = delete;
    KernelRequest& operator=(const KernelRequest&) = delete;

    // What the dispatch routine returned.
    NTSTATUS submit(UCHAR major, ULONG code, const std::string& input, ULONG inLength, ULONG outLength) {
        KeClearEvent(&ended_);
        IoReuseIrp(irp_, STATUS_SUCCESS);
        irp_->IoStatus.Information = 0xDEAD;
        length_ = std::max(inLength, outLength);
        buffer_.assign(length_ + guardSize, static_cast<char>(fill));
        std::copy_n(input.begin(), std::min<std::size_t>(inLength, input.size()), buffer_.begin());
        irp_->AssociatedIrp.SystemBuffer = buffer_.data();
        major_ = major;
        code_ = code;
        inLength_ = inLength;
        outLength_ = outLength;
        return callAgain();
    }
    // Sends the request down once more, while the first call is pending.
    NTSTATUS callAgain() {
        const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp_);
        next->MajorFunction = major_;
        next->Parameters.DeviceIoControl.IoControlCode = code_;
        next->Parameters.DeviceIoControl.InputBufferLength = inLength_;
        next->Parameters.DeviceIoControl.OutputBufferLength = outLength_;
        IoSetCompletionRoutine(irp_, ended, this, TRUE, TRUE, TRUE);
        return IoCallDriver(device_, irp_);
    }
    // The same, waiting for the end: status and information.
    std::pair<NTSTATUS, ULONG> run(UCHAR major, ULONG code, const std::string& input, ULONG inLength, ULONG outLength) {
        const NTSTATUS returned = submit(major, code, input, inLength, outLength);
        LARGE_INTEGER limit;
        limit.QuadPart = -60 * 10000000LL;
        EXPECT_EQ(KeWaitForSingleObject(&ended_, Executive, KernelMode, FALSE, &limit), STATUS_SUCCESS);
        EXPECT_TRUE(returned == STATUS_PENDING || returned == status());
        for (std::size_t i = length_; i < buffer_.size(); ++i) EXPECT_EQ(static_cast<std::uint8_t>(buffer_[i]), fill);
        return {status(), information()};
    }

    bool done() { return KeReadStateEvent(&ended_) != 0; }
    NTSTATUS status() const { return irp_->IoStatus.Status; }
    ULONG information() const { return static_cast<ULONG>(irp_->IoStatus.Information); }
    // The whole buffer, without what stands behind it.
    std::string buffer() const { return buffer_.substr(0, length_); }
    ULONG value() const {
        ULONG value;
        std::memcpy(&value, buffer_.data(), sizeof(value));
        return value;
    }
    PIRP irp() { return irp_; }

    static constexpr std::uint8_t fill = 0xA5;

private:
    static constexpr std::size_t guardSize = 16;

    static NTSTATUS NTAPI ended(PDEVICE_OBJECT, PIRP, PVOID context) {
        KeSetEvent(&static_cast<KernelRequest*>(context)->ended_, IO_NO_INCREMENT, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    PDEVICE_OBJECT device_;
    PIRP irp_;
    KEVENT ended_;
    std::string buffer_;
    ULONG length_ = 0, code_ = 0, inLength_ = 0, outLength_ = 0;
    UCHAR major_ = 0;
};

}  // namespace test
