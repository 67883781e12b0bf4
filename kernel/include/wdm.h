// The kernel's interface for drivers.
#ifndef NT_WDM_H
#define NT_WDM_H

#include "ntdef.h"
#include "ntstatus.h"
#include "nt/guid.h"
#include "nt/interlocked.h"
#include "nt/ke.h"
#include "nt/ex.h"
#include "nt/po.h"
#include "nt/rtl.h"
#include "nt/io.h"

#endif
