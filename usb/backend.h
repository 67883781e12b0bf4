// What moves the bytes of one USB device: the bus driver above, a virtual device, a USB/IP
// connection or libusb below.
//
// Life of a transfer:
//
//   submitter owns --submit()--> backend owns --complete()--> submitter owns
//                                    |  cancel() only hurries it
//
// The backend completes every transfer that submit() accepted exactly once, never inside submit() or
// cancel(), and always from a thread of its own that runs kernel code.
#pragma once

#include <cstdint>
#include <string>

namespace usb {

enum class TransferType : std::uint8_t { control, bulk, interrupt };

enum class TransferStatus : std::uint8_t {
    ok,
    stalled,    // the endpoint answered STALL; a bulk or interrupt endpoint stays halted until cleared
    cancelled,  // ended by cancel(); `actual` counts what had moved
    gone,       // the device left
    failed,     // the bytes could not be moved (bus error, connection lost)
    overrun,    // the device sent more than was asked for
};

enum class Speed : std::uint8_t { full, high };

// The eight bytes of a SETUP packet, in host byte order.
struct SetupPacket {
    std::uint8_t requestType = 0;
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;

    bool isIn() const { return (requestType & 0x80) != 0; }
};

struct Transfer {
    using Completion = void (*)(Transfer* transfer);

    // Set by the submitter, untouched by the backend.
    std::uint8_t endpoint = 0;  // address with the direction bit; 0 for control
    TransferType type = TransferType::bulk;
    SetupPacket setup;            // control only; setup.length == length
    std::uint8_t* data = nullptr;
    std::uint32_t length = 0;     // IN: at most one packet, or a multiple of the packet size
    Completion complete = nullptr;
    void* context = nullptr;

    // Set by the backend before it completes the transfer.
    std::uint32_t actual = 0;
    TransferStatus status = TransferStatus::ok;

    // A listener's own, from submission to completion (tap.h).
    std::uint64_t tapTag = 0;

    // The backend's own while it owns the transfer.
    Transfer* next = nullptr;
    Transfer* previous = nullptr;
    void* backendData = nullptr;
    std::uint64_t backendTag = 0;
    bool cancelRequested = false;

    bool isIn() const { return type == TransferType::control ? setup.isIn() : (endpoint & 0x80) != 0; }
};

// Transfers in their order, linked through the backend's own fields; its lock guards them.
struct TransferQueue {
    Transfer* head = nullptr;
    Transfer* tail = nullptr;

    void push(Transfer* transfer) {
        transfer->next = nullptr;
        transfer->previous = tail;
        (tail != nullptr ? tail->next : head) = transfer;
        tail = transfer;
    }
    void remove(Transfer* transfer) {
        (transfer->previous != nullptr ? transfer->previous->next : head) = transfer->next;
        (transfer->next != nullptr ? transfer->next->previous : tail) = transfer->previous;
        transfer->next = transfer->previous = nullptr;
    }
    // The oldest one, which leaves the queue; null when there is none.
    Transfer* take() {
        Transfer* const first = head;
        if (first != nullptr) remove(first);
        return first;
    }
};

// Events upwards. Called from a thread of the backend at PASSIVE_LEVEL, no lock of the backend held.
class BackendEvents {
public:
    // The device left for good. Called once; no new transfer is accepted from then on, and every
    // pending one is completed with `gone`, before or after this call.
    virtual void gone() = 0;
    // A suspended device asks to be resumed.
    virtual void remoteWake() = 0;

protected:
    ~BackendEvents() = default;
};

class Backend {
public:
    virtual ~Backend() = default;

    // PASSIVE_LEVEL. Starts the backend's thread and makes transfers possible. False: the device cannot be reached.
    virtual bool start(BackendEvents& events) = 0;
    // PASSIVE_LEVEL. Completes what is pending with `gone` and joins the thread; no completion and no
    // event comes after it returned. Nothing is submitted once it was called. Legal when start() failed or never
    // ran, and while one of the blocking calls below is under way, which it ends. start() may follow again.
    virtual void stop() = 0;

    // <= DISPATCH_LEVEL, any thread, locks of the caller's may be held. Never blocks. Transfers of one endpoint are carried out
    // in the order of submission. A device that is gone still takes the transfer and completes it with `gone`.
    virtual void submit(Transfer* transfer) = 0;
    // <= DISPATCH_LEVEL. The transfer must be pending or completing: the caller keeps the record
    // alive until this call returned. It completes as cancelled, or as it would have if that was earlier.
    virtual void cancel(Transfer* transfer) = 0;

    // PASSIVE_LEVEL, may block. Resets the device and brings it back to the configuration it had.
    // Nothing is pending when it is called. False: the device did not come back.
    virtual bool resetPort() = 0;
    // PASSIVE_LEVEL, may block. While suspended the device moves no data; with `remoteWake` it may ask to be resumed.
    virtual bool suspend(bool remoteWake) = 0;
    virtual bool resume() = 0;

    virtual Speed speed() const = 0;
    // Names the place or the device such that the same device gets the same text when it comes back
    // (bus id, serial number). Stable for the life of the backend.
    virtual std::string location() const = 0;
};

// Requests that a backend may carry out by other means than the wire, as it sees them in submit():
// SET_CONFIGURATION, SET_INTERFACE and CLEAR_FEATURE(ENDPOINT_HALT) arrive as control transfers.
inline constexpr std::uint8_t requestGetStatus = 0x00;
inline constexpr std::uint8_t requestClearFeature = 0x01;
inline constexpr std::uint8_t requestSetFeature = 0x03;
inline constexpr std::uint8_t requestGetDescriptor = 0x06;
inline constexpr std::uint8_t requestGetConfiguration = 0x08;
inline constexpr std::uint8_t requestSetConfiguration = 0x09;
inline constexpr std::uint8_t requestGetInterface = 0x0A;
inline constexpr std::uint8_t requestSetInterface = 0x0B;

}  // namespace usb
