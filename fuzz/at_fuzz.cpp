// Arbitrary bytes, requests, times and readers at the virtual modem.
//
// The input is a list of actions: a kind, a length, then that many bytes. What must hold: no memory fault, no
// endless loop, memory within the limit the fuzzer is run with, every answer within what the host asked for. The
// input as a whole must also come back unchanged from a call to the echo.
#include "fuzz/actions.h"
#include "modem/modem.h"

#include <vector>

namespace {

using fuzz::require;

class Player {
  public:
    Player() {
        modem_.busReset();
        modem_.configured(1);
    }

    void act(std::uint8_t kind, std::span<const std::uint8_t> bytes) {
        modem_.tick(nowMs_);
        switch (kind % 8) {
        case 0:
        case 1:
            write(bytes);
            break;
        case 2:
            read(bytes.empty() ? 4096 : 1 + bytes[0] * 37u);
            break;
        case 3:
            control(bytes);
            break;
        case 4:
            fuzz::pass(nowMs_, bytes.empty() ? 1 : 1 + bytes[0] * 50, [&] { return modem_.nextDeadlineMs(); },
                       [&] { modem_.tick(nowMs_); });
            break;
        case 5:
            stimulate(bytes);
            break;
        case 6:
            notification(bytes.empty() ? 16 : bytes[0] % 24u);
            break;
        case 7:
            flood(bytes);
            break;
        }
    }

    // A reader that comes back late: what waited moves on.
    void finish() {
        for (int i = 0; i < 64 && read(4096) != 0; ++i) {
        }
    }

  private:
    void write(std::span<const std::uint8_t> bytes) {
        const std::int32_t taken = modem_.dataOut(modem::Modem::endpointOut, bytes, true);
        require(taken >= usb::dataStall && taken <= static_cast<std::int32_t>(bytes.size()));
        require(taken < 0 || static_cast<std::size_t>(taken) == bytes.size() || taken % 64 == 0);
    }

    // The same bytes again and again while nobody reads: the modem must come to refuse them, unless it swallows them.
    void flood(std::span<const std::uint8_t> bytes) {
        std::size_t taken = 0;
        for (int i = 0; i < 64 && !bytes.empty(); ++i) {
            const std::int32_t count = modem_.dataOut(modem::Modem::endpointOut, bytes, false);
            if (count <= 0)
                break;
            taken += static_cast<std::size_t>(count);
        }
        require(taken <= 64 * bytes.size());
    }

    std::size_t read(std::size_t space) {
        buffer_.assign(space, 0xEE);
        modem_.tick(nowMs_);
        const std::int32_t count = modem_.dataIn(modem::Modem::endpointIn, buffer_);
        require(count >= usb::dataStall && count <= static_cast<std::int32_t>(space));
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }

    void control(std::span<const std::uint8_t> bytes) {
        if (bytes.size() < 6)
            return;
        usb::SetupPacket setup;
        setup.requestType = bytes[0];
        setup.request = bytes[1];
        setup.value = static_cast<std::uint16_t>(bytes[2] | bytes[3] << 8);
        setup.index = bytes[4];
        std::vector<std::uint8_t> data(bytes.begin() + 6, bytes.end());
        if (setup.isIn())
            data.resize(bytes[5] * 2u);
        setup.length = static_cast<std::uint16_t>(data.size());
        const usb::ControlReply reply = modem_.control(setup, data);
        require(reply.length <= data.size());
    }

    void stimulate(std::span<const std::uint8_t> bytes) {
        static constexpr void (*stimuli[])(modem::Modem&, std::uint8_t) = {
            [](modem::Modem& modem, std::uint8_t value) { modem.ringIn(value); },
            [](modem::Modem& modem, std::uint8_t) { modem.dropCarrier(); },
            [](modem::Modem& modem, std::uint8_t value) { modem.reportErrors(value); },
            [](modem::Modem& modem, std::uint8_t value) { modem.setClearToSend(value & 1); },
            [](modem::Modem& modem, std::uint8_t value) { modem.setHold(value & 1); },
            [](modem::Modem& modem, std::uint8_t) { modem.busReset(); },
            [](modem::Modem& modem, std::uint8_t value) { modem.configured(value & 1); },
            [](modem::Modem& modem, std::uint8_t value) { modem.haltCleared(value); },
        };
        if (bytes.size() >= 2)
            stimuli[bytes[0] % 8](modem_, bytes[1]);
    }

    void notification(std::size_t space) {
        std::vector<std::uint8_t> bytes(space);
        const std::int32_t count = modem_.dataIn(modem::Modem::endpointNotify, bytes);
        require(count < 0 || count == 8 || count == 10);
        require(count <= static_cast<std::int32_t>(space));
    }

    modem::Modem modem_;
    std::int64_t nowMs_ = 0;
    std::vector<std::uint8_t> buffer_;
};

// Random bytes pass a call unchanged, whatever the pieces they come in.
void echo(std::span<const std::uint8_t> data) {
    modem::Line line;
    modem::AtInterpreter at(line, {});
    constexpr std::uint8_t dial[] = {'A', 'T', 'D', '1', '0', '0', '\r'};
    at.put(dial);
    at.tick(modem::Line::answerMs);
    std::uint8_t block[300];
    while (at.get(block) != 0) {
    }
    std::vector<std::uint8_t> back;
    for (std::size_t sent = 0; sent < data.size();) {
        sent += at.put(data.subspan(sent, std::min<std::size_t>(1 + data[sent], data.size() - sent)));
        const std::size_t count = at.get({block, 1 + data[sent - 1] % sizeof block});
        back.insert(back.end(), block, block + count);
    }
    while (const std::size_t count = at.get(block))
        back.insert(back.end(), block, block + count);
    require(std::equal(back.begin(), back.end(), data.begin(), data.end()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span input(data, size);
    Player player;
    fuzz::play(input, player);
    player.finish();
    echo(input);
    return 0;
}
