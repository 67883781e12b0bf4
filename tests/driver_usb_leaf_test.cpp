// Descriptor walks and the framing converters, without a device: what a device sends is fed in as
// bytes, what goes to it is caught below the send path.

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cdcacm/pnpadd.h"
#include "kernel/executive.h"
#include "tests/support/scripted_device.h"

namespace {

using test::Bytes;

constexpr std::uint64_t kSeed = 20260711;

// ---- Descriptor walks

TEST(DescriptorWalk, FindsAndEnds) {
    const Bytes whole = test::cdcConfiguration();
    const auto interfaceNumber = [](const Bytes& table, ULONG n) { return GetInterfaceNumber(table.data(), static_cast<ULONG>(table.size()), n); };
    const auto endpoint = [](const Bytes& table, UCHAR type, UCHAR direction) {
        return FindEndpointAddress(table.data(), static_cast<ULONG>(table.size()), type, direction);
    };
    EXPECT_EQ(interfaceNumber(whole, 0), 0);
    EXPECT_EQ(interfaceNumber(whole, 1), 1);
    EXPECT_EQ(interfaceNumber(whole, 2), 0xFF);
    EXPECT_EQ(endpoint(whole, 2, 0x80), 0x81);
    EXPECT_EQ(endpoint(whole, 2, 0), 0x01);
    EXPECT_EQ(endpoint(whole, 3, 0x80), 0x82);
    EXPECT_EQ(endpoint(whole, 3, 0), 0);

    const Bytes found = {9, 4, 7, 0, 0, 0, 0, 0, 0, 7, 5, 0x83, 2, 64, 0, 0};
    const struct {
        const char* what;
        Bytes before;  // in front of the descriptors to be found
        bool walkGoesOn;
    } cases[] = {
        {"nothing", {}, true},
        {"another type", {3, 0x24, 0}, true},
        {"an alternate setting counts", {2, 0x30}, true},
        {"length 0", {0, 4}, false},
        {"length 1", {1, 4}, false},
        {"runs past the end", {0xFF, 0x24}, false},
        {"an interface too short for its number", {2, 4}, false},
        {"a single byte", {9}, false},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        Bytes table = item.before;
        table.insert(table.end(), found.begin(), found.end());
        EXPECT_EQ(interfaceNumber(table, 0), item.walkGoesOn ? 7 : 0xFF);
        if (item.before != Bytes{2, 4}) {
            EXPECT_EQ(endpoint(table, 2, 0x80), item.walkGoesOn ? 0x83 : 0);
        }
    }
    EXPECT_EQ(endpoint({3, 5, 0x81, 7, 5, 0x81, 2, 64, 0, 0}, 2, 0x80), 0) << "an endpoint too short for its attributes";
    // Every cut of a good table, in a block of just its size: the address sanitizer watches the end.
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const std::unique_ptr<UCHAR[]> cut(new UCHAR[length]);
        std::copy_n(whole.begin(), length, cut.get());
        const UCHAR address = FindEndpointAddress(cut.get(), static_cast<ULONG>(length), 2, 0x80);
        EXPECT_TRUE(address == 0 || address == 0x81) << length;
        GetInterfaceNumber(cut.get(), static_cast<ULONG>(length), 1);
    }
}

// ---- FCS: bit by bit, as the polynomial is written

std::uint16_t bitwiseFcs(const Bytes& bytes) {
    std::uint16_t fcs = 0xFFFF;
    for (const std::uint8_t byte : bytes) {
        for (int bit = 0; bit < 8; ++bit) {
            const bool feedback = ((fcs ^ (byte >> bit)) & 1) != 0;
            fcs = static_cast<std::uint16_t>(fcs >> 1);
            if (feedback) fcs ^= 0x8408;
        }
    }
    return fcs;
}

Bytes randomBytes(std::mt19937_64& random, std::size_t length) {
    Bytes bytes(length);
    for (auto& byte : bytes) {
        const auto value = random();
        byte = (value & 7) == 0 ? "\x7d\x7e\xaa\xbb"[value >> 3 & 3] : static_cast<std::uint8_t>(value >> 8);
    }
    return bytes;
}

TEST(Fcs, AgreesBitByBitInAnyPieces) {
    std::mt19937_64 random(kSeed);
    for (int round = 0; round < 200; ++round) {
        Bytes bytes = randomBytes(random, random() % 600);
        USHORT fcs = 0xFFFF;
        for (std::size_t at = 0; at < bytes.size();) {
            const std::size_t piece = std::min<std::size_t>(1 + random() % 90, bytes.size() - at);
            fcs = CalcFcs16(fcs, bytes.data() + at, static_cast<ULONG>(piece));
            at += piece;
        }
        ASSERT_EQ(fcs, bitwiseFcs(bytes)) << "seed " << kSeed << " round " << round;
        bytes.push_back(static_cast<std::uint8_t>(~fcs));
        bytes.push_back(static_cast<std::uint8_t>(~fcs >> 8));
        ASSERT_EQ(CalcFcs16(0xFFFF, bytes.data(), static_cast<ULONG>(bytes.size())), 0xF0B8);
    }
}

// ---- The converters, in a DEVICE with its serial engine and send path over a driver that only catches

std::deque<PIRP> caughtIrps;
std::vector<Bytes> caughtTransfers;
PDEVICE_OBJECT catcher = nullptr;

NTSTATUS NTAPI catchRequest(PDEVICE_OBJECT, PIRP irp) {
    const auto* urb = static_cast<_URB_BULK_OR_INTERRUPT_TRANSFER*>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
    const auto* data = static_cast<const std::uint8_t*>(urb->TransferBuffer);
    caughtTransfers.emplace_back(data, data + urb->TransferBufferLength);
    IoMarkIrpPending(irp);
    caughtIrps.push_back(irp);
    return STATUS_PENDING;
}

NTSTATUS NTAPI catcherEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = catchRequest;
    return IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &catcher);
}

class Converters : public testing::Test {
protected:
    Converters() : executive_({.mode = nt::Mode::simulated, .seed = kSeed, .debugSink = sink, .debugContext = this}), random_(kSeed) {
        EXPECT_EQ(executive_.loadDriver("qvcdcacm", DriverEntry), STATUS_SUCCESS);
        EXPECT_EQ(executive_.loadDriver("catcher", catcherEntry), STATUS_SUCCESS);
        catcher->Flags &= ~DO_DEVICE_INITIALIZING;
        caughtTransfers.clear();
        KeInitializeSpinLock(&dev().Lock);
        IrpQueue_Init(&dev().FlushIrpQueue);
        InitTimerObj(&dev().FlushTimer, FlushTimerFnc, &dev(), 5000);
        dev().Tag = DEVICE_TAG;
        dev().StackSize = catcher->StackSize;
        dev().LowerDevObj = catcher;
        dev().UsbDeviceEnabled = dev().TxEnabled = 1;
        dev().DevicePowerState = 1;
        dev().PppMode = FRAMING;
        dev().Port.Device = &dev();
        auto* pipe = static_cast<USB_PIPE*>(MemAlloc(sizeof(USB_PIPE), 1));
        *pipe = {};
        pipe->HoldCount = 1;
        for (SNDRCV_PIPE* context : {&dev().Rcv, &dev().Int}) EXPECT_EQ(InitRcvPipe(context, &dev(), RcvBulkIn, nullptr, 64, 1, 0), STATUS_SUCCESS);
        EXPECT_EQ(InitSndPipe(&dev().Snd, &dev(), SndOutComplete, pipe, 4096, 1), STATUS_SUCCESS);
        EXPECT_EQ(AddPort(&dev().Port.SerPort, &dev(), 700, 5000, 10, &dev().Port), STATUS_SUCCESS);
        PppFramerSetSpecialChars(&dev().Framer, nullptr, 0);
        PppFramerInit(&dev().Framer, &dev());
        PppDeFramerInit(&dev().DeFramer, &dev());
        StartSnd(&dev().Snd);
    }
    ~Converters() override {
        EXPECT_TRUE(caughtIrps.empty());
        ReleasePipe(dev().Snd.Pipe);
        DeleteRcvPipe(&dev().Rcv);
        DeleteRcvPipe(&dev().Int);
        DeleteSndPipe(&dev().Snd);
        DeleteSerPort(dev().Port.SerPort);
        IoDeleteDevice(catcher);
        for (const auto& line : executive_.stop().lines) ADD_FAILURE() << line;
        if (!assertionsAllowed_) {
            EXPECT_EQ(traced_.find("ASSERTION"), std::string::npos) << traced_;
        }
    }
    DEVICE& dev() { return extension_->Device; }

    // Offers device bytes in random pieces to the framer; a reader empties the ring between. What the host got.
    Bytes throughFramer(const Bytes& stream) {
        Bytes host;
        KIRQL irql;
        std::size_t at = 0;
        do {
            ACQUIRE(&dev(), irql);
            Bytes piece(stream.begin() + at, stream.begin() + at + std::min<std::size_t>(random_() % 300, stream.size() - at));
            at += PppFramerIndicateData(&dev().Framer, piece.data(), static_cast<ULONG>(piece.size()));
            RELEASE(&dev(), irql);
            read(host, random_() % 900);
        } while (at < stream.size() || dev().Framer.State == FRAMER_DELIVER);
        read(host, 700);
        return host;
    }

    // Everything the host writes, in random pieces, and the transfers that arrive, joined where a short one ends.
    std::vector<Bytes> throughDeFramer(const Bytes& stream) {
        std::size_t at = 0;
        for (;;) {
            KIRQL irql;
            ACQUIRE(&dev(), irql);
            const ULONG piece = static_cast<ULONG>(std::min<std::size_t>(random_() % 900, stream.size() - at));
            at += CircBufWrite(&dev().Port.SerPort->CircSendBuf, stream.data() + at, piece);
            const bool idle = at == stream.size() && dev().Port.SerPort->CircSendBuf.Count == 0 && caughtIrps.empty();
            RELEASE(&dev(), irql);
            if (idle) break;
            if (random_() % 3 != 0) SerPortSend(dev().Port.SerPort, FALSE);
            if (!caughtIrps.empty() && random_() % 2) complete();
        }
        std::vector<Bytes> frames(1);
        for (const Bytes& transfer : caughtTransfers) {
            frames.back().insert(frames.back().end(), transfer.begin(), transfer.end());
            if (transfer.empty() || transfer.size() % 64 != 0) frames.emplace_back();
        }
        EXPECT_TRUE(frames.back().empty()) << "a transfer of whole packets without its empty packet";
        frames.pop_back();
        caughtTransfers.clear();
        return frames;
    }

    static void complete() {
        const PIRP irp = caughtIrps.front();
        caughtIrps.pop_front();
        auto* urb = static_cast<_URB_BULK_OR_INTERRUPT_TRANSFER*>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
        urb->Hdr.Status = USBD_STATUS_SUCCESS;
        irp->IoStatus.Status = STATUS_SUCCESS;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }

    void read(Bytes& host, std::size_t most) {
        Bytes piece(most);
        KIRQL irql;
        ACQUIRE(&dev(), irql);
        piece.resize(CircBufRead(&dev().Port.SerPort->CircRcvBuf, piece.data(), static_cast<ULONG>(most)));
        RELEASE(&dev(), irql);
        host.insert(host.end(), piece.begin(), piece.end());
    }

    static void sink(void* self, const char* text, std::size_t length) { static_cast<Converters*>(self)->traced_.append(text, length); }

    std::string traced_;
    nt::Executive executive_;
    std::unique_ptr<DEVICE_EXTENSION> extension_ = std::make_unique<DEVICE_EXTENSION>();
    std::mt19937_64 random_;
    bool assertionsAllowed_ = false;
};

Bytes deviceFrame(unsigned sequence, const Bytes& payload, int length = -1) {
    const unsigned word = (sequence & 31) << 11 | (length < 0 ? static_cast<unsigned>(payload.size()) + 4 : static_cast<unsigned>(length));
    Bytes frame = {0xAA, 0xBB, static_cast<std::uint8_t>(word >> 8), static_cast<std::uint8_t>(word)};
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

Bytes hostFrame(const Bytes& payload, const Bytes& special) {
    Bytes body = payload;
    const std::uint16_t fcs = static_cast<std::uint16_t>(~bitwiseFcs(payload));
    body.push_back(static_cast<std::uint8_t>(fcs));
    body.push_back(static_cast<std::uint8_t>(fcs >> 8));
    Bytes frame = {0x7E};
    for (const std::uint8_t byte : body) {
        const bool escaped = byte == 0x7D || byte == 0x7E || std::find(special.begin(), special.end(), byte) != special.end();
        if (escaped) frame.push_back(0x7D);
        frame.push_back(escaped ? byte ^ 0x20 : byte);
    }
    frame.push_back(0x7E);
    return frame;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST_F(Converters, FramerEncodesEveryFrameWhateverThePieces) {
    const Bytes special = {0x03, 0x11, 0x13, 0xFF};
    PppFramerSetSpecialChars(&dev().Framer, special.data(), static_cast<ULONG>(special.size()));
    Bytes stream, expected;
    for (unsigned sequence = 0; sequence < 80; ++sequence) {
        const Bytes payload = sequence == 40 ? Bytes(2043, 0x7E) : randomBytes(random_, 1 + random_() % (sequence % 8 == 0 ? 2043 : 200));
        stream = stream + deviceFrame(sequence, payload);
        expected = expected + hostFrame(payload, special);
    }
    EXPECT_EQ(throughFramer(stream), expected) << "seed " << kSeed;
}

TEST_F(Converters, FramerFindsItsWayBack) {
    const Bytes good = {0xFF, 0x03, 0xC0, 0x21}, junk = {1, 2, 3};
    const Bytes first = hostFrame(good, {});
    const struct {
        const char* what;
        Bytes stream;
        Bytes host;
        unsigned nextSequence;
    } cases[] = {
        {"the documented frame", deviceFrame(0, good), first, 1},
        {"junk in front", junk + deviceFrame(0, good), first, 1},
        {"wrong magic", Bytes{0xAA, 0xBC, 0, 8} + deviceFrame(0, good), first, 1},
        {"a wrong number is dropped and the next follows it", deviceFrame(1, good) + deviceFrame(2, good), first, 3},
        {"an empty frame", deviceFrame(0, {}) + deviceFrame(1, good), first, 2},
        {"shorter than its header", deviceFrame(0, {}, 3) + junk + deviceFrame(1, good), first, 2},
        {"length 0", deviceFrame(0, {}, 0) + deviceFrame(1, good), first, 2},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        PppFramerInit(&dev().Framer, &dev());
        EXPECT_EQ(throughFramer(item.stream), item.host);
        EXPECT_EQ(dev().Framer.ExpectedSeq & 31, item.nextSequence);
    }
    EXPECT_NE(traced_.find("invalid Sequence: got:1, exp:0"), std::string::npos);
}

TEST_F(Converters, DeFramerSendsEveryFrameWhateverThePieces) {
    for (const ULONG chunk : {64u, 200u, 4096u}) {
        dev().MaxWriteChunk = chunk;
        PppDeFramerInit(&dev().DeFramer, &dev());
        Bytes stream;
        std::vector<Bytes> expected;
        for (unsigned sequence = 0; sequence < 40; ++sequence) {
            static constexpr std::size_t edges[] = {1, 60, 124, 196, 2043};
            const Bytes body = randomBytes(random_, sequence % 4 == 0 ? edges[sequence / 4 % 5] : 1 + random_() % 400);
            for (const std::uint8_t byte : body) {
                const bool escaped = byte == 0x7D || byte == 0x7E || random_() % 16 == 0;
                if (escaped) stream.push_back(0x7D);
                stream.push_back(escaped ? byte ^ 0x20 : byte);
            }
            stream.insert(stream.end(), 1 + random_() % 2, 0x7E);
            expected.push_back(deviceFrame(sequence, body));
        }
        const std::vector<Bytes> frames = throughDeFramer(stream);
        if (chunk != 4096) {  // a frame is several transfers there: only the bytes can be compared
            Bytes sent, wanted;
            for (const Bytes& frame : frames) sent = sent + frame;
            for (const Bytes& frame : expected) wanted = wanted + frame;
            EXPECT_EQ(sent, wanted) << "seed " << kSeed << " chunk " << chunk;
        } else {
            EXPECT_EQ(frames, expected) << "seed " << kSeed;
        }
    }
}

TEST_F(Converters, DeFramerDiscardsWhatItCannotState) {
    dev().MaxWriteChunk = 4096;
    assertionsAllowed_ = true;  // the start after a frame of the very limit notes its bytes
    const Bytes flag = {0x7E}, one = {'A'}, two = {'B'};
    const auto run = [&](const Bytes& stream) {
        PppDeFramerInit(&dev().DeFramer, &dev());
        traced_.clear();
        return throughDeFramer(stream);
    };
    EXPECT_EQ(run(one + flag + Bytes(2044, 'x') + flag + two + flag), (std::vector<Bytes>{deviceFrame(0, one), deviceFrame(1, two)}));
    EXPECT_NE(traced_.find("PPP Frame to long, discard it"), std::string::npos);
    EXPECT_EQ(run(Bytes(4102, 'x') + Bytes(50, 'y') + flag + two + flag), (std::vector<Bytes>{deviceFrame(1, two)}));
    EXPECT_NE(traced_.find("PPP Frame to long, discard it"), std::string::npos);
    EXPECT_EQ(run(flag + flag + Bytes{0x7D, 0x5E} + flag + flag), (std::vector<Bytes>{deviceFrame(0, {0x7E})}));
}

}  // namespace
