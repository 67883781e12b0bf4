// The converters of framing mode in a DEVICE made by hand, with the serial engine above and the send path below, over a
// device object that only catches transfers. No bus, no device: what a device sends is fed in as bytes.
#pragma once

#include "cdcacm/pnpadd.h"
#include "kernel/executive.h"
#include "tests/support/scripted_device.h"

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace test {

class ConverterRig {
public:
    struct Options {
        nt::Mode mode = nt::Mode::simulated;
        std::uint64_t seed = 1;
        bool verifier = true;
        ULONG receiveRing = 700, sendRing = 5000, packet = 4096;
    };

    ConverterRig() : ConverterRig(Options()) {}
    explicit ConverterRig(const Options& options) : executive_(boot(options, this)) {
        require(executive_.loadDriver("qvcdcacm", DriverEntry) == STATUS_SUCCESS);
        require(executive_.loadDriver("catcher", catcherEntry) == STATUS_SUCCESS);
        TraceSetMask(3);
        catcher_->Flags &= ~DO_DEVICE_INITIALIZING;
        current_ = this;
        DEVICE& d = dev();
        KeInitializeSpinLock(&d.Lock);
        IrpQueue_Init(&d.FlushIrpQueue);
        InitTimerObj(&d.FlushTimer, FlushTimerFnc, &d, 5000);
        d.Tag = DEVICE_TAG;
        d.StackSize = catcher_->StackSize;
        d.LowerDevObj = catcher_;
        d.UsbDeviceEnabled = d.TxEnabled = 1;
        d.DevicePowerState = 1;
        d.PppMode = FRAMING;
        d.MaxWriteChunk = options.packet;
        d.Port.Device = &d;
        auto* pipe = static_cast<USB_PIPE*>(MemAlloc(sizeof(USB_PIPE), 1));
        *pipe = {};
        pipe->HoldCount = 1;
        for (SNDRCV_PIPE* context : {&d.Rcv, &d.Int})
            require(InitRcvPipe(context, &d, RcvBulkIn, nullptr, 64, 1, 0) == STATUS_SUCCESS);
        require(InitSndPipe(&d.Snd, &d, SndOutComplete, pipe, options.packet, 1) == STATUS_SUCCESS);
        require(AddPort(&d.Port.SerPort, &d, options.receiveRing, options.sendRing, 10, &d.Port) == STATUS_SUCCESS);
        escape({});
        start();
        StartSnd(&d.Snd);
    }
    ~ConverterRig() {
        while (!pending.empty()) complete();
        ReleasePipe(dev().Snd.Pipe);
        for (SNDRCV_PIPE* context : {&dev().Rcv, &dev().Int}) DeleteRcvPipe(context);
        DeleteSndPipe(&dev().Snd);
        DeleteSerPort(dev().Port.SerPort);
        IoDeleteDevice(catcher_);
        for (const std::string& leak : executive_.stop().lines) {
            std::fprintf(stderr, "%s\n", leak.c_str());
            std::abort();
        }
    }
    ConverterRig(const ConverterRig&) = delete;
    ConverterRig& operator=(const ConverterRig&) = delete;

    DEVICE& dev() { return extension_->Device; }
    SER_PORT& port() { return *dev().Port.SerPort; }
    PPP_FRAMER& framer() { return dev().Framer; }
    PPP_DEFRAMER& deFramer() { return dev().DeFramer; }

    // Runs `body` with the device's Lock held.
    template <class Body>
    auto locked(Body&& body) {
        struct Hold {
            explicit Hold(DEVICE& d) : dev(d) { ACQUIRE(&dev, irql); }
            ~Hold() { RELEASE(&dev, irql); }
            DEVICE& dev;
            KIRQL irql;
        } const hold(dev());
        return body();
    }
    // Both converters as a switch into framing mode leaves them, the rings and the record of transfers empty.
    void start() {
        while (!pending.empty()) complete();
        locked([&] {
            PppFramerInit(&framer(), &dev());
            PppDeFramerInit(&deFramer(), &dev());
            CircBufReset(&port().CircSendBuf);
            CircBufReset(&port().CircRcvBuf);
            port().CharPending = 0;
        });
        transfers.clear();
        traced.clear();
    }
    void escape(const Bytes& special) {
        locked([&] { PppFramerSetSpecialChars(&framer(), special.data(), static_cast<ULONG>(special.size())); });
    }
    void receiveRing(ULONG size) {
        locked([&] {
            CircBufFree(&port().CircRcvBuf);
            require(CircBufInit(&port().CircRcvBuf, size));
        });
    }
    // Offers device bytes; how many were consumed.
    std::size_t offer(const std::uint8_t* data, std::size_t length) {
        return locked([&] { return PppFramerIndicateData(&framer(), const_cast<UCHAR*>(data), static_cast<ULONG>(length)); });
    }
    // Reads up to `most` bytes as a reader of the port would.
    std::size_t read(Bytes& host, std::size_t most) {
        const std::size_t before = host.size();
        host.resize(before + most);
        const auto take = [&] { return CircBufRead(&port().CircRcvBuf, host.data() + before, static_cast<ULONG>(most)); };
        host.resize(before + locked(take));
        return host.size() - before;
    }
    // Puts host bytes into the send ring; how many it took. They leave with the next send().
    std::size_t fill(const std::uint8_t* data, std::size_t length) {
        return locked([&] { return CircBufWrite(&port().CircSendBuf, data, static_cast<ULONG>(length)); });
    }
    void send() { SerPortSend(&port(), FALSE); }
    // The oldest transfer on the wire ends.
    void complete() {
        const PIRP irp = pending.front();
        pending.pop_front();
        urbOf(irp).Hdr.Status = USBD_STATUS_SUCCESS;
        irp->IoStatus.Status = STATUS_SUCCESS;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    // No byte of the host's is left above the wire but a frame that its flag has not ended.
    bool idle() {
        return pending.empty() && locked([&] {
            return port().CircSendBuf.Count == 0 && port().CharPending == 0 && deFramer().State != DEFRAMER_SEND;
        });
    }
    std::size_t count(const std::string& text) const {
        std::size_t times = 0;
        for (std::size_t at = traced.find(text); at != std::string::npos; at = traced.find(text, at + 1)) ++times;
        return times;
    }

    // A stream from the device, in pieces; what the host gets of it.
    struct FramerPace {
        std::size_t piece, reads;   // at most so many bytes are offered, and read
        bool byteByByte = false;
    };
    Bytes throughFramer(const Bytes& stream, const std::function<FramerPace()>& pace) {
        Bytes host;
        std::size_t at = 0;
        for (unsigned idle = 0; idle < 100 && (at < stream.size() || framer().State == FRAMER_DELIVER);) {
            const FramerPace now = pace();
            // Its own block: one byte read too far is seen.
            const std::size_t length = std::min(now.piece, stream.size() - at);
            const auto from = stream.begin() + static_cast<std::ptrdiff_t>(at);
            const Bytes piece(from, from + static_cast<std::ptrdiff_t>(length));
            std::size_t taken = 0;
            if (now.byteByByte) {
                const auto takes = [&] { return PppFramerIndicateChar(&framer(), piece[taken]) == 1; };
                while (taken < length && locked(takes)) ++taken;
            } else {
                taken = offer(piece.data(), length);
            }
            at += taken;
            if (at == stream.size() && framer().State == FRAMER_DELIVER) locked([&] { PppFramerDeliver(&framer()); });
            requireInBounds();
            const std::size_t got = read(host, now.reads);
            idle = taken == 0 && got == 0 ? idle + 1 : 0;
        }
        while (read(host, 4096) != 0) {}
        return host;
    }

    // A stream from the host; what goes over the wire. Transfers of whole packets and their empty packets are joined with
    // what follows.
    struct WirePace {
        std::size_t piece;      // host bytes that come at once
        bool send;              // the engine runs
        bool complete;          // the transfer on the wire ends
        bool refuse = false;    // the send path takes nothing meanwhile
    };
    Bytes throughDeFramer(const Bytes& stream, const std::function<WirePace()>& pace) {
        std::size_t at = 0;
        for (unsigned turns = 0; turns < 1000000; ++turns) {
            const WirePace now = pace();
            at += fill(stream.data() + at, std::min(now.piece, stream.size() - at));
            if (at == stream.size() && idle()) break;
            if (now.refuse) locked([&] { (turns % 2 ? dev().TxEnabled : dev().Snd.Started) = 0; });
            if (now.send) send();
            if (now.refuse) locked([&] { dev().TxEnabled = dev().Snd.Started = 1; });
            if (now.complete && !pending.empty()) complete();
        }
        Bytes wire;
        for (const Bytes& transfer : transfers) {
            require(transfer.size() <= dev().MaxWriteChunk);
            wire.insert(wire.end(), transfer.begin(), transfer.end());
        }
        return wire;
    }

    std::deque<PIRP> pending;
    std::vector<Bytes> transfers;   // what each one carried, kept while `keep`
    bool keep = true;
    std::string traced;

private:
    // No pointer has left its place, whatever came.
    void requireInBounds() {
        const PPP_FRAMER& f = framer();
        const bool header = f.State == FRAMER_HEADER;
        const UCHAR* const begin = header ? f.Header : f.OutBuf;
        const std::size_t size = header ? sizeof(f.Header) : sizeof(f.OutBuf);
        require(f.State <= FRAMER_DELIVER && f.Dev == &dev());
        if (f.State == FRAMER_HUNT || f.State == FRAMER_RESYNC) return;
        require(f.OutPtr >= begin);
        // All that is left escaped, and the FCS, and the flag.
        const std::size_t room = f.State == FRAMER_PAYLOAD ? 2 * (f.Remaining + 2) + 1 : f.Remaining;
        require(static_cast<std::size_t>(f.OutPtr - begin) + room <= size);
    }
    static void require(bool holds) {
        if (!holds) std::abort();
    }
    static nt::Options boot(const Options& options, ConverterRig* self) {
        nt::Options result;
        result.mode = options.mode;
        result.seed = options.seed;
        result.verifier = options.verifier;
        result.debugSink = [](void* rig, const char* text, std::size_t length) {
            static_cast<ConverterRig*>(rig)->traced.append(text, length);
        };
        result.debugContext = self;
        return result;
    }
    static _URB_BULK_OR_INTERRUPT_TRANSFER& urbOf(PIRP irp) {
        void* urb = IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1;
        return *static_cast<_URB_BULK_OR_INTERRUPT_TRANSFER*>(urb);
    }
    static NTSTATUS NTAPI caught(PDEVICE_OBJECT, PIRP irp) {
        if (current_->keep) {
            const auto& urb = urbOf(irp);
            const auto* data = static_cast<const std::uint8_t*>(urb.TransferBuffer);
            current_->transfers.emplace_back(data, data + urb.TransferBufferLength);
        }
        IoMarkIrpPending(irp);
        current_->pending.push_back(irp);
        return STATUS_PENDING;
    }
    static NTSTATUS NTAPI catcherEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = caught;
        return IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &catcher_);
    }

    static inline ConverterRig* current_ = nullptr;   // one at a time
    static inline PDEVICE_OBJECT catcher_ = nullptr;

    nt::Executive executive_;
    std::unique_ptr<DEVICE_EXTENSION> extension_ = std::make_unique<DEVICE_EXTENSION>();
};

}  // namespace test
