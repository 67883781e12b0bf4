// Trace output: a formatter with directives of its own, a hex dump and the category mask.
//
// Every call is gated at its place by one category bit, so a category that is off costs one test.
// The output buffer is shared and guarded by the trace lock, the innermost lock of the driver.
#pragma once

#include <ntplatform.h>

#include <stdarg.h>

// Categories, bits of TraceMask.
enum : ULONG {
    TRC_ASSERT = 0x1,         // assertions and fatal conditions
    TRC_ERROR = 0x2,          // failed operations
    TRC_PROGRESS = 0x4,       // load, data paths, reinitialisation, configuration summary, idle timer
    TRC_PNP = 0x8,            // Plug and Play and power dispatch
    TRC_OBJECT = 0x10,        // creation and deletion of objects
    TRC_HUB = 0x20,           // hub information
    TRC_OPEN = 0x40,          // open, cleanup and close
    TRC_CONTROL = 0x80,       // serial and internal controls
    TRC_RW = 0x100,           // read and write dispatch
    TRC_PASSDOWN = 0x200,     // requests passed down and waited for
    TRC_USBCFG = 0x400,       // descriptors, configuration, port reset, pipe abort and reset
    TRC_WAIT = 0x800,         // wait-on-mask events
    TRC_COUNTS = 0x1000,      // transfer byte counts, selective-suspend notifications
    TRC_REF = 0x2000,         // reference counts
    TRC_RCV = 0x4000,         // bulk IN submission and completion
    TRC_USBREQ = 0x8000,      // synchronous and class requests, bulk OUT, time-mode changes
    TRC_MODEM = 0x20000,      // modem status and control lines
    TRC_SERPORT = 0x40000,    // serial engine
    TRC_PPP = 0x80000,        // framing mode, dumps of written data
    TRC_CTS = 0x100000,       // CTS flow control
    TRC_QUEUE = 0x80000000,   // receive-queue internals, work-item execution
};

enum : ULONG {
    TRACE_MASK_UNREAD = 0x3,      // before the configuration is read
    TRACE_MASK_NO_KEY = 255,      // the service key could not be opened
    TRACE_BUFFER_SIZE = 2048,     // bytes of the shared output buffer
    TRACE_DUMP_LIMIT = 64,        // callers dump at most so many bytes of a frame or packet
};

// Written by TraceSetMask, read without a lock.
extern ULONG TraceMask;

#define TRACE_ON(Category) ((__atomic_load_n(&TraceMask, __ATOMIC_RELAXED) & (Category)) != 0)

#define TRACE(Category, ...)           \
    do {                               \
        if (TRACE_ON(Category))        \
            TracePrint(__VA_ARGS__);   \
    } while (0)

// A failed assertion traces and execution continues. The condition's text is the caller's spelling.
#define KASSERT(Condition)                                                                          \
    do {                                                                                            \
        if (TRACE_ON(TRC_ASSERT) && !(Condition))                                                   \
            TracePrint("\n%P:ASSERTION FAILED: (" #Condition ")\n  %s(%d)\n", __FILE_NAME__, __LINE__); \
    } while (0)

// Any IRQL up to DISPATCH_LEVEL, any locks held but the trace lock, unless said.
VOID TraceInit();                                  // first thing in driver entry
VOID TraceSetMask(ULONG Mask);
VOID TracePrint(const CHAR* Format, ...);          // one whole line to the sink under the trace lock
VOID TraceDump(const VOID* Data, ULONG Length);    // 16 bytes a line; length 0 prints "<<NULL>>"
VOID TraceDumpLimited(const VOID* Data, ULONG Length);   // at most TRACE_DUMP_LIMIT bytes, then "...\n"
VOID TraceOut(const CHAR* Text);                   // the debugger's output; trace lock held

// Copies Text into the name buffer that traces print, under the trace lock, cut to Capacity units.
VOID TraceSetName(WCHAR* Name, ULONG Capacity, const WCHAR* Text);

// Leaf units. Output always ends with a zero byte; what does not fit before OutputEnd - 1 is lost.
VOID TraceFormat(CHAR* Output, CHAR* OutputEnd, const CHAR* Format, va_list Arguments);

// Flags of TraceNumber.
enum : ULONG {
    TRN_LEFT = 0x1,
    TRN_PLUS = 0x2,
    TRN_SPACE = 0x4,
    TRN_ALTERNATE = 0x8,
    TRN_ZERO = 0x10,
    TRN_UPPER = 0x20,
    TRN_SIGNED = 0x40,
};

// Width and Precision of -1: none. Returns the new output position.
CHAR* TraceNumber(CHAR* Output, CHAR* OutputEnd, ULONGLONG Value, ULONG Base, LONG Width, LONG Precision, ULONG Flags);
