// The older name of usb.h.
#ifndef NT_USBDI_H
#define NT_USBDI_H
#include "usb.h"
#include "usbioctl.h"
#endif
