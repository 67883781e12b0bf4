// The platform's annotation words for drivers. Interrupt levels are checked at run time here, so
// these words are for the reader; the lock words of concurrencysal.h mean something to clang.
#ifndef NT_DRIVERSPECS_H
#define NT_DRIVERSPECS_H

#include "concurrencysal.h"

#define _IRQL_requires_(irql)
#define _IRQL_requires_min_(irql)
#define _IRQL_requires_max_(irql)
#define _IRQL_requires_same_
#define _IRQL_raises_(irql)
#define _IRQL_saves_
#define _IRQL_saves_global_(kind, param)
#define _IRQL_restores_
#define _IRQL_restores_global_(kind, param)
#define _IRQL_always_function_max_(irql)
#define _IRQL_always_function_min_(irql)
#define _Dispatch_type_(kind)
#define _Function_class_(name)
#define _Kernel_requires_resource_held_(x)
#define _Kernel_clear_do_init_(x)

#define _When_(condition, words)
#define _At_(target, words)
#define _Must_inspect_result_
#define _Check_return_
#define _Use_decl_annotations_
#define _In_
#define _In_opt_
#define _In_z_
#define _In_reads_(n)
#define _In_reads_opt_(n)
#define _In_reads_bytes_(n)
#define _In_reads_bytes_opt_(n)
#define _Inout_
#define _Inout_opt_
#define _Inout_updates_(n)
#define _Inout_updates_bytes_(n)
#define _Out_
#define _Out_opt_
#define _Out_writes_(n)
#define _Out_writes_bytes_(n)
#define _Out_writes_bytes_opt_(n)
#define _Out_writes_bytes_to_(n, m)
#define _Outptr_
#define _Outptr_result_maybenull_
#define _Ret_maybenull_
#define _Ret_notnull_
#define _Success_(x)
#define _Field_size_(n)
#define _Field_size_bytes_(n)
#define _Printf_format_string_
#define _Strict_type_match_
#define __drv_aliasesMem
#define __drv_freesMem(kind)
#define __drv_allocatesMem(kind)

#endif
