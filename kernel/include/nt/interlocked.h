// Interlocked operations and list primitives. The former are full barriers, the latter need the
// lock that guards the list.
#ifndef NT_INTERLOCKED_H
#define NT_INTERLOCKED_H

#include "../ntdef.h"

FORCEINLINE LONG InterlockedExchange(LONG volatile* Target, LONG Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedIncrement(LONG volatile* Target) {
    return __atomic_add_fetch(Target, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedDecrement(LONG volatile* Target) {
    return __atomic_sub_fetch(Target, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile* Target, LONG Value) {
    return __atomic_fetch_add(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedCompareExchange(LONG volatile* Target, LONG Value, LONG Comparand) {
    __atomic_compare_exchange_n(Target, &Comparand, Value, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
FORCEINLINE LONG InterlockedOr(LONG volatile* Target, LONG Value) {
    return __atomic_fetch_or(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedAnd(LONG volatile* Target, LONG Value) {
    return __atomic_fetch_and(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE UCHAR InterlockedBitTestAndSet(LONG volatile* Target, LONG Bit) {
    return ((ULONG)__atomic_fetch_or(Target, (LONG)(1u << Bit), __ATOMIC_SEQ_CST) >> Bit) & 1;
}
FORCEINLINE UCHAR InterlockedBitTestAndReset(LONG volatile* Target, LONG Bit) {
    return ((ULONG)__atomic_fetch_and(Target, (LONG) ~(1u << Bit), __ATOMIC_SEQ_CST) >> Bit) & 1;
}
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* Target, PVOID Value, PVOID Comparand) {
    __atomic_compare_exchange_n(Target, &Comparand, Value, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
FORCEINLINE VOID KeMemoryBarrier(VOID) { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

FORCEINLINE VOID InitializeListHead(PLIST_ENTRY Head) { Head->Flink = Head->Blink = Head; }
FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* Head) { return Head->Flink == Head; }
// Returns whether the list is empty afterwards.
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY Next = Entry->Flink;
    PLIST_ENTRY Previous = Entry->Blink;
    Previous->Flink = Next;
    Next->Blink = Previous;
    return Next == Previous;
}
// Returns the head itself when the list is empty.
FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY Head) {
    PLIST_ENTRY Entry = Head->Flink;
    RemoveEntryList(Entry);
    return Entry;
}
FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY Head) {
    PLIST_ENTRY Entry = Head->Blink;
    RemoveEntryList(Entry);
    return Entry;
}
FORCEINLINE VOID InsertTailList(PLIST_ENTRY Head, PLIST_ENTRY Entry) {
    PLIST_ENTRY Last = Head->Blink;
    Entry->Flink = Head;
    Entry->Blink = Last;
    Last->Flink = Entry;
    Head->Blink = Entry;
}
FORCEINLINE VOID InsertHeadList(PLIST_ENTRY Head, PLIST_ENTRY Entry) {
    PLIST_ENTRY First = Head->Flink;
    Entry->Flink = First;
    Entry->Blink = Head;
    First->Blink = Entry;
    Head->Flink = Entry;
}

#endif
