// The platform, as this project's own executive offers it on Linux. The file of the same name in
// windows/ offers the same words there; the driver's sources see only one of the two.
#pragma once

#include <wdm.h>
#include <initguid.h>
#include <ntddser.h>

extern "C" {
#include <usb.h>
#include <usbdlib.h>
#include <usbioctl.h>
}

#include <concurrencysal.h>
#include <driverspecs.h>

// A wide literal of the platform's character type.
#define KTEXT(Text) u##Text
