// The platform, as 32-bit Windows offers it. The file of the same name in kernel/include offers the
// same words over this project's own executive; the driver's sources see only one of the two.
#pragma once

#include <wdm.h>
#include <initguid.h>
#include <ntddser.h>

// These headers lack C linkage of their own.
extern "C" {
#include <usb.h>
#include <usbdlib.h>
#include <usbioctl.h>
}

#include <concurrencysal.h>
#include <driverspecs.h>

// A wide literal of the platform's character type.
#define KTEXT(Text) L##Text

// Words for clang's analysis that this world's compiler does not run.
#ifndef _Analysis_assume_lock_acquired_
#define _Analysis_assume_lock_acquired_(Lock)
#endif
#ifndef _Analysis_assume_lock_released_
#define _Analysis_assume_lock_released_(Lock)
#endif
#ifndef _Analysis_assume_lock_held_
#define _Analysis_assume_lock_held_(Lock)
#endif
#define _No_thread_safety_analysis_
