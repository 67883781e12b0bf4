// DEFINE_GUID, in its declaring or its defining form. May be included again after INITGUID appears.
#include "../ntdef.h"

#undef DEFINE_GUID
#ifdef INITGUID
#define DEFINE_GUID(name, d1, d2, d3, b0, b1, b2, b3, b4, b5, b6, b7) \
    extern "C" const GUID name __attribute__((weak));                \
    const GUID name = {d1, d2, d3, {b0, b1, b2, b3, b4, b5, b6, b7}}
#else
#define DEFINE_GUID(name, d1, d2, d3, b0, b1, b2, b3, b4, b5, b6, b7) extern "C" const GUID name
#endif
