// A capture of everything that passes on the bus, and of the PPP frames of framed calls, written while it happens.
//
//   transfers --data path: encoded into a bounded buffer--> --writer thread, some times a second--> files
//
//   file: written --no space, or another error--> cut back to whole records and left alone, told once
//
// FILE gets the transfers as a host's usbmon shows them, with the port as the device number. The PPP frames of device N go to
// FILE with ".N.ppp.pcap" for its ".pcap", made with the first frame. What does not fit into the buffer is left out and counted.
// The files can be read by their owner alone: there are passwords in them.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "comport/framing_watch.h"
#include "comport/pcap.h"
#include "comport/unique_fd.h"
#include "usb/tap.h"

namespace comport {

// One file of a capture. Any thread, one at a time, but for what is said otherwise.
class CaptureFile {
public:
    CaptureFile(std::string path, LinkType type) : path_(std::move(path)), type_(type) {}

    const std::string& path() const { return path_; }
    // Makes it, or empties it. An errno, or 0. Waits for the reader of a pipe.
    int create();
    // Writes what swap() left, after create() if need be. An errno, once; nothing is written from then on. The reader of a pipe
    // that takes nothing is waited for; once `hurry` is set, `patienceMs` at most.
    int write(const std::atomic<bool>& hurry, int patienceMs);
    bool ended() const { return ended_; }

    // The records to come; whoever fills it and whoever calls swap() hold the capture's lock.
    std::vector<std::uint8_t> queue;
    void swap() { std::swap(queue, writing_); }
    void reserve(std::size_t bytes) {
        queue.reserve(bytes);
        writing_.reserve(bytes);
    }

private:
    std::size_t put(std::span<const std::uint8_t> bytes, const std::atomic<bool>& hurry, int patienceMs, int& error);

    const std::string path_;
    const LinkType type_;
    UniqueFd fd_;
    std::vector<std::uint8_t> writing_;
    std::uint64_t size_ = 0;  // its head and whole records
    std::atomic<bool> ended_ = false;
};

class Capture final : public usb::Tap {
public:
    static std::int64_t clockUs();

    struct Options {
        std::string path;
        std::size_t queueBytes = 8u << 20;
        int patienceMs = 1000;  // with the reader of a pipe, at the end
        std::function<void(const std::string& sentence)> tell;  // the writer's thread and the destructor's
        std::int64_t (*nowUs)() = clockUs;                      // since 1970
    };

    // Makes the file and starts the writer. Throws std::runtime_error with a sentence. PPP files of an earlier capture under
    // this name are removed.
    explicit Capture(Options options);
    // Writes the rest. No transfer may be under way.
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    void submitted(unsigned device, usb::Transfer& transfer) override;
    void completed(unsigned device, const usb::Transfer& transfer) override;

private:
    static constexpr unsigned deviceLimit = 128;

    // One device's PPP frames.
    struct Calls {
        Calls(Capture& capture, const std::string& path)
            : file(path, LinkType::pppWithDirection),
              watch([&capture, this](bool sent, std::span<const std::uint8_t> bytes) { capture.frame(file, sent, bytes); }) {}
        CaptureFile file;
        FramingWatch watch;
    };

    // lock_ held.
    FramingWatch& watchOf(unsigned device);
    void frame(CaptureFile& file, bool sent, std::span<const std::uint8_t> bytes);
    bool record(unsigned device, const usb::Transfer& transfer, UsbRecord::Event event, std::uint32_t length);
    // Room for a record of so many bytes in a queue; false: none, or its file has ended.
    bool admit(const CaptureFile& file, std::size_t bytes);

    void run();
    void write(CaptureFile& file);

    const Options options_;
    CaptureFile transfers_;
    std::atomic<bool> stopping_ = false;
    std::condition_variable queued_;
    std::thread writer_;

    // Everything below, and the files' queues: guarded by lock_, which nobody holds while he waits.
    std::mutex lock_;
    std::size_t queuedBytes_ = 0;
    std::uint64_t lastId_ = 0;
    std::uint64_t lost_ = 0;
    std::array<std::unique_ptr<Calls>, deviceLimit> calls_;
};

// FILE's companion for the PPP frames of a device.
std::string pppCapturePath(const std::string& path, unsigned device);

}  // namespace comport
