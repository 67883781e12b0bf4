// Arbitrary controls with arbitrary buffers, as another driver could send them: external and internal, known and unknown.
//
// The input is a list of requests: an entry point, a code, an input and an output length, then as many bytes as the input
// has. Buffers have just the room the request says. Status, count and the bytes beyond the answer must be right for each;
// what one control stores another must show; and what still waits must end with the port.
#include "fuzz/machine.h"
#include "tests/explorer/controls.h"

#include <algorithm>

namespace {

using explorer::Control;
using explorer::Effect;
using fuzz::require;

// The control that gives back what this one stores, 0: there is none.
ULONG shownBy(const Control& control) {
    if (control.internal)
        return control.code == IOCTL_SERIAL_INTERNAL_RESTORE_SETTINGS ? IOCTL_SERIAL_INTERNAL_BASIC_SETTINGS : 0;
    switch (control.code) {
    case IOCTL_SERIAL_SET_BAUD_RATE: return IOCTL_SERIAL_GET_BAUD_RATE;
    case IOCTL_SERIAL_SET_LINE_CONTROL: return IOCTL_SERIAL_GET_LINE_CONTROL;
    case IOCTL_SERIAL_SET_TIMEOUTS: return IOCTL_SERIAL_GET_TIMEOUTS;
    case IOCTL_SERIAL_SET_WAIT_MASK: return IOCTL_SERIAL_GET_WAIT_MASK;
    case IOCTL_SERIAL_SET_CHARS: return IOCTL_SERIAL_GET_CHARS;
    case IOCTL_SERIAL_SET_HANDFLOW: return IOCTL_SERIAL_GET_HANDFLOW;
    default: return 0;
    }
}

// Null: the driver does not know the code.
const Control* find(UCHAR major, ULONG code) {
    const Control* const end = explorer::controls + explorer::controlCount;
    const Control* const found = std::find_if(explorer::controls, end, [=](const Control& c) {
        return c.code == code && c.internal == (major == IRP_MJ_INTERNAL_DEVICE_CONTROL);
    });
    return found == end || found->effect == Effect::invalid ? nullptr : found;
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
        const Control* control = find(major_, code_);
        const bool character = control != nullptr && is(*control, IOCTL_SERIAL_IMMEDIATE_CHAR);   // taken without one, too
        const bool waits = character || (control != nullptr && is(*control, IOCTL_SERIAL_WAIT_ON_MASK));
        if (control != nullptr && control->effect == Effect::unsupported)
            require(status == STATUS_NOT_SUPPORTED);
        else if (control == nullptr || (input_.size() < control->input && !character) || outLength_ < control->output)
            require(status == STATUS_INVALID_PARAMETER);
        else
            require(status == STATUS_SUCCESS || (waits && !NT_SUCCESS(status)));
        require(information == (status == STATUS_SUCCESS ? control->output : 0));
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
        const Control* control = find(major, code);
        if (control != nullptr && shownBy(*control) != 0 && slot.served())
            compare(major, *control, input);
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

    void compare(UCHAR major, const Control& control, const test::Bytes& input) {
        Slot shown;
        shown.send(object_, major, shownBy(control), {}, control.input);
        if (!shown.done())
            fuzz::Machine::run(1);
        require(shown.done() && shown.served() && std::equal(input.begin(), input.begin() + control.input, shown.answer()));
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
