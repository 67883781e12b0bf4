#include "comport/capture.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace comport {

namespace {

constexpr mode_t ownerOnly = 0600;
constexpr int pollMs = 50;
constexpr std::chrono::milliseconds gatherTime{100};

// As the kernel's list of USB error codes has it.
std::int32_t errnoOf(usb::TransferStatus status) {
    switch (status) {
    case usb::TransferStatus::ok: return 0;
    case usb::TransferStatus::stalled: return -EPIPE;
    case usb::TransferStatus::cancelled: return -ECONNRESET;
    case usb::TransferStatus::gone: return -ESHUTDOWN;
    case usb::TransferStatus::overrun: return -EOVERFLOW;
    case usb::TransferStatus::failed: break;
    }
    return -EPROTO;
}

}  // namespace

std::string pppCapturePath(const std::string& path, unsigned device) {
    const std::string ending = ".pcap";
    const std::string stem = path.ends_with(ending) ? path.substr(0, path.size() - ending.size()) : path;
    return stem + "." + std::to_string(device) + ".ppp.pcap";
}

// ---- one file ----

int CaptureFile::create() {
    fd_ = UniqueFd(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, ownerOnly));
    if (!fd_.valid() || ::fcntl(fd_.get(), F_SETFL, O_NONBLOCK) != 0) {
        return errno;
    }
    return 0;
}

int CaptureFile::write(const std::atomic<bool>& hurry, int patienceMs) {
    int error = 0;
    if (!ended_) {
        error = fd_.valid() ? 0 : create();
        if (error == 0 && size_ == 0) {
            std::vector<std::uint8_t> head;
            appendPcapHead(head, type_);
            size_ = put(head, hurry, patienceMs, error) == head.size() ? head.size() : 0;
        }
        if (error == 0) {
            size_ += wholeRecords(writing_, put(writing_, hurry, patienceMs, error));
        }
    }
    writing_.clear();
    if (error != 0) {
        ended_ = true;
        if (fd_.valid() && ::ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0) {
            // A pipe: its reader has the broken record already.
        }
        fd_.reset();
    }
    return error;
}

// Returns how many bytes were written.
std::size_t CaptureFile::put(std::span<const std::uint8_t> bytes, const std::atomic<bool>& hurry, int patienceMs, int& error) {
    std::size_t written = 0;
    int waitedMs = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(fd_.get(), &bytes[written], bytes.size() - written);
        if (n > 0) {
            written += static_cast<std::size_t>(n);
            waitedMs = 0;
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            error = n == 0 ? ENOSPC : errno;
            break;
        } else if (errno == EAGAIN) {
            const int stepMs = std::min(pollMs, patienceMs);
            pollfd room{fd_.get(), POLLOUT, 0};
            const bool none = ::poll(&room, 1, stepMs) == 0;
            if (none && hurry && (waitedMs += stepMs) >= patienceMs) {
                error = ETIMEDOUT;
                break;
            }
        }
    }
    return written;
}

// ---- the data path ----

Capture::Capture(Options options) : options_(std::move(options)), transfers_(options_.path, LinkType::usbLinuxMmapped) {
    if (const int error = transfers_.create(); error != 0) {
        throw std::runtime_error("--capture " + options_.path + ": " + std::strerror(error) +
                                 "; give a file that can be written");
    }
    for (unsigned device = 0; device < deviceLimit; ++device) {
        ::unlink(pppCapturePath(options_.path, device).c_str());
    }
    transfers_.reserve(options_.queueBytes);
    write(transfers_);
    writer_ = std::thread([this] { run(); });
}

std::int64_t Capture::clockUs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

Capture::~Capture() {
    {
        std::lock_guard guard(lock_);
        stopping_ = true;
    }
    queued_.notify_one();
    writer_.join();
    if (lost_ != 0 && options_.tell) {
        options_.tell("--capture " + options_.path + ": " + std::to_string(lost_) +
                      " records are missing, they came faster than they could be written");
    }
}

void Capture::submitted(unsigned device, usb::Transfer& transfer) {
    std::lock_guard guard(lock_);
    transfer.tapTag = ++lastId_;
    if (!record(device, transfer, UsbRecord::Event::submitted, transfer.length)) {
        transfer.tapTag = 0;
    }
}

void Capture::completed(unsigned device, const usb::Transfer& transfer) {
    std::lock_guard guard(lock_);
    // What was not seen to leave is not seen to come back.
    if (transfer.tapTag != 0) {
        record(device, transfer, UsbRecord::Event::completed, std::min(transfer.actual, transfer.length));
    } else {
        lost_ += !transfers_.ended();
    }
    watchOf(device).completed(transfer);
}

bool Capture::record(unsigned device, const usb::Transfer& transfer, UsbRecord::Event event, std::uint32_t length) {
    const bool submitted = event == UsbRecord::Event::submitted;
    std::span<const std::uint8_t> data;
    if (submitted != transfer.isIn() && length != 0) {
        data = {transfer.data, length};
    }
    if (!admit(transfers_, pcapRecordHead + usbmonHead + data.size())) {
        return false;
    }
    UsbRecord record;
    record.id = transfer.tapTag;
    record.timeUs = options_.nowUs();
    record.event = event;
    record.type = transfer.type;
    record.in = transfer.isIn();
    record.endpoint = transfer.endpoint;
    record.device = static_cast<std::uint8_t>(device);
    record.status = submitted ? -EINPROGRESS : errnoOf(transfer.status);
    record.length = length;
    record.setup = transfer.setup;
    appendUsbRecord(transfers_.queue, record, data);
    return true;
}

bool Capture::admit(const CaptureFile& file, std::size_t bytes) {
    if (file.ended()) {
        return false;
    }
    if (queuedBytes_ + bytes > options_.queueBytes) {
        ++lost_;
        return false;
    }
    const std::size_t enough = options_.queueBytes / 2;
    const bool due = queuedBytes_ == 0 || (queuedBytes_ < enough && queuedBytes_ + bytes >= enough);
    queuedBytes_ += bytes;
    if (due) {
        queued_.notify_one();
    }
    return true;
}

FramingWatch& Capture::watchOf(unsigned device) {
    std::unique_ptr<Calls>& calls = calls_[device % deviceLimit];
    if (!calls) {
        calls = std::make_unique<Calls>(*this, pppCapturePath(options_.path, device));
    }
    return calls->watch;
}

void Capture::frame(CaptureFile& file, bool sent, std::span<const std::uint8_t> bytes) {
    if (admit(file, pcapRecordHead + 1 + bytes.size())) {
        appendPppRecord(file.queue, options_.nowUs(), sent, bytes);
    }
}

// ---- the writer ----

void Capture::run() {
    std::unique_lock guard(lock_);
    for (;;) {
        queued_.wait(guard, [this] { return queuedBytes_ != 0 || stopping_; });
        if (queuedBytes_ == 0) {
            return;
        }
        queued_.wait_for(guard, gatherTime, [this] { return queuedBytes_ >= options_.queueBytes / 2 || stopping_; });
        std::vector<CaptureFile*> files{&transfers_};
        for (const std::unique_ptr<Calls>& calls : calls_) {
            if (calls && !calls->file.queue.empty()) {
                files.push_back(&calls->file);
            }
        }
        for (CaptureFile* file : files) {
            file->swap();
        }
        queuedBytes_ = 0;
        guard.unlock();
        for (CaptureFile* file : files) {
            write(*file);
        }
        guard.lock();
    }
}

void Capture::write(CaptureFile& file) {
    const int error = file.write(stopping_, options_.patienceMs);
    if (error != 0 && options_.tell) {
        options_.tell("--capture " + file.path() + ": " + std::strerror(error) +
                      "; the capture ends here, the port goes on");
    }
}

}  // namespace comport
