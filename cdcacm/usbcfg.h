// USB configuration: descriptors, the choice of configuration, pipes, and their control and teardown.
#pragma once

#include "wdmkrnl.h"

struct USB_INTERFACE {     // tag "usc0"
    LIST_ENTRY Link;
    UCHAR InterfaceNumber;
    UCHAR AlternateSetting;
    UCHAR Class;
    UCHAR SubClass;
    UCHAR Protocol;
    USBD_INTERFACE_HANDLE InterfaceHandle;
    ULONG NumberOfPipes;
};

struct USB_PIPE {          // tag "pip0"
    LIST_ENTRY Link;
    USB_INTERFACE* Interface;
    USHORT MaximumPacketSize;
    UCHAR EndpointAddress;
    UCHAR Interval;
    USBD_PIPE_TYPE PipeType;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG MaximumTransferSize;
    ULONG PipeFlags;
    LONG PendingCount;     // transfers submitted and not completed, interlocked
    LONG HoldCount;        // private: the list's hold and one a transfer; freed at 0, interlocked
};

// The lists and the descriptor: device Mutex.
struct USB_DEV {
    DEVICE* Dev;
    LIST_ENTRY PipeList;
    LIST_ENTRY InterfaceList;
    UCHAR Configured;
    CCHAR StackSize;
    UCHAR ConfigIndex;
    UCHAR* ConfigDesc;               // whole descriptor, owned
    UCHAR DataInterfaceNumber;
    USBD_CONFIGURATION_HANDLE ConfigurationHandle;
};

struct INTERFACE_SELECTION {
    USHORT InterfaceNumber;
    USHORT AlternateSetting;
    ULONG MaxTransferSize;
};

struct CONFIG_SELECTION {
    USHORT NumberOfInterfaces;
    INTERFACE_SELECTION Interface[2];
};

// All at PASSIVE_LEVEL under the device Mutex; each request has its own IRP and the time-out RequestTimeout.
VOID InitUsbDev(DEVICE* Dev, USB_DEV* Usb);
NTSTATUS GetDeviceDescriptor(USB_DEV* Usb, VOID* Buffer) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS GetConfigurationDescriptor(USB_DEV* Usb, UCHAR Index, ULONG* LengthInOut, VOID* Buffer) _IRQL_requires_max_(PASSIVE_LEVEL);
// On success the caller owns *Descriptor (tag "usc1"); it holds at least 64 zero-filled bytes.
NTSTATUS GetConfigDescAndAlloc(USB_DEV* Usb, UCHAR Index, ULONG* Length, UCHAR** Descriptor) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS GetHubInfo(DEVICE* Dev, PUSB_NODE_INFORMATION NodeInformation) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS InitUsbDevice(USB_DEV* Usb) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS SetConfiguration(USB_DEV* Usb, const CONFIG_SELECTION* Selection, UCHAR* ConfigDesc) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS CreateInterfacePipes(USB_DEV* Usb, PUSBD_INTERFACE_INFORMATION Information, USBD_CONFIGURATION_HANDLE Handle) _IRQL_requires_max_(PASSIVE_LEVEL);
USB_PIPE* FindPipe(USB_DEV* Usb, UCHAR EndpointAddress);

// Descriptor walks: leaf units. They end at a length of 0 or at one that runs past the end.
UCHAR GetInterfaceNumber(const UCHAR* ConfigDesc, ULONG Length, ULONG N);   // 0xFF: none
UCHAR FindEndpointAddress(const UCHAR* ConfigDesc, ULONG Length, UCHAR TransferType, UCHAR Direction);   // 0: none

// A null pipe asserts and gives STATUS_UNSUCCESSFUL.
NTSTATUS AbortPipe(USB_DEV* Usb, USB_PIPE* Pipe) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS ResetPipe(USB_DEV* Usb, USB_PIPE* Pipe) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID AbortAllPipes(USB_DEV* Usb) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID DeleteInterfacePipes(USB_DEV* Usb, USB_INTERFACE* Interface) _IRQL_requires_max_(PASSIVE_LEVEL);
VOID DeleteAllPipes(USB_DEV* Usb);
VOID DeletePipe(USB_PIPE* Pipe);
VOID DeleteInterface(USB_INTERFACE* Interface);
NTSTATUS UnconfigureDevice(USB_DEV* Usb, UCHAR SendUrb) _IRQL_requires_max_(PASSIVE_LEVEL);
NTSTATUS ResetDevice(DEVICE* Dev) _IRQL_requires_max_(PASSIVE_LEVEL);

// Hold a pipe record for a transfer; the last release frees it. Any IRQL up to DISPATCH_LEVEL.
VOID HoldPipe(USB_PIPE* Pipe);
VOID ReleasePipe(USB_PIPE* Pipe);
