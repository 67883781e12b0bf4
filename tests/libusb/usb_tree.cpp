#include "tests/libusb/usb_tree.h"

#include "tests/terminal.h"

#include <sys/ioctl.h>

#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace test {

namespace {

// 2...127 in turn, as the kernel gives them.
unsigned nextAddress() {
    static unsigned given = 0;
    return 2 + given++ % 126;
}

UMockdevTestbed* tree = nullptr;

UMockdevTestbed* testbed() {
    if (tree == nullptr) {
        UMockdevTestbed* const made = tree = umockdev_testbed_new();
        const char* attributes[] = {"busnum", "1", "devnum", "1", "speed", "480", "bConfigurationValue", "1", nullptr};
        const char* properties[] = {"DEVTYPE", "usb_device", "DEVNAME", "/dev/bus/usb/001/001", nullptr};
        g_autofree gchar* path = umockdev_testbed_add_devicev(made, "usb", "usb1", nullptr, const_cast<gchar**>(attributes),
                                                              const_cast<gchar**>(properties));
        guint8 hub[] = {18, 1, 0, 2, 9, 0, 1, 64, 0x6B, 0x1D, 2, 0, 0, 1, 0, 0, 0, 1, 9, 2, 18, 0, 1,
                        1,  0, 0xE0, 0, 9, 4, 0, 0, 0, 9, 0, 0, 0};
        umockdev_testbed_set_attribute_binary(made, path, "descriptors", hub, sizeof hub);
    }
    return tree;
}

int errnoOf(usb::TransferStatus status) {
    switch (status) {
    case usb::TransferStatus::ok: return 0;
    case usb::TransferStatus::stalled: return EPIPE;
    case usb::TransferStatus::cancelled: return ENOENT;
    case usb::TransferStatus::gone: return ESHUTDOWN;
    case usb::TransferStatus::overrun: return EOVERFLOW;
    default: return EPROTO;
    }
}

}  // namespace

void removeUsbTree() { g_clear_object(&tree); }

// The kernel keeps the bytes to itself until the request is reaped.
struct UsbDeviceNode::Urb {
    UsbDeviceNode* node = nullptr;
    usbdevfs_urb* user = nullptr;
    int error = 0;
    std::vector<std::uint8_t> bytes;
    usb::Transfer transfer;
};

UsbDeviceNode::UsbDeviceNode(std::unique_ptr<usb::Device> device, const SocketOptions& options)
    : options_(options), inside_(std::move(device), "inside " + options.socket) {
    inside_.withDevice([this](usb::Device& d) {
        const auto bytes = d.deviceDescriptor(), configuration = d.configurationDescriptor(0);
        deviceBytes_.assign(bytes.begin(), bytes.end());
        configurationBytes_.assign(configuration.begin(), configuration.end());
    });
    interfaces_ = configurationBytes_[4];
    inside_.start(*this);
    addToTree();
}

void UsbDeviceNode::addToTree() {
    const unsigned address = nextAddress();
    char text[4];
    std::snprintf(text, sizeof text, "%03u", address & 0x7F);
    node_ = std::string("/dev/bus/usb/001/") + text;
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    grantpt(master_);
    unlockpt(master_);
    std::string target = ptsname(master_);
    slave_ = open(target.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    makeRaw(slave_);
    showReady();
    // Nobody, not even root, may write to this.
    if (!options_.permitted) target = "/proc/sys/kernel/ostype";
    const std::string number = std::to_string(address);
    const char* attributes[] = {"busnum", "1", "devnum", number.c_str(), "speed", "12", nullptr};
    const char* properties[] = {"DEVNAME", node_.c_str(), nullptr};
    g_autofree gchar* path = umockdev_testbed_add_devicev(testbed(), "usb", options_.socket.c_str(), "/sys/devices/usb1",
                                                          const_cast<gchar**>(attributes), const_cast<gchar**>(properties));
    path_ = path;
    std::vector<std::uint8_t> descriptors = deviceBytes_;
    descriptors.insert(descriptors.end(), configurationBytes_.begin(), configurationBytes_.end());
    umockdev_testbed_set_attribute_binary(testbed(), path, "descriptors", descriptors.data(),
                                          static_cast<int>(descriptors.size()));
    g_autofree gchar* root = umockdev_testbed_get_root_dir(testbed());
    std::filesystem::create_directories(std::filesystem::path(root + node_).parent_path());
    std::filesystem::create_symlink(target, root + node_);
    base_ = umockdev_ioctl_base_new();
    g_signal_connect(base_, "handle-ioctl", G_CALLBACK(handle), this);
    umockdev_testbed_attach_ioctl(testbed(), node_.c_str(), base_, nullptr);
    configure(configurationBytes_[5]);
    // Only now is it a device to those who listen.
    umockdev_testbed_set_property(testbed(), path, "DEVTYPE", "usb_device");
    umockdev_testbed_uevent(testbed(), path, "add");
}

// Its requests end first, then its node shows that it has left.
void UsbDeviceNode::unplug() {
    if (master_ < 0) return;
    {
        std::unique_lock guard(mutex_);
        left_ = true;
        guard.unlock();
        inside_.unplug();
        guard.lock();
        idle_.wait(guard, [this] { return pending_.empty(); });
        close(std::exchange(master_, -1));
    }
    umockdev_testbed_uevent(testbed(), path_.c_str(), "remove");
    umockdev_testbed_remove_device(testbed(), path_.c_str());
    g_autofree gchar* root = umockdev_testbed_get_root_dir(testbed());
    std::filesystem::remove(root + node_);
    inside_.stop();
}

UsbDeviceNode::~UsbDeviceNode() {
    unplug();
    umockdev_testbed_detach_ioctl(testbed(), node_.c_str(), nullptr);
    g_object_unref(base_);
    close(slave_);
}

void UsbDeviceNode::giveUp() {
    std::lock_guard guard(mutex_);
    if (kernels_ != nullptr) inside_.cancel(kernels_);
}

std::vector<std::string> UsbDeviceNode::calls() {
    std::lock_guard guard(mutex_);
    return std::exchange(calls_, {});
}

std::string UsbDeviceNode::driver(unsigned interface) {
    std::lock_guard guard(mutex_);
    const auto found = drivers_.find(interface);
    return found == drivers_.end() ? "" : found->second;
}

std::size_t UsbDeviceNode::pending() {
    std::lock_guard guard(mutex_);
    return pending_.size() + ended_.size();
}

void UsbDeviceNode::note(const std::string& call) {
    std::lock_guard guard(mutex_);
    calls_.push_back(call);
}

// mutex_ held, here and in showReady().
void UsbDeviceNode::bindDrivers() {
    drivers_.clear();
    for (unsigned i = 0; i < interfaces_ && configuration_ != 0; ++i) {
        const std::string driver = options_.inUse ? "usbfs" : options_.driver;
        if (!driver.empty()) drivers_[i] = driver;
    }
}

void UsbDeviceNode::showReady() { tcflow(slave_, ended_.empty() ? TCOOFF : TCOON); }

// The file system. ----------------------------------------------------------------------------------------------------------

int UsbDeviceNode::handle(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    const UMockdevIoctlData* const data = umockdev_ioctl_client_get_arg(client);
    void* argument = nullptr;  // of this very process
    std::memcpy(&argument, data->data, sizeof argument);
    const Answer answer = static_cast<UsbDeviceNode*>(self)->carryOut(request, argument);
    umockdev_ioctl_client_complete(client, answer.error != 0 ? -1 : answer.result, answer.error);
    return TRUE;
}

UsbDeviceNode::Answer UsbDeviceNode::carryOut(unsigned long request, void* argument) {
    if (request == USBDEVFS_REAPURBNDELAY) return reap(argument);
    {
        std::lock_guard guard(mutex_);
        if (left_) return {0, ENODEV};
    }
    switch (request) {
    case USBDEVFS_GET_CAPABILITIES:
        *static_cast<std::uint32_t*>(argument) = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                                 USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
        return {};
    case USBDEVFS_SUBMITURB: return submit(*static_cast<usbdevfs_urb*>(argument));
    case USBDEVFS_DISCARDURB: return discard(argument);
    case USBDEVFS_GETDRIVER: return driverName(argument);
    case USBDEVFS_IOCTL: return driverCall(argument);
    case USBDEVFS_CLAIMINTERFACE: return claim(*static_cast<unsigned*>(argument));
    case USBDEVFS_RELEASEINTERFACE: {
        const unsigned interface = *static_cast<unsigned*>(argument);
        note("release " + std::to_string(interface));
        std::lock_guard guard(mutex_);
        drivers_.erase(interface);
        return {};
    }
    case USBDEVFS_SETCONFIGURATION:
        note("configure " + std::to_string(*static_cast<int*>(argument)));
        return configure(*static_cast<unsigned*>(argument));
    case USBDEVFS_CLEAR_HALT:
        note("clear " + std::to_string(*static_cast<unsigned*>(argument)));
        return control(0x02, usb::requestClearFeature, 0, static_cast<std::uint16_t>(*static_cast<unsigned*>(argument)));
    case USBDEVFS_RESET:
        note("reset");
        return reset();
    default: return {0, ENOTTY};
    }
}

UsbDeviceNode::Answer UsbDeviceNode::submit(usbdevfs_urb& user) {
    if (const int refusal = nextRefusal_.exchange(0)) return {0, refusal};
    Urb* urb;
    {
        std::lock_guard guard(mutex_);
        if (left_) return {0, ENODEV};
        urb = &pending_.emplace_back();
    }
    const bool control = user.type == USBDEVFS_URB_TYPE_CONTROL;
    const auto* const data = static_cast<std::uint8_t*>(user.buffer);
    urb->node = this;
    urb->user = &user;
    urb->bytes.assign(data, data + user.buffer_length);
    usb::Transfer& transfer = urb->transfer;
    const std::uint32_t skip = control ? 8 : 0;
    transfer.data = urb->bytes.data() + skip;
    transfer.length = static_cast<std::uint32_t>(user.buffer_length) - skip;
    transfer.context = urb;
    transfer.complete = ended;
    transfer.type = control                                     ? usb::TransferType::control
                    : user.type == USBDEVFS_URB_TYPE_INTERRUPT ? usb::TransferType::interrupt
                                                                : usb::TransferType::bulk;
    transfer.endpoint = control ? 0 : user.endpoint;
    if (control) {
        const auto word = [data](int at) { return static_cast<std::uint16_t>(data[at] | data[at + 1] << 8); };
        transfer.setup = {data[0], data[1], word(2), word(4), word(6)};
    }
    if ((urb->error = nextError_.exchange(0)) != 0) {
        ended(&transfer);
    } else {
        inside_.submit(&transfer);
    }
    return {};
}

void UsbDeviceNode::ended(usb::Transfer* transfer) {
    auto& urb = *static_cast<Urb*>(transfer->context);
    UsbDeviceNode& node = *urb.node;
    std::lock_guard guard(node.mutex_);
    if (urb.error == 0) urb.error = errnoOf(transfer->status);
    const auto at = std::ranges::find_if(node.pending_, [&](const Urb& other) { return &other == &urb; });
    node.ended_.splice(node.ended_.end(), node.pending_, at);
    node.showReady();
    if (node.pending_.empty()) node.idle_.notify_all();
}

UsbDeviceNode::Answer UsbDeviceNode::reap(void* argument) {
    std::lock_guard guard(mutex_);
    if (ended_.empty()) return {0, left_ ? ENODEV : EAGAIN};
    const Urb& urb = ended_.front();
    urb.user->status = -urb.error;
    urb.user->actual_length = static_cast<int>(urb.transfer.actual);
    if (urb.transfer.isIn()) {
        const std::size_t skip = urb.bytes.size() - urb.transfer.length;
        std::copy_n(urb.transfer.data, urb.transfer.actual, static_cast<std::uint8_t*>(urb.user->buffer) + skip);
    }
    *static_cast<void**>(argument) = urb.user;
    ended_.pop_front();
    showReady();
    return {};
}

UsbDeviceNode::Answer UsbDeviceNode::discard(const void* user) {
    std::lock_guard guard(mutex_);
    const auto at = std::ranges::find(pending_, user, &Urb::user);
    if (at == pending_.end()) return {0, EINVAL};
    inside_.cancel(&at->transfer);
    return {};
}

UsbDeviceNode::Answer UsbDeviceNode::claim(unsigned interface) {
    note("claim " + std::to_string(interface));
    std::lock_guard guard(mutex_);
    return drivers_.try_emplace(interface, "usbfs").second ? Answer{} : Answer{0, EBUSY};
}

UsbDeviceNode::Answer UsbDeviceNode::driverName(void* argument) {
    auto& asked = *static_cast<usbdevfs_getdriver*>(argument);
    const std::string name = driver(asked.interface);
    if (name.empty()) return {0, ENODATA};
    std::strncpy(asked.driver, name.c_str(), sizeof asked.driver - 1);
    return {};
}

UsbDeviceNode::Answer UsbDeviceNode::driverCall(void* argument) {
    const auto& call = *static_cast<usbdevfs_ioctl*>(argument);
    const auto interface = static_cast<unsigned>(call.ifno);
    const bool detach = static_cast<unsigned long>(call.ioctl_code) == USBDEVFS_DISCONNECT;
    std::lock_guard guard(mutex_);
    if (detach && drivers_.erase(interface) == 0) return {0, ENODATA};
    calls_.push_back((detach ? "detach " : "attach ") + std::to_string(interface));
    if (detach || options_.driver.empty()) return {};
    return drivers_.try_emplace(interface, options_.driver).second ? Answer{1, 0} : Answer{0, EBUSY};
}

// One control transfer, waited for.
UsbDeviceNode::Answer UsbDeviceNode::control(std::uint8_t type, std::uint8_t request, std::uint16_t value, std::uint16_t index) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    usb::Transfer transfer;
    transfer.type = usb::TransferType::control;
    transfer.setup = {type, request, value, index, 0};
    transfer.context = &done;
    transfer.complete = [](usb::Transfer* over) { KeSetEvent(static_cast<KEVENT*>(over->context), 0, FALSE); };
    {
        std::lock_guard guard(mutex_);
        kernels_ = &transfer;
        inside_.submit(&transfer);
    }
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    std::lock_guard guard(mutex_);
    kernels_ = nullptr;
    return {0, transfer.status == usb::TransferStatus::cancelled ? ETIMEDOUT : errnoOf(transfer.status)};
}

UsbDeviceNode::Answer UsbDeviceNode::configure(unsigned value) {
    {
        std::lock_guard guard(mutex_);
        if (!drivers_.empty()) return {0, EBUSY};
    }
    const unsigned wanted = static_cast<int>(value) < 0 ? 0 : value;
    // The kernel knows the configurations there are.
    if (wanted != 0 && wanted != configurationBytes_[5]) return {0, EINVAL};
    const Answer answer = control(0x00, usb::requestSetConfiguration, static_cast<std::uint16_t>(wanted), 0);
    if (answer.error != 0) return answer;
    const std::string shown = wanted != 0 ? std::to_string(wanted) : "";
    umockdev_testbed_set_attribute(testbed(), path_.c_str(), "bConfigurationValue", shown.c_str());
    std::lock_guard guard(mutex_);
    const bool other = std::exchange(configuration_, wanted) != wanted;
    if (other) bindDrivers();
    return {};
}

UsbDeviceNode::Answer UsbDeviceNode::reset() {
    if (failReset_) return {0, ENODEV};
    return {0, inside_.resetPort() ? 0 : ENODEV};
}

}  // namespace test
