// USB request blocks: what a function driver asks of the bus driver.
#ifndef NT_USB_H
#define NT_USB_H

#include "usb100.h"
#include "wdm.h"

#define USBDI_VERSION 0x00000600
#define USB_DEFAULT_ENDPOINT_ADDRESS 0
#define USB_DEFAULT_MAX_PACKET 64
#define URB_FROM_IRP(irp) (IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1)

#define URB_FUNCTION_SELECT_CONFIGURATION 0x0000
#define URB_FUNCTION_SELECT_INTERFACE 0x0001
#define URB_FUNCTION_ABORT_PIPE 0x0002
#define URB_FUNCTION_GET_CURRENT_FRAME_NUMBER 0x0007
#define URB_FUNCTION_CONTROL_TRANSFER 0x0008
#define URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER 0x0009
#define URB_FUNCTION_ISOCH_TRANSFER 0x000a
#define URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE 0x000b
#define URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE 0x000c
#define URB_FUNCTION_SET_FEATURE_TO_DEVICE 0x000d
#define URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE 0x0010
#define URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT 0x0012
#define URB_FUNCTION_GET_STATUS_FROM_DEVICE 0x0013
#define URB_FUNCTION_VENDOR_DEVICE 0x0017
#define URB_FUNCTION_VENDOR_INTERFACE 0x0018
#define URB_FUNCTION_VENDOR_ENDPOINT 0x0019
#define URB_FUNCTION_CLASS_DEVICE 0x001a
#define URB_FUNCTION_CLASS_INTERFACE 0x001b
#define URB_FUNCTION_CLASS_ENDPOINT 0x001c
#define URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL 0x001e
#define URB_FUNCTION_RESET_PIPE URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL
#define URB_FUNCTION_CLASS_OTHER 0x001f
#define URB_FUNCTION_VENDOR_OTHER 0x0020
#define URB_FUNCTION_GET_CONFIGURATION 0x0026
#define URB_FUNCTION_GET_INTERFACE 0x0027
#define URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE 0x0028
#define URB_FUNCTION_SYNC_RESET_PIPE 0x0030
#define URB_FUNCTION_SYNC_CLEAR_STALL 0x0031

#define USBD_TRANSFER_DIRECTION 0x00000001
#define USBD_SHORT_TRANSFER_OK 0x00000002
#define USBD_DEFAULT_PIPE_TRANSFER 0x00000008
#define USBD_TRANSFER_DIRECTION_OUT 0
#define USBD_TRANSFER_DIRECTION_IN 1
#define USBD_TRANSFER_DIRECTION_FLAG(flags) ((flags) & USBD_TRANSFER_DIRECTION)
#define USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE 0xffffffffu

typedef LONG USBD_STATUS;

#define USBD_SUCCESS(status) ((USBD_STATUS)(status) >= 0)
#define USBD_PENDING(status) ((ULONG)(status) >> 30 == 1)
#define USBD_ERROR(status) ((USBD_STATUS)(status) < 0)
#define USBD_STATUS_SUCCESS ((USBD_STATUS)0x00000000)
#define USBD_STATUS_PENDING ((USBD_STATUS)0x40000000)
#define USBD_STATUS_CRC ((USBD_STATUS)0xc0000001)
#define USBD_STATUS_BTSTUFF ((USBD_STATUS)0xc0000002)
#define USBD_STATUS_DATA_TOGGLE_MISMATCH ((USBD_STATUS)0xc0000003)
#define USBD_STATUS_STALL_PID ((USBD_STATUS)0xc0000004)
#define USBD_STATUS_DEV_NOT_RESPONDING ((USBD_STATUS)0xc0000005)
#define USBD_STATUS_PID_CHECK_FAILURE ((USBD_STATUS)0xc0000006)
#define USBD_STATUS_UNEXPECTED_PID ((USBD_STATUS)0xc0000007)
#define USBD_STATUS_DATA_OVERRUN ((USBD_STATUS)0xc0000008)
#define USBD_STATUS_DATA_UNDERRUN ((USBD_STATUS)0xc0000009)
#define USBD_STATUS_BUFFER_OVERRUN ((USBD_STATUS)0xc000000c)
#define USBD_STATUS_BUFFER_UNDERRUN ((USBD_STATUS)0xc000000d)
#define USBD_STATUS_NOT_ACCESSED ((USBD_STATUS)0xc000000f)
#define USBD_STATUS_XACT_ERROR ((USBD_STATUS)0xc0000011)
#define USBD_STATUS_BABBLE_DETECTED ((USBD_STATUS)0xc0000012)
#define USBD_STATUS_DATA_BUFFER_ERROR ((USBD_STATUS)0xc0000013)
#define USBD_STATUS_ENDPOINT_HALTED ((USBD_STATUS)0xc0000030)
#define USBD_STATUS_INVALID_URB_FUNCTION ((USBD_STATUS)0x80000200)
#define USBD_STATUS_INVALID_PARAMETER ((USBD_STATUS)0x80000300)
#define USBD_STATUS_ERROR_BUSY ((USBD_STATUS)0x80000400)
#define USBD_STATUS_INVALID_PIPE_HANDLE ((USBD_STATUS)0x80000600)
#define USBD_STATUS_NO_BANDWIDTH ((USBD_STATUS)0x80000700)
#define USBD_STATUS_INTERNAL_HC_ERROR ((USBD_STATUS)0x80000800)
#define USBD_STATUS_ERROR_SHORT_TRANSFER ((USBD_STATUS)0x80000900)
#define USBD_STATUS_NOT_SUPPORTED ((USBD_STATUS)0xc0000e00)
#define USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR ((USBD_STATUS)0xc0000f00)
#define USBD_STATUS_INSUFFICIENT_RESOURCES ((USBD_STATUS)0xc0001000)
#define USBD_STATUS_SET_CONFIG_FAILED ((USBD_STATUS)0xc0002000)
#define USBD_STATUS_BUFFER_TOO_SMALL ((USBD_STATUS)0xc0003000)
#define USBD_STATUS_INTERFACE_NOT_FOUND ((USBD_STATUS)0xc0004000)
#define USBD_STATUS_TIMEOUT ((USBD_STATUS)0xc0006000)
#define USBD_STATUS_DEVICE_GONE ((USBD_STATUS)0xc0007000)
#define USBD_STATUS_STATUS_NOT_MAPPED ((USBD_STATUS)0xc0008000)
#define USBD_STATUS_CANCELED ((USBD_STATUS)0xc0010000)

typedef PVOID USBD_PIPE_HANDLE;
typedef PVOID USBD_CONFIGURATION_HANDLE;
typedef PVOID USBD_INTERFACE_HANDLE;

typedef enum _USBD_PIPE_TYPE {
    UsbdPipeTypeControl,
    UsbdPipeTypeIsochronous,
    UsbdPipeTypeBulk,
    UsbdPipeTypeInterrupt
} USBD_PIPE_TYPE;

// The first and the last two fields go in, the rest comes out.
typedef struct _USBD_PIPE_INFORMATION {
    USHORT MaximumPacketSize;
    UCHAR EndpointAddress;
    UCHAR Interval;
    USBD_PIPE_TYPE PipeType;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG MaximumTransferSize;
    ULONG PipeFlags;
} USBD_PIPE_INFORMATION, *PUSBD_PIPE_INFORMATION;

#define USBD_PIPE_DIRECTION_IN(pipeInformation) ((pipeInformation)->EndpointAddress & USB_ENDPOINT_DIRECTION_MASK)

typedef struct _USBD_INTERFACE_INFORMATION {
    USHORT Length;
    UCHAR InterfaceNumber;
    UCHAR AlternateSetting;
    UCHAR Class;
    UCHAR SubClass;
    UCHAR Protocol;
    UCHAR Reserved;
    USBD_INTERFACE_HANDLE InterfaceHandle;
    ULONG NumberOfPipes;
    USBD_PIPE_INFORMATION Pipes[1];
} USBD_INTERFACE_INFORMATION, *PUSBD_INTERFACE_INFORMATION;

struct _URB_HCD_AREA {
    PVOID Reserved8[8];
};

struct _URB_HEADER {
    USHORT Length;
    USHORT Function;
    USBD_STATUS Status;
    PVOID UsbdDeviceHandle;
    ULONG UsbdFlags;
};

struct _URB_SELECT_INTERFACE {
    struct _URB_HEADER Hdr;
    USBD_CONFIGURATION_HANDLE ConfigurationHandle;
    USBD_INTERFACE_INFORMATION Interface;
};

struct _URB_SELECT_CONFIGURATION {
    struct _URB_HEADER Hdr;
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor;
    USBD_CONFIGURATION_HANDLE ConfigurationHandle;
    USBD_INTERFACE_INFORMATION Interface;
};

struct _URB_PIPE_REQUEST {
    struct _URB_HEADER Hdr;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG Reserved;
};

struct _URB_CONTROL_DESCRIPTOR_REQUEST {
    struct _URB_HEADER Hdr;
    PVOID Reserved;
    ULONG Reserved0;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    USHORT Reserved1;
    UCHAR Index;
    UCHAR DescriptorType;
    USHORT LanguageId;
    USHORT Reserved2;
};

struct _URB_CONTROL_GET_STATUS_REQUEST {
    struct _URB_HEADER Hdr;
    PVOID Reserved;
    ULONG Reserved0;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    UCHAR Reserved1[4];
    USHORT Index;
    USHORT Reserved2;
};

struct _URB_CONTROL_FEATURE_REQUEST {
    struct _URB_HEADER Hdr;
    PVOID Reserved;
    ULONG Reserved2;
    ULONG Reserved3;
    PVOID Reserved4;
    PMDL Reserved5;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    USHORT Reserved0;
    USHORT FeatureSelector;
    USHORT Index;
    USHORT Reserved1;
};

struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST {
    struct _URB_HEADER Hdr;
    PVOID Reserved;
    ULONG TransferFlags;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    UCHAR RequestTypeReservedBits;
    UCHAR Request;
    USHORT Value;
    USHORT Index;
    USHORT Reserved1;
};

struct _URB_CONTROL_TRANSFER {
    struct _URB_HEADER Hdr;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG TransferFlags;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    UCHAR SetupPacket[8];
};

struct _URB_BULK_OR_INTERRUPT_TRANSFER {
    struct _URB_HEADER Hdr;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG TransferFlags;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
};

typedef struct _URB {
    union {
        struct _URB_HEADER UrbHeader;
        struct _URB_SELECT_INTERFACE UrbSelectInterface;
        struct _URB_SELECT_CONFIGURATION UrbSelectConfiguration;
        struct _URB_PIPE_REQUEST UrbPipeRequest;
        struct _URB_CONTROL_TRANSFER UrbControlTransfer;
        struct _URB_BULK_OR_INTERRUPT_TRANSFER UrbBulkOrInterruptTransfer;
        struct _URB_CONTROL_DESCRIPTOR_REQUEST UrbControlDescriptorRequest;
        struct _URB_CONTROL_GET_STATUS_REQUEST UrbControlGetStatusRequest;
        struct _URB_CONTROL_FEATURE_REQUEST UrbControlFeatureRequest;
        struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST UrbControlVendorClassRequest;
    };
} URB, *PURB;

// Layouts with the host's pointers. The transfer records share the fields up to hca.
static_assert(sizeof(void*) == 8);
static_assert(sizeof(_URB_HEADER) == 24 && offsetof(_URB_HEADER, Status) == 4);
static_assert(sizeof(USBD_PIPE_INFORMATION) == 24 && sizeof(USBD_INTERFACE_INFORMATION) == 48 &&
              offsetof(USBD_INTERFACE_INFORMATION, Pipes) == 24);
static_assert(offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, TransferFlags) ==
                  offsetof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST, TransferFlags) &&
              offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, TransferBufferLength) ==
                  offsetof(_URB_CONTROL_DESCRIPTOR_REQUEST, TransferBufferLength) &&
              offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, hca) == offsetof(_URB_CONTROL_DESCRIPTOR_REQUEST, hca));
static_assert(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER) == 128 && sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST) == 136 &&
              sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST) == 136 && sizeof(_URB_PIPE_REQUEST) == 40 &&
              sizeof(_URB_SELECT_CONFIGURATION) == 88);

#endif
