// Debug output: whole texts to one sink.
#include <wdm.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "kernel/system.h"
#include "kernel/verifier.h"

namespace {

void give(const char* text, std::size_t length) {
    nt::System* system = nt::systemOrNull();
    if (!system || !system->options.debugSink) {
        return;
    }
    std::lock_guard guard(system->sinkLock);
    system->options.debugSink(system->options.debugContext, text, length);
}

}  // namespace

extern "C" {

ULONG DbgPrint(PCSTR Format, ...) {
    va_list arguments;
    va_start(arguments, Format);
    if (std::strcmp(Format, "%s") == 0) {
        const char* text = va_arg(arguments, const char*);
        give(text, std::strlen(text));
    } else {
        char text[512];
        int length = std::vsnprintf(text, sizeof text, Format, arguments);
        if (length > 0) {
            give(text, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof text - 1));
        }
    }
    va_end(arguments);
    return STATUS_SUCCESS;
}

VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PCHAR Message) {
    nt::verifier::stop("assertion", static_cast<const char*>(FailedAssertion), nullptr, "%s:%u %s",
                       static_cast<const char*>(FileName), LineNumber, Message ? Message : "");
}

}  // extern "C"
