// From here on DEFINE_GUID defines its constant instead of declaring it. Include before the headers
// with the GUIDs, in one source of the module.
#ifndef NT_INITGUID_H
#define NT_INITGUID_H
#define INITGUID
#include "nt/guid.h"
#endif
