// The configuration in use: which pipes exist, and their handles. The descriptor is the caller's copy of what the device sent,
// so no length in it is believed further than the one that encloses it.
#include "usb/endpoint_zero.h"
#include "usb/hub.h"

#include <algorithm>

namespace usb {

namespace {

constexpr std::uint32_t maximumTransferLimit = 4u << 20;

// A handle names the endpoint and the configuration it was opened in, so an old one is known as such.
USBD_PIPE_HANDLE pipeHandle(std::uint32_t generation, unsigned index) {
    return reinterpret_cast<USBD_PIPE_HANDLE>(static_cast<std::uintptr_t>(generation) << 8 | index);
}

USBD_PIPE_TYPE pipeType(std::uint8_t attributes) { return static_cast<USBD_PIPE_TYPE>(attributes & 3); }

}  // namespace

// What is still pending on them is cancelled.
void Function::closePipes() {
    for (Pipe& pipe : pipes_) {
        if (!pipe.open) continue;
        pipe.open = false;
        cancelPipeLocked(pipe);
    }
    configured_ = false;
}

USBD_STATUS Function::openConfiguration(PURB urb) {
    auto& request = urb->UrbSelectConfiguration;
    request.ConfigurationHandle = nullptr;
    if (request.ConfigurationDescriptor == nullptr) return USBD_STATUS_SUCCESS;
    ++generation_;
    auto* at = reinterpret_cast<std::uint8_t*>(&request.Interface);
    auto* const end = reinterpret_cast<std::uint8_t*>(urb) + request.Hdr.Length;
    constexpr std::ptrdiff_t headSize = offsetof(USBD_INTERFACE_INFORMATION, Pipes);
    while (end - at >= headSize) {
        auto& wanted = *reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(at);
        if (wanted.Length == 0) break;
        if (wanted.Length > end - at || wanted.Length < headSize ||
            (wanted.Length - headSize) / sizeof(USBD_PIPE_INFORMATION) < wanted.NumberOfPipes) {
            closePipes();
            return USBD_STATUS_INVALID_PARAMETER;
        }
        const USBD_STATUS status = openInterface(*request.ConfigurationDescriptor, wanted);
        if (status != USBD_STATUS_SUCCESS) {
            closePipes();
            return status;
        }
        at += wanted.Length;
    }
    configured_ = true;
    request.ConfigurationHandle = pipeHandle(generation_, 0x20);
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS Function::openInterface(const USB_CONFIGURATION_DESCRIPTOR& configuration,
                                    USBD_INTERFACE_INFORMATION& wanted) {
    auto* const whole = const_cast<PUSB_CONFIGURATION_DESCRIPTOR>(&configuration);
    auto* const found = USBD_ParseConfigurationDescriptorEx(whole, whole, wanted.InterfaceNumber,
                                                            wanted.AlternateSetting, -1, -1, -1);
    if (found == nullptr || wanted.AlternateSetting != 0) return USBD_STATUS_INTERFACE_NOT_FOUND;
    wanted.Class = found->bInterfaceClass;
    wanted.SubClass = found->bInterfaceSubClass;
    wanted.Protocol = found->bInterfaceProtocol;
    wanted.InterfaceHandle = pipeHandle(generation_, 0x40u | (wanted.InterfaceNumber & 0x1Fu));

    const auto* at = reinterpret_cast<const std::uint8_t*>(found) + found->bLength;
    const auto* const end = reinterpret_cast<const std::uint8_t*>(&configuration) + configuration.wTotalLength;
    for (ULONG opened = 0; opened < wanted.NumberOfPipes;) {
        if (end - at < 2 || at[0] < 2 || at[0] > end - at || at[1] == USB_INTERFACE_DESCRIPTOR_TYPE) {
            return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
        }
        const auto& endpoint = *reinterpret_cast<const USB_ENDPOINT_DESCRIPTOR*>(at);
        at += at[0];
        if (endpoint.bDescriptorType != USB_ENDPOINT_DESCRIPTOR_TYPE) continue;
        const std::uint16_t packetSize = endpoint.bLength >= sizeof(endpoint) ? endpoint.wMaxPacketSize & 0x7FF : 0;
        const USBD_PIPE_TYPE type = pipeType(endpoint.bmAttributes);
        if (packetSize == 0 || (endpoint.bEndpointAddress & 0x0F) == 0) {
            return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
        }
        const unsigned index = endpointIndex(endpoint.bEndpointAddress);
        USBD_PIPE_INFORMATION& information = wanted.Pipes[opened++];
        information.MaximumPacketSize = endpoint.wMaxPacketSize;
        information.EndpointAddress = endpoint.bEndpointAddress;
        information.Interval = endpoint.bInterval;
        information.PipeType = type;
        information.PipeHandle = pipeHandle(generation_, index);

        Pipe& pipe = pipes_[index];
        pipe.address = endpoint.bEndpointAddress & 0x8F;
        pipe.type = type == UsbdPipeTypeInterrupt ? TransferType::interrupt : TransferType::bulk;
        // There is no backend for the other two kinds: transfers on them are refused.
        pipe.open = type == UsbdPipeTypeBulk || type == UsbdPipeTypeInterrupt;
        pipe.halted = false;
        pipe.packetSize = packetSize;
        pipe.maximumTransfer = information.MaximumTransferSize != 0
                                   ? std::min<std::uint32_t>(information.MaximumTransferSize, maximumTransferLimit)
                                   : maximumTransferLimit;
    }
    return USBD_STATUS_SUCCESS;
}

}  // namespace usb
