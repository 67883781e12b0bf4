#include "usb/libusb_backend.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <utility>

namespace usb {

namespace {

constexpr std::uint16_t featureEndpointHalt = 0;

// Requests that change what the kernel believes of the device, so it must be asked for them.
bool isForKernel(const Transfer& transfer) {
    if (transfer.type != TransferType::control) return false;
    const SetupPacket& setup = transfer.setup;
    switch (setup.requestType) {
    case 0x00:
        return setup.request == requestSetConfiguration;
    case 0x01:
        return setup.request == requestSetInterface;
    case 0x02:
        return setup.request == requestClearFeature && setup.value == featureEndpointHalt && (setup.index & 0x0F) != 0;
    default:
        return false;
    }
}

TransferStatus statusOf(libusb_transfer_status status) {
    switch (status) {
    case LIBUSB_TRANSFER_COMPLETED:
        return TransferStatus::ok;
    case LIBUSB_TRANSFER_STALL:
        return TransferStatus::stalled;
    case LIBUSB_TRANSFER_CANCELLED:
        return TransferStatus::cancelled;
    case LIBUSB_TRANSFER_NO_DEVICE:
        return TransferStatus::gone;
    case LIBUSB_TRANSFER_OVERFLOW:
        return TransferStatus::overrun;
    case LIBUSB_TRANSFER_ERROR:
    case LIBUSB_TRANSFER_TIMED_OUT:
        break;
    }
    return TransferStatus::failed;
}

// Of a call that was refused. A configuration, interface or endpoint that there is not is what a device answers with a stall.
TransferStatus statusOfError(int error) {
    switch (error) {
    case 0:
        return TransferStatus::ok;
    case LIBUSB_ERROR_PIPE:
    case LIBUSB_ERROR_NOT_FOUND:
        return TransferStatus::stalled;
    case LIBUSB_ERROR_NO_DEVICE:
        return TransferStatus::gone;
    default:
        return TransferStatus::failed;
    }
}

}  // namespace

struct LibusbBackend::Record {
    explicit Record(LibusbBackend& owner) : backend(owner), request(libusb_alloc_transfer(0)) {}
    ~Record() { libusb_free_transfer(request); }

    LibusbBackend& backend;
    libusb_transfer* const request;
    std::vector<std::uint8_t> control;  // SETUP and data
    // Guarded by the backend's lock.
    Transfer* transfer = nullptr;
    bool handing = false;  // not yet back from the call that submits it
    bool ended = false;    // and over already
};

struct LibusbBackend::Callbacks {
    static void LIBUSB_CALL ended(libusb_transfer* request) {
        auto& record = *static_cast<Record*>(request->user_data);
        record.backend.ended(record);
    }
    static int LIBUSB_CALL left(libusb_context*, libusb_device* device, libusb_hotplug_event, void* data) {
        auto& self = *static_cast<LibusbBackend*>(data);
        SpinGuard guard(self.lock_);
        if (device == self.device_.get()) self.endAll(Life::gone, "it was unplugged");
        return 0;
    }
};

LibusbBackend::LibusbBackend(lib::Selector selector) : seat_(std::move(selector)) {
    KeInitializeDpc(&flushDpc_, flushLater, this);
    KeInitializeEvent(&notHolding_, NotificationEvent, TRUE);
    KeInitializeSpinLock(&lock_);
    work_.context = this;
    work_.routine = [](void* context) { static_cast<LibusbBackend*>(context)->carryOut(); };
}

LibusbBackend::~LibusbBackend() {
    arrivals_.reset();
    stop();
}

std::string LibusbBackend::error() const {
    SpinGuard guard(lock_);
    return error_;
}

void LibusbBackend::watch(std::function<void()> lost, std::function<void()> back) {
    lost_ = std::move(lost);
    arrivals_.reset();
    if (!back) return;
    arrivals_ = std::make_unique<lib::Arrivals>([this, back = std::move(back)] {
        if (!runs_) back();
    });
}

bool LibusbBackend::fail(const std::string& why) {
    SpinGuard guard(lock_);
    error_ = why;
    return false;
}

// Start and stop. -----------------------------------------------------------------------------------------------------------

bool LibusbBackend::find() {
    try {
        const lib::Context context = lib::makeContext();
        seat_.choose(context.get());
        return true;
    } catch (const lib::Error& error) {
        return fail(error.what());
    }
}

std::string LibusbBackend::instanceId() const {
    std::string id = seat_.key();
    if (id.empty()) return id;
    for (char& c : id) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (!plain && c != '-' && c != '.') c = '_';
    }
    return "libusb&" + id;
}

bool LibusbBackend::start(BackendEvents& events) {
    if (thread_.joinable()) return false;
    try {
        open();
    } catch (const lib::Error& error) {
        giveBack();
        return fail(error.what());
    }
    events_ = &events;
    goneReported_ = false;
    {
        SpinGuard guard(lock_);
        error_.clear();
        life_ = Life::running;
        runs_ = true;
        telling_ = cancels_ = false;
    }
    thread_.start("libusb", [this] { run(); });
    return true;
}

void LibusbBackend::stop() {
    if (!thread_.joinable()) return;
    {
        SpinGuard guard(lock_);
        endAll(Life::ending, "the port was closed");
        tell();
    }
    thread_.join();
    KeFlushQueuedDpcs();
    {
        SpinGuard guard(lock_);
        life_ = Life::stopped;
        free_.clear();
        records_.clear();
    }
    giveBack();
}

// The device and everything on it.
void LibusbBackend::open() {
    kernelDriver_ = false;
    firstConfiguration_ = 0;
    context_ = lib::makeContext();
    // Before the device is looked for, so that its leaving is not missed.
    libusb_hotplug_register_callback(context_.get(), LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, LIBUSB_HOTPLUG_NO_FLAGS,
                                     LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY,
                                     Callbacks::left, this, nullptr);
    auto [device, info] = seat_.choose(context_.get());
    device_ = std::move(device);
    handle_ = lib::open(device_.get(), info);
    speed_ = libusb_get_device_speed(device_.get()) >= LIBUSB_SPEED_HIGH ? Speed::high : Speed::full;
    libusb_get_configuration(handle_.get(), &firstConfiguration_);
    takeInterfaces();
}

// All interfaces of the configuration: with one in other hands the kernel would not let it be set.
void LibusbBackend::takeInterfaces() {
    libusb_config_descriptor* configuration = nullptr;
    if (libusb_get_active_config_descriptor(device_.get(), &configuration) != 0) return;
    std::vector<int> wanted;
    for (int i = 0; i < configuration->bNumInterfaces; ++i) {
        if (configuration->interface[i].num_altsetting > 0) {
            wanted.push_back(configuration->interface[i].altsetting[0].bInterfaceNumber);
        }
    }
    libusb_free_config_descriptor(configuration);
    for (const int number : wanted) {
        if (libusb_detach_kernel_driver(handle_.get(), number) == 0) kernelDriver_ = true;
        const int error = libusb_claim_interface(handle_.get(), number);
        if (error == LIBUSB_ERROR_BUSY) throw lib::Error("it is in use by another program");
        if (error != 0) throw lib::Error(std::string("it cannot be taken: ") + libusb_strerror(error));
        interfaces_.push_back(number);
    }
}

void LibusbBackend::releaseInterfaces() {
    for (const int number : interfaces_) libusb_release_interface(handle_.get(), number);
    interfaces_.clear();
}

// As it was found, as far as it is still there.
void LibusbBackend::giveBack() {
    if (handle_ != nullptr) {
        const std::vector<int> taken = interfaces_;
        releaseInterfaces();
        int now = firstConfiguration_;
        libusb_get_configuration(handle_.get(), &now);
        if (now != firstConfiguration_) {
            // The kernel looks for drivers itself then.
            libusb_set_configuration(handle_.get(), firstConfiguration_ != 0 ? firstConfiguration_ : -1);
        } else if (kernelDriver_) {
            for (const int number : taken) libusb_attach_kernel_driver(handle_.get(), number);
        }
    }
    handle_.reset();
    device_.reset();
    context_.reset();
}

// Transfers. ------------------------------------------------------------------------------------------------------------------

void LibusbBackend::submit(Transfer* transfer) {
    transfer->actual = 0;
    transfer->status = TransferStatus::ok;
    transfer->cancelRequested = false;
    SpinGuard guard(lock_);
    if (life_ != Life::running) {
        finish(transfer, TransferStatus::gone);
        tell();
        return;
    }
    transfer->backendTag = static_cast<std::uint64_t>(Place::waiting);
    waiting_.push(transfer);
    KeInsertQueueDpc(&flushDpc_, nullptr, nullptr);
}

void LibusbBackend::cancel(Transfer* transfer) {
    SpinGuard guard(lock_);
    switch (static_cast<Place>(transfer->backendTag)) {
    case Place::nowhere:
        return;
    case Place::waiting:
        waiting_.remove(transfer);
        finish(transfer, TransferStatus::cancelled);
        break;
    case Place::blocking:
        // The call goes on; nothing of the transfer is in it.
        blocking_ = nullptr;
        finish(transfer, TransferStatus::cancelled);
        break;
    case Place::library:
        transfer->cancelRequested = cancels_ = true;
    }
    tell();
}

void LibusbBackend::finish(Transfer* transfer, TransferStatus status) {
    const bool over = life_ != Life::running && status != TransferStatus::ok;
    transfer->status = over ? TransferStatus::gone : status;
    transfer->backendTag = static_cast<std::uint64_t>(Place::nowhere);
    finished_.push(transfer);
}

// Nothing goes to the device any more, and what is there comes back.
void LibusbBackend::endAll(Life life, const std::string& why) {
    if (life_ == Life::running) error_ = why;
    life_ = life;
    runs_ = false;
    while (Transfer* const transfer = waiting_.take()) finish(transfer, TransferStatus::gone);
    if (blocking_ != nullptr) finish(blocking_, TransferStatus::gone);
    blocking_ = nullptr;
    for (const auto& record : records_) {
        if (record->transfer != nullptr) record->transfer->cancelRequested = cancels_ = true;
    }
}

// The DPC wakes the thread: whoever ends the last transfer lets stop() go on, which then waits for it.
void LibusbBackend::tell() {
    telling_ = true;
    KeInsertQueueDpc(&flushDpc_, nullptr, nullptr);
}

void LibusbBackend::flushLater(PKDPC, PVOID context, PVOID, PVOID) {
    auto& self = *static_cast<LibusbBackend*>(context);
    self.flush();
    bool telling;
    {
        SpinGuard guard(self.lock_);
        telling = std::exchange(self.telling_, false);
    }
    if (telling) libusb_interrupt_event_handler(self.context_.get());
}

// One hands over at a time, so the order stays; who comes meanwhile leaves its transfers to it.
void LibusbBackend::flush() {
    {
        SpinGuard guard(lock_);
        if (flushing_) return;
        flushing_ = true;
    }
    while (Record* const record = nextToSend()) handedOver(*record, libusb_submit_transfer(record->request));
}

// Null: there is none now, and nobody hands over any more.
LibusbBackend::Record* LibusbBackend::nextToSend() {
    SpinGuard guard(lock_);
    Transfer* const transfer = waiting_.head;
    if (transfer == nullptr || holding_) {
        flushing_ = false;
        return nullptr;
    }
    waiting_.remove(transfer);
    if (isForKernel(*transfer)) {
        transfer->backendTag = static_cast<std::uint64_t>(Place::blocking);
        blocking_ = transfer;
        blockingSetup_ = transfer->setup;
        holding_ = true;
        KeClearEvent(&notHolding_);
        flushing_ = false;
        nt::queueWork(work_);
        return nullptr;
    }
    transfer->backendTag = static_cast<std::uint64_t>(Place::library);
    Record& record = *takeRecord();
    record.transfer = transfer;
    record.handing = true;
    record.ended = false;
    ++atLibrary_;
    libusb_transfer& request = *record.request;
    const auto length = static_cast<int>(transfer->length);
    if (transfer->type == TransferType::control) {
        const SetupPacket& setup = transfer->setup;
        record.control.resize(LIBUSB_CONTROL_SETUP_SIZE + transfer->length);
        libusb_fill_control_setup(record.control.data(), setup.requestType, setup.request, setup.value, setup.index,
                                  setup.length);
        if (!setup.isIn()) std::copy_n(transfer->data, transfer->length, record.control.data() + LIBUSB_CONTROL_SETUP_SIZE);
        libusb_fill_control_transfer(&request, handle_.get(), record.control.data(), Callbacks::ended, &record, 0);
    } else {
        libusb_fill_bulk_transfer(&request, handle_.get(), transfer->endpoint, transfer->data, length, Callbacks::ended, &record,
                                  0);
        if (transfer->type == TransferType::interrupt) request.type = LIBUSB_TRANSFER_TYPE_INTERRUPT;
    }
    return &record;
}

LibusbBackend::Record* LibusbBackend::takeRecord() {
    if (free_.empty()) {
        records_.push_back(std::make_unique<Record>(*this));
        return records_.back().get();
    }
    Record* const record = free_.back();
    free_.pop_back();
    return record;
}

// Its callback may have come already, on the thread.
void LibusbBackend::handedOver(Record& record, int error) {
    SpinGuard guard(lock_);
    record.handing = false;
    if (error != 0) {
        record.request->status = error == LIBUSB_ERROR_NO_DEVICE ? LIBUSB_TRANSFER_NO_DEVICE : LIBUSB_TRANSFER_ERROR;
        record.request->actual_length = 0;
    }
    if (error != 0 || record.ended) {
        finishRecord(record);
        tell();
    } else if (record.transfer->cancelRequested) {
        cancels_ = true;
        tell();
    }
}

// On the thread, which delivers afterwards.
void LibusbBackend::ended(Record& record) {
    SpinGuard guard(lock_);
    record.ended = true;
    if (!record.handing) finishRecord(record);
}

void LibusbBackend::finishRecord(Record& record) {
    Transfer* const transfer = std::exchange(record.transfer, nullptr);
    const libusb_transfer& request = *record.request;
    const TransferStatus status = statusOf(request.status);
    transfer->actual = std::min(static_cast<std::uint32_t>(request.actual_length), transfer->length);
    if (transfer->type == TransferType::control && transfer->setup.isIn()) {
        std::copy_n(record.control.data() + LIBUSB_CONTROL_SETUP_SIZE, transfer->actual, transfer->data);
    }
    --atLibrary_;
    free_.push_back(&record);
    finish(transfer, status);
    if (status == TransferStatus::gone && life_ == Life::running) endAll(Life::gone, "it was unplugged");
}

// Blocking calls. -------------------------------------------------------------------------------------------------------------

// On a worker. Until it is over, nothing else is handed over.
void LibusbBackend::carryOut() {
    const int error = blockingCall(blockingSetup_);
    {
        SpinGuard guard(lock_);
        if (Transfer* const transfer = std::exchange(blocking_, nullptr)) finish(transfer, statusOfError(error));
        if (error == LIBUSB_ERROR_NO_DEVICE && life_ == Life::running) endAll(Life::gone, "it was unplugged");
    }
    endHold();
}

void LibusbBackend::endHold() {
    SpinGuard guard(lock_);
    holding_ = false;
    KeSetEvent(&notHolding_, 0, FALSE);
    tell();
}

int LibusbBackend::blockingCall(const SetupPacket& setup) {
    switch (setup.request) {
    case requestSetConfiguration:
        return configure(setup.value & 0xFF);
    case requestSetInterface:
        return libusb_set_interface_alt_setting(handle_.get(), setup.index & 0xFF, setup.value & 0xFF);
    default:
        return libusb_clear_halt(handle_.get(), static_cast<unsigned char>(setup.index));
    }
}

// The kernel sets no configuration while an interface is claimed, by ourselves too.
int LibusbBackend::configure(int value) {
    releaseInterfaces();
    int error = libusb_set_configuration(handle_.get(), value != 0 ? value : -1);
    try {
        takeInterfaces();
    } catch (const lib::Error&) {
        if (error == 0) error = LIBUSB_ERROR_BUSY;
    }
    return error;
}

bool LibusbBackend::resetPort() {
    for (bool held = false; !held;) {
        KeWaitForSingleObject(&notHolding_, Executive, KernelMode, FALSE, nullptr);
        SpinGuard guard(lock_);
        if (life_ != Life::running) return false;
        if (holding_) continue;
        held = holding_ = true;
        KeClearEvent(&notHolding_);
    }
    const int error = libusb_reset_device(handle_.get());
    if (error != 0) {
        SpinGuard guard(lock_);
        if (life_ == Life::running) endAll(Life::gone, "it did not come back from a reset");
    }
    endHold();
    return error == 0;
}

// The thread. -----------------------------------------------------------------------------------------------------------------

void LibusbBackend::run() {
    while (!isOver()) {
        const int error = libusb_handle_events(context_.get());
        if (error != 0 && error != LIBUSB_ERROR_INTERRUPTED) {
            SpinGuard guard(lock_);
            if (life_ == Life::running) endAll(Life::gone, std::string("libusb fails: ") + libusb_strerror(error));
        }
        cancelMarked();
        deliver();
        reportGone();
    }
}

bool LibusbBackend::isOver() {
    SpinGuard guard(lock_);
    return life_ == Life::ending && atLibrary_ == 0 && !holding_ && finished_.head == nullptr;
}

// Here alone, because the kernel waits for the end of what it discards. No callback comes meanwhile, so the records stay.
void LibusbBackend::cancelMarked() {
    std::vector<Record*> marked;
    {
        SpinGuard guard(lock_);
        if (!std::exchange(cancels_, false)) return;
        for (const auto& record : records_) {
            const bool there = record->transfer != nullptr && !record->handing;
            if (there && record->transfer->cancelRequested) marked.push_back(record.get());
        }
    }
    for (const Record* const record : marked) libusb_cancel_transfer(record->request);
}

// Completions run at DISPATCH_LEVEL, as they do when real hardware interrupts; DPCs they queue run once at the end of the batch.
void LibusbBackend::deliver() {
    const KIRQL irql = KeRaiseIrqlToDpcLevel();
    for (;;) {
        Transfer* transfer;
        {
            SpinGuard guard(lock_);
            transfer = finished_.take();
        }
        if (transfer == nullptr) break;
        transfer->complete(transfer);
    }
    KeLowerIrql(irql);
}

void LibusbBackend::reportGone() {
    {
        SpinGuard guard(lock_);
        if (life_ != Life::gone || goneReported_) return;
    }
    goneReported_ = true;
    events_->gone();
    if (lost_) lost_();
}

}  // namespace usb
