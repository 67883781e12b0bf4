// The platform's USB library: walks over configuration descriptors and the request that selects one. Descriptors
// come from devices: a walk ends at a length that is too small or runs past the end.
#include <wdm.h>
#include <usb.h>
#include <usbdlib.h>

#include <algorithm>

namespace {

constexpr ULONG requestTag = 0x44425355;  // "USBD"

bool matches(LONG wanted, UCHAR value) { return wanted == -1 || wanted == static_cast<LONG>(value); }

}  // namespace

extern "C" PUSB_COMMON_DESCRIPTOR NTAPI USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength,
                                                             PVOID StartPosition, LONG DescriptorType) {
    auto* const end = static_cast<PUCHAR>(DescriptorBuffer) + TotalLength;
    auto* at = static_cast<PUCHAR>(StartPosition);
    if (at < static_cast<PUCHAR>(DescriptorBuffer)) return nullptr;
    while (end - at >= static_cast<std::ptrdiff_t>(sizeof(USB_COMMON_DESCRIPTOR))) {
        auto* const descriptor = reinterpret_cast<PUSB_COMMON_DESCRIPTOR>(at);
        if (descriptor->bLength < sizeof(USB_COMMON_DESCRIPTOR) || descriptor->bLength > end - at) return nullptr;
        if (descriptor->bDescriptorType == DescriptorType) return descriptor;
        at += descriptor->bLength;
    }
    return nullptr;
}

extern "C" PUSB_INTERFACE_DESCRIPTOR NTAPI
USBD_ParseConfigurationDescriptorEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition,
                                    LONG InterfaceNumber, LONG AlternateSetting, LONG InterfaceClass,
                                    LONG InterfaceSubClass, LONG InterfaceProtocol) {
    const ULONG total = ConfigurationDescriptor->wTotalLength;
    PVOID at = StartPosition;
    while (auto* const found =
               USBD_ParseDescriptors(ConfigurationDescriptor, total, at, USB_INTERFACE_DESCRIPTOR_TYPE)) {
        auto* const descriptor = reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(found);
        at = reinterpret_cast<PUCHAR>(found) + found->bLength;
        if (descriptor->bLength < sizeof(USB_INTERFACE_DESCRIPTOR)) continue;
        if (matches(InterfaceNumber, descriptor->bInterfaceNumber) &&
            matches(AlternateSetting, descriptor->bAlternateSetting) &&
            matches(InterfaceClass, descriptor->bInterfaceClass) &&
            matches(InterfaceSubClass, descriptor->bInterfaceSubClass) &&
            matches(InterfaceProtocol, descriptor->bInterfaceProtocol)) {
            return descriptor;
        }
    }
    return nullptr;
}

extern "C" PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
    SIZE_T size = FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface);
    for (auto* entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry) {
        size += GET_USBD_INTERFACE_SIZE(entry->InterfaceDescriptor->bNumEndpoints);
    }
    size = std::max(size, sizeof(struct _URB_SELECT_CONFIGURATION));
    if (size > MAXUSHORT) return nullptr;

    auto* const urb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, size, requestTag));
    if (urb == nullptr) return nullptr;
    RtlZeroMemory(static_cast<PVOID>(urb), size);
    UsbBuildSelectConfigurationRequest(urb, static_cast<USHORT>(size), ConfigurationDescriptor);

    auto* at = reinterpret_cast<PUCHAR>(&urb->UrbSelectConfiguration.Interface);
    for (auto* entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry) {
        const auto& descriptor = *entry->InterfaceDescriptor;
        auto* const information = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(at);
        information->Length = static_cast<USHORT>(GET_USBD_INTERFACE_SIZE(descriptor.bNumEndpoints));
        information->InterfaceNumber = descriptor.bInterfaceNumber;
        information->AlternateSetting = descriptor.bAlternateSetting;
        information->Class = descriptor.bInterfaceClass;
        information->SubClass = descriptor.bInterfaceSubClass;
        information->Protocol = descriptor.bInterfaceProtocol;
        information->NumberOfPipes = descriptor.bNumEndpoints;
        for (ULONG i = 0; i < information->NumberOfPipes; ++i) {
            information->Pipes[i].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
        }
        entry->Interface = information;
        at += information->Length;
    }
    return urb;
}
