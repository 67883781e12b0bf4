// The machine of one run: executive, bus, driver, one device, and everything that can happen to them.
//
// The device's place in the system, as the steps leave it:
//
//   started --queryStop--> stop pending --stop--> stopped --start--> started
//      |  <-cancelStop------------|
//      +--queryRemove--> remove pending --remove--> removed --start--> started
//      |  <-cancelRemove------|
//      +--unplug--> gone --replug--> started
//   over all of them: working --sleep--> asleep --wake--> working; D0 --powerDown--> low --powerUp--> D0
#pragma once

#include "tests/explorer/controls.h"
#include "tests/explorer/model.h"
#include "tests/explorer/plan.h"
#include "tests/support/scripted_device.h"
#include "tests/support/usbip_wire.h"

#include "kernel/executive.h"
#include "kernel/file.h"
#include "usb/host.h"
#include "usb/virtual_backend.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace explorer {

class World;

// A modem that keeps a record of every byte, and errs when told to. It fails only whole transfers: what it took or gave counts.
class WildDevice final : public test::ScriptedDevice {
public:
    explicit WildDevice(World& world);

    // Script: -----------------------------------------------------------------------------------------------------------
    bool holding = false;
    std::optional<std::uint32_t> packetsLeft;  // takes so many, then nothing
    unsigned stallsIn = 0, stallsOut = 0, stallsControl = 0, mutesControl = 0;
    void give(std::uint32_t length);
    // Nothing more to give.
    void forget();
    // Answers everything again.
    void behave();

    // Record: -----------------------------------------------------------------------------------------------------------
    std::vector<SentByte> given;
    std::vector<TakenByte> taken;
    bool takesAll() const { return !holding && !packetsLeft && stallsOut == 0; }

    std::int32_t dataOut(std::uint8_t endpoint, std::span<const std::uint8_t> data, bool ends) override;
    std::int32_t dataIn(std::uint8_t endpoint, std::span<std::uint8_t> space) override;
    usb::ControlReply control(const usb::SetupPacket& setup, std::span<std::uint8_t> data) override;
    std::optional<usb::ControlReply> standardControl(const usb::SetupPacket& setup, std::span<std::uint8_t> data) override;
    void busReset() override;

private:
    std::optional<usb::ControlReply> misbehave();
    void checkEmptyPacket(std::size_t length);
    std::size_t nextPiece(std::span<std::uint8_t> space);
    void makeFrame();

    World& world_;
    std::vector<std::uint32_t> pieces_;  // lengths still to give; oldest first
    std::uint32_t givenPlace_ = 0;       // in the stream of what is given
    bool frames_ = false;                // what it gives goes in device frames
    unsigned sequence_ = 0;              // of the next
    test::Bytes frame_;                  // still to give, before pieces_
    bool endGiven_ = false;              // an empty packet ends the last piece
    bool midTransfer_ = false;           // the host's transfer has been taken in part
    std::size_t outLength_ = 0;          // of the host's transfer so far
    bool emptyDue_ = false;              // the last transfer was of full packets
    std::size_t disturbances_ = 0;       // losses known then
    Moment lastOut_;
};

// Between the bus and the modem: knows which bytes a transfer to the device did not get there.
class Wire final : public usb::Backend {
public:
    Wire(std::shared_ptr<usb::Backend> inner, World& world);
    bool start(usb::BackendEvents& events) override { return inner_->start(events); }
    void stop() override { inner_->stop(); }
    void submit(usb::Transfer* transfer) override;
    void cancel(usb::Transfer* transfer) override { inner_->cancel(transfer); }
    bool resetPort() override;
    bool suspend(bool remoteWake) override;
    bool resume() override { return inner_->resume(); }
    usb::Speed speed() const override { return inner_->speed(); }
    std::string location() const override { return inner_->location(); }

private:
    struct Caller {
        usb::Transfer::Completion complete;
        void* context;
    };
    static void done(usb::Transfer* transfer);
    void outEnded(const usb::Transfer& transfer);
    void revived(usb::TransferStatus status);

    const std::shared_ptr<usb::Backend> inner_;
    World& world_;
    Losses& losses_;
    KSPIN_LOCK lock_;
    std::map<usb::Transfer*, Caller> callers_;  // of transfers under way; guarded by lock_
    unsigned failures_ = 0;                     // of transfers to the device, in a row
    std::optional<std::size_t> refusing_;       // the loss while its pipe is halted
};

class World {
public:
    World(const Plan& plan, Cells& cells);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Boots the machine and plugs the device in. The executive must not be destroyed before all files are closed.
    void boot();
    void take(const Step& step);
    // Ends every misfortune: the device behaves, is plugged in and started, the system works.
    void mend();
    // Unplugged and back, so that the driver starts over.
    void startOver();
    // Removes the device, unloads the driver, stops the machine; wrong when anything is left.
    void end();

    DeviceState state();
    void visit(std::uint32_t row) { cells_.visit(row, state()); }
    std::vector<std::string> names();  // the port's: COM name first

    void rest();
    void raiseLines();
    void suspends();  // the device, now
    // Says whether, of so many bytes given, readers have left more than the ring holds.
    std::function<bool(std::size_t given)> readerBehind;

    // In this kind of run bytes may travel in frames.
    bool framing() const { return framing_; }
    // Since when they may: the moment at which the device first asked.
    const std::optional<Moment>& framedSince() const { return framedSince_; }
    // Requests may fail for want of memory or of an answer, and what failed too often stays so until the next start.
    bool faulty() const { return faulty_; }
    // Nothing of the system stands between the driver and the device.
    bool rests() { return !moving_ && state() == DeviceState::running; }
    std::uint32_t raised() const { return raised_; }  // events that the device may have caused
    std::uint32_t chunk() const { return chunk_; }

    template <class Body>
    auto device(Body&& body) {
        WildDevice* const device = device_;
        return backend_->withDevice([&](usb::Device&) { return body(*device); });
    }
    // Of the device's thread or with it standing still.
    const WildDevice& record() const { return *device_; }

    const Plan& plan;
    Losses losses;
    std::vector<std::pair<Moment, Moment>> newDevices;  // settings may be the first ones again after these
    std::optional<std::size_t> closing;                 // the loss of a close that may be under way
    bool removals = false;                              // the device left, or was removed, at least once

private:
    void deviceStep(const Step& step);
    void lineStep(const Step& step);
    void plugStep(const Step& step);
    void powerStep(const Step& step);
    std::shared_ptr<usb::Backend> connect();
    void leave();
    void unplug();
    void cut(std::uint32_t bytes);
    void replug();
    void queryStop();
    void startDevice();
    void powerTo(DEVICE_POWER_STATE state);
    void powerUp();
    void wake();
    void heal();
    void malformed(std::uint32_t which);
    void error(const char* why);
    // Ends one of the losses below.
    void over(std::optional<std::size_t>& loss, std::int64_t graceMs);
    bool present() const { return place_ != DeviceState::gone && place_ != DeviceState::removed; }
    static void sink(void* context, const char* text, std::size_t length);

    Cells& cells_;
    std::unique_ptr<nt::Executive> executive_;
    std::unique_ptr<usb::Bus> bus_;
    std::shared_ptr<usb::VirtualBackend> backend_;
    std::unique_ptr<test::UsbipWire> wire_;  // null: the device is plugged in here
    WildDevice* device_ = nullptr;
    usb::PortNumber port_ = 0;
    std::string instance_;
    DeviceState place_ = DeviceState::running;
    bool asleep_ = false, low_ = false;
    bool moving_ = false;  // a step of the system is under way
    bool framing_ = false, faulty_ = false;
    std::optional<Moment> framedSince_;
    // The start of a stopped device drops its pipes; where it fails, a recovery that waited finds none before the device is told to go.
    bool startingAgain_ = false, pipeMissed_ = false;
    std::uint32_t raised_ = 0;
    std::uint32_t chunk_;
    std::int64_t momentMs_;  // what is ready has run by then
    std::optional<std::size_t> placeLoss_, powerLoss_, sleepLoss_, faultLoss_;
    Moment goneSince_;
};

// Lets so many scheduling points pass, or milliseconds.
void pause(const Step& step);
void sleepMs(std::int64_t ms);

}  // namespace explorer
