// Arbitrary controls with arbitrary buffers, as another driver could send them: external and internal, known and unknown.
//
// The input is a list of requests: an entry point, a code, an input and an output length, then as many bytes as the input
// has. Buffers have just the room the request says. Status, count and the bytes beyond the answer must be right for each;
// what one control stores another must show; and what still waits must end with the port.
#include "fuzz/machine.h"

#include <algorithm>

namespace {

using fuzz::require;

struct Sizes {
    ULONG code, in, out;
    ULONG shownBy;   // the control that gives back what this one stores
};
constexpr Sizes known[] = {
    {IOCTL_SERIAL_SET_BAUD_RATE, 4, 0, IOCTL_SERIAL_GET_BAUD_RATE},
    {IOCTL_SERIAL_SET_QUEUE_SIZE, 8, 0, 0},
    {IOCTL_SERIAL_SET_LINE_CONTROL, 3, 0, IOCTL_SERIAL_GET_LINE_CONTROL},
    {IOCTL_SERIAL_SET_BREAK_ON, 0, 0, 0},
    {IOCTL_SERIAL_SET_BREAK_OFF, 0, 0, 0},
    {IOCTL_SERIAL_IMMEDIATE_CHAR, 0, 0, 0},
    {IOCTL_SERIAL_SET_TIMEOUTS, 20, 0, IOCTL_SERIAL_GET_TIMEOUTS},
    {IOCTL_SERIAL_GET_TIMEOUTS, 0, 20, 0},
    {IOCTL_SERIAL_SET_DTR, 0, 0, 0},
    {IOCTL_SERIAL_CLR_DTR, 0, 0, 0},
    {IOCTL_SERIAL_RESET_DEVICE, 0, 0, 0},
    {IOCTL_SERIAL_SET_RTS, 0, 0, 0},
    {IOCTL_SERIAL_CLR_RTS, 0, 0, 0},
    {IOCTL_SERIAL_SET_XOFF, 0, 0, 0},
    {IOCTL_SERIAL_SET_XON, 0, 0, 0},
    {IOCTL_SERIAL_GET_WAIT_MASK, 0, 4, 0},
    {IOCTL_SERIAL_SET_WAIT_MASK, 4, 0, IOCTL_SERIAL_GET_WAIT_MASK},
    {IOCTL_SERIAL_WAIT_ON_MASK, 0, 4, 0},
    {IOCTL_SERIAL_PURGE, 4, 0, 0},
    {IOCTL_SERIAL_GET_BAUD_RATE, 0, 4, 0},
    {IOCTL_SERIAL_GET_LINE_CONTROL, 0, 3, 0},
    {IOCTL_SERIAL_GET_CHARS, 0, 6, 0},
    {IOCTL_SERIAL_SET_CHARS, 6, 0, IOCTL_SERIAL_GET_CHARS},
    {IOCTL_SERIAL_GET_HANDFLOW, 0, 16, 0},
    {IOCTL_SERIAL_SET_HANDFLOW, 16, 0, IOCTL_SERIAL_GET_HANDFLOW},
    {IOCTL_SERIAL_GET_MODEMSTATUS, 0, 4, 0},
    {IOCTL_SERIAL_GET_COMMSTATUS, 0, 20, 0},
    {IOCTL_SERIAL_GET_PROPERTIES, 0, 64, 0},
    {IOCTL_SERIAL_GET_DTRRTS, 0, 4, 0},
    {IOCTL_SERIAL_CONFIG_SIZE, 0, 4, 0},
    {IOCTL_SERIAL_GET_STATS, 0, 24, 0},
    {IOCTL_SERIAL_CLEAR_STATS, 0, 0, 0},
};
constexpr Sizes knownInternal[] = {
    {IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS, 0, 44, 0},
    {IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS, 44, 0, IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS},
};

const Sizes* find(UCHAR major, ULONG code) {
    const std::span<const Sizes> table = major == IRP_MJ_DEVICE_CONTROL ? std::span<const Sizes>(known) : knownInternal;
    const auto found = std::find_if(table.begin(), table.end(), [&](const Sizes& s) { return s.code == code; });
    return found == table.end() ? nullptr : &*found;
}

class Slot {
  public:
    Slot() = default;
    ~Slot() {
        require(done_);
        if (irp_ != nullptr)
            IoFreeIrp(irp_);
    }
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;

    bool done() const { return done_; }

    void send(PDEVICE_OBJECT device, UCHAR major, ULONG code, const test::Bytes& input, ULONG outLength) {
        if (irp_ == nullptr)
            irp_ = IoAllocateIrp(device->StackSize, FALSE);
        IoReuseIrp(irp_, STATUS_SUCCESS);
        major_ = major;
        code_ = code;
        input_ = input;
        outLength_ = outLength;
        const std::size_t size = std::max<std::size_t>(input.size(), outLength);
        buffer_.reset(size != 0 ? new std::uint8_t[size] : nullptr);
        std::fill_n(buffer_.get(), size, std::uint8_t{0xA5});
        std::copy(input.begin(), input.end(), buffer_.get());
        irp_->AssociatedIrp.SystemBuffer = buffer_.get();
        const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp_);
        next->MajorFunction = major;
        next->Parameters.DeviceIoControl.IoControlCode = code;
        next->Parameters.DeviceIoControl.InputBufferLength = static_cast<ULONG>(input.size());
        next->Parameters.DeviceIoControl.OutputBufferLength = outLength;
        IoSetCompletionRoutine(irp_, ended, this, TRUE, TRUE, TRUE);
        done_ = false;
        IoCallDriver(device, irp_);
    }
    void cancel() {
        if (!done_)
            IoCancelIrp(irp_);
    }

    // The request has ended: was it right?
    void check() const {
        const NTSTATUS status = irp_->IoStatus.Status;
        const auto information = irp_->IoStatus.Information;
        const Sizes* sizes = find(major_, code_);
        const bool wake = major_ != IRP_MJ_DEVICE_CONTROL && (code_ == 0x1B0004 || code_ == 0x1B0008);
        const bool waiting = major_ == IRP_MJ_DEVICE_CONTROL &&
                             (code_ == IOCTL_SERIAL_WAIT_ON_MASK || code_ == IOCTL_SERIAL_IMMEDIATE_CHAR);
        if (wake)
            require(status == STATUS_NOT_SUPPORTED);
        else if (sizes == nullptr || input_.size() < sizes->in || outLength_ < sizes->out)
            require(status == STATUS_INVALID_PARAMETER);
        else
            require(status == STATUS_SUCCESS || (waiting && !NT_SUCCESS(status)));
        require(information == (status == STATUS_SUCCESS ? sizes->out : 0));
        const std::size_t size = std::max<std::size_t>(input_.size(), outLength_);
        for (std::size_t i = information; i < size; ++i)
            require(buffer_[i] == (i < input_.size() ? input_[i] : 0xA5));
    }
    const std::uint8_t* answer() const { return buffer_.get(); }
    bool served() const { return irp_->IoStatus.Status == STATUS_SUCCESS; }

  private:
    static NTSTATUS NTAPI ended(PDEVICE_OBJECT, PIRP, PVOID context) {
        static_cast<Slot*>(context)->done_ = true;
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    PIRP irp_ = nullptr;
    UCHAR major_ = 0;
    ULONG code_ = 0, outLength_ = 0;
    test::Bytes input_;
    std::unique_ptr<std::uint8_t[]> buffer_;
    bool done_ = true;
};

class Player {
  public:
    explicit Player(fuzz::Machine& machine) : machine_(machine), object_(machine.object()) {
        machine_.begin();
        machine_.device([](test::ScriptedDevice& d) { d.sendBulk("0123456789"); });
    }

    void act(std::uint8_t kind, ULONG code, test::Bytes input, ULONG outLength) {
        const UCHAR major = kind & 1 ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
        if (major == IRP_MJ_DEVICE_CONTROL && code == IOCTL_SERIAL_SET_QUEUE_SIZE)
            tame(input);
        Slot& slot = slots_[next_];
        if (!slot.done()) {   // only what waits for an event or for room
            slot.cancel();
            fuzz::Machine::run(110);
            require(slot.done());
        }
        next_ = (next_ + 1) % std::size(slots_);
        slot.send(object_, major, code, input, outLength);
        if (!slot.done())
            fuzz::Machine::run(1);
        if (!slot.done())
            return;
        slot.check();
        const Sizes* sizes = find(major, code);
        if (sizes != nullptr && sizes->shownBy != 0 && slot.served())
            compare(major, *sizes, input);
    }

    void finish() {
        machine_.end();
        for (Slot& slot : slots_)
            require(slot.done());
    }

  private:
    // Sizes that can be had, and the ones at the end that never can.
    static void tame(test::Bytes& input) {
        for (std::size_t at = 0; at + 4 <= input.size(); at += 4) {
            if (input[at + 2] != 0xFF || input[at + 3] != 0xFF || input[at + 1] != 0xFF || input[at] < 0xF8)
                input[at + 2] = input[at + 3] = 0;
        }
    }

    void compare(UCHAR major, const Sizes& sizes, const test::Bytes& input) {
        Slot shown;
        shown.send(object_, major, sizes.shownBy, {}, sizes.in);
        if (!shown.done())
            fuzz::Machine::run(1);
        require(shown.done() && shown.served() && std::equal(input.begin(), input.begin() + sizes.in, shown.answer()));
    }

    fuzz::Machine& machine_;
    PDEVICE_OBJECT object_;
    Slot slots_[6];
    std::size_t next_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Player player(fuzz::machine(0x883));
    for (std::size_t at = 0, requests = 0; at + 4 <= size && requests < 64; ++requests) {
        const std::uint8_t* const head = data + at;
        // Mostly codes of the port's own type, sometimes neighbours of them and others.
        const ULONG code = head[0] & 2 ? 0x1B0000 + head[1] : head[0] & 4 ? head[1] * 0x1010101u : 0x1B0000 + (head[1] % 40) * 4;
        const std::size_t length = std::min<std::size_t>(head[2], size - at - 4);
        player.act(head[0], code, test::Bytes(head + 4, head + 4 + length), head[3]);
        at += 4 + length;
    }
    player.finish();
    return 0;
}
