// The USB library: walking descriptors and building request blocks. The caller frees the requests
// the library allocates with ExFreePool.
#ifndef NT_USBDLIB_H
#define NT_USBDLIB_H

#include "usb.h"

// An array of these ends with a null InterfaceDescriptor; Interface comes back.
typedef struct _USBD_INTERFACE_LIST_ENTRY {
    PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;
    PUSBD_INTERFACE_INFORMATION Interface;
} USBD_INTERFACE_LIST_ENTRY, *PUSBD_INTERFACE_LIST_ENTRY;

extern "C" {
// -1 in a criterion means any. Null when nothing matches.
PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition, LONG InterfaceNumber,
    LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass, LONG InterfaceProtocol);
PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                             PUSBD_INTERFACE_LIST_ENTRY InterfaceList);
PUSB_COMMON_DESCRIPTOR NTAPI USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength, PVOID StartPosition,
                                                   LONG DescriptorType);
}

#define URB_STATUS(urb) ((urb)->UrbHeader.Status)
#define GET_USBD_INTERFACE_SIZE(numEndpoints) \
    (sizeof(USBD_INTERFACE_INFORMATION) + sizeof(USBD_PIPE_INFORMATION) * (numEndpoints) - sizeof(USBD_PIPE_INFORMATION))
#define GET_SELECT_CONFIGURATION_REQUEST_SIZE(totalInterfaces, totalPipes)                               \
    (sizeof(struct _URB_SELECT_CONFIGURATION) + ((totalInterfaces)-1) * sizeof(USBD_INTERFACE_INFORMATION) + \
     ((totalPipes) - (totalInterfaces)) * sizeof(USBD_PIPE_INFORMATION))

FORCEINLINE VOID UsbBuildGetDescriptorRequest(PURB Urb, USHORT Length, UCHAR DescriptorType, UCHAR DescriptorIndex,
                                              USHORT LanguageId, PVOID TransferBuffer, PMDL TransferBufferMDL,
                                              ULONG TransferBufferLength, struct _URB* Link) {
    Urb->UrbHeader.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    Urb->UrbHeader.Length = Length;
    Urb->UrbControlDescriptorRequest.TransferBufferLength = TransferBufferLength;
    Urb->UrbControlDescriptorRequest.TransferBufferMDL = TransferBufferMDL;
    Urb->UrbControlDescriptorRequest.TransferBuffer = TransferBuffer;
    Urb->UrbControlDescriptorRequest.DescriptorType = DescriptorType;
    Urb->UrbControlDescriptorRequest.Index = DescriptorIndex;
    Urb->UrbControlDescriptorRequest.LanguageId = LanguageId;
    Urb->UrbControlDescriptorRequest.UrbLink = Link;
}
FORCEINLINE VOID UsbBuildInterruptOrBulkTransferRequest(PURB Urb, USHORT Length, USBD_PIPE_HANDLE PipeHandle,
                                                        PVOID TransferBuffer, PMDL TransferBufferMDL,
                                                        ULONG TransferBufferLength, ULONG TransferFlags,
                                                        struct _URB* Link) {
    Urb->UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    Urb->UrbHeader.Length = Length;
    Urb->UrbBulkOrInterruptTransfer.PipeHandle = PipeHandle;
    Urb->UrbBulkOrInterruptTransfer.TransferBufferLength = TransferBufferLength;
    Urb->UrbBulkOrInterruptTransfer.TransferBufferMDL = TransferBufferMDL;
    Urb->UrbBulkOrInterruptTransfer.TransferBuffer = TransferBuffer;
    Urb->UrbBulkOrInterruptTransfer.TransferFlags = TransferFlags;
    Urb->UrbBulkOrInterruptTransfer.UrbLink = Link;
}
FORCEINLINE VOID UsbBuildSelectConfigurationRequest(PURB Urb, USHORT Length,
                                                    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor) {
    Urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    Urb->UrbHeader.Length = Length;
    Urb->UrbSelectConfiguration.ConfigurationDescriptor = ConfigurationDescriptor;
}

#endif
