// Arbitrary bytes on the interrupt endpoint, with traffic and time between them.
//
// The input is a list of actions: a kind, a length, then that many bytes. Lines and events must be those of a small model
// after every action, whatever came; and the port must close.
#include "fuzz/actions.h"
#include "fuzz/machine.h"

#include <algorithm>
#include <string>

namespace {

using fuzz::require;

constexpr ULONG lineEvents = SERIAL_EV_CTS | SERIAL_EV_DSR | SERIAL_EV_RLSD | SERIAL_EV_BREAK | SERIAL_EV_ERR | SERIAL_EV_RING;

// What the notifications say about the lines.
struct Model {
    ULONG lines = 0;   // as GET_MODEMSTATUS tells them
    ULONG events = 0;

    void change(ULONG line, bool on, ULONG event) {
        if (((lines & line) != 0) == on)
            return;
        lines ^= line;
        events |= event;
    }
    void take(const test::Bytes& bytes) {
        if (bytes.size() < 8 || (bytes[0] & 0x60) != 0x20)
            return;
        if (bytes[1] == 0x00)
            change(SERIAL_MSR_CTS, bytes[2] & 1, SERIAL_EV_CTS);
        if (bytes[1] != 0x20 || bytes.size() < 10)
            return;
        const unsigned bits = bytes[8];
        change(SERIAL_MSR_DCD, bits & 1, SERIAL_EV_RLSD);
        change(SERIAL_MSR_DSR, bits & 2, SERIAL_EV_DSR);
        change(SERIAL_MSR_RI, bits & 8, SERIAL_EV_RING);
        events |= bits & 4 ? SERIAL_EV_BREAK : 0;
        events |= bits & 0x70 ? SERIAL_EV_ERR : 0;
    }
};

class Player {
  public:
    explicit Player(fuzz::Machine& machine) : machine_(machine) {
        machine_.begin();
        machine_.set(IOCTL_SERIAL_SET_WAIT_MASK, lineEvents);
        wait();
    }

    void act(std::uint8_t kind, std::span<const std::uint8_t> bytes) {
        switch (kind % 8) {
        case 0:
        case 1:
        case 2:
            notify({bytes.begin(), bytes.begin() + std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(bytes.size()), 16)});
            break;
        case 3:
            machine_.device([&](test::ScriptedDevice& d) { d.send(0x81, {bytes.begin(), bytes.end()}); });
            break;
        case 4:
            write(bytes);
            break;
        case 5:
            fuzz::Machine::run(bytes.empty() ? 1 : bytes[0] * 4);
            break;
        case 6:
            answer(bytes);
            break;
        case 7:   // from the kinds that mean something
            if (bytes.size() >= 4) {
                constexpr std::uint8_t kinds[] = {0xA1, 0x21, 0xC1, 0xA1}, codes[] = {0x00, 0x20, 0x10, 0x11};
                notify({kinds[bytes[0] % 4], codes[bytes[1] % 4], bytes[2], 0, 0, 0, 2, 0, bytes[2], bytes[3]});
            }
            break;
        }
    }

    void finish() {
        machine_.end();
        require(waited_ && (!writing_ || written_));
    }

  private:
    static void ended(nt::Request&, void* flag) { *static_cast<bool*>(flag) = true; }

    void wait() {
        waited_ = false;
        value_ = 0;
        machine_.file.control(wait_, IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, &value_, sizeof(value_));
    }

    void notify(const test::Bytes& bytes) {
        model_.take(bytes);
        machine_.notify(bytes);
        ULONG lines = 0;
        require(machine_.file.control(IOCTL_SERIAL_GET_MODEMSTATUS, nullptr, 0, &lines, sizeof(lines)).information == 4);
        require((lines & 0xF0) == model_.lines);
        require(waited_ == (model_.events != 0) && value_ == model_.events);
        if (!waited_)
            return;
        model_.events = 0;
        wait();
    }

    // One at a time; one that waits is left alone.
    void write(std::span<const std::uint8_t> bytes) {
        if (bytes.empty() || (writing_ && !written_))
            return;
        writing_ = true;
        written_ = false;
        data_.assign(bytes.begin(), bytes.end());
        machine_.file.write(write_, data_.data(), static_cast<ULONG>(data_.size()));
    }

    // What the device says when it is asked for the characters to be escaped; with no bytes it refuses.
    void answer(std::span<const std::uint8_t> bytes) {
        machine_.device([&](test::ScriptedDevice& d) {
            d.onControl = [data = test::Bytes(bytes.begin(), bytes.end())](
                              const usb::SetupPacket& setup, std::span<std::uint8_t> space) -> std::optional<usb::ControlReply> {
                if (setup.request < 0x60)
                    return std::nullopt;
                if (data.empty())
                    return usb::ControlReply::stall();
                const std::size_t length = std::min(data.size(), space.size());
                std::copy_n(data.begin(), length, space.begin());
                return usb::ControlReply::ack(static_cast<std::uint32_t>(length));
            };
        });
    }

    fuzz::Machine& machine_;
    Model model_;
    ULONG value_ = 0;
    bool waited_ = false, written_ = false, writing_ = false;
    test::Bytes data_;
    nt::Request wait_{ended, &waited_}, write_{ended, &written_};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Player player(fuzz::machine(0xA0803));
    fuzz::play({data, size}, player, 64);
    player.finish();
    return 0;
}
