// Lock annotations. Written after the declarator. Under clang they become thread-safety attributes,
// with every other compiler they vanish.
#ifndef NT_CONCURRENCYSAL_H
#define NT_CONCURRENCYSAL_H

#if defined(__clang__)
#define NT_LOCK_ATTRIBUTE_(x) __attribute__((x))
#else
#define NT_LOCK_ATTRIBUTE_(x)
#endif

// What makes a record a lock for the analysis, with the word its messages use for it.
#define NT_CAPABILITY_(text) NT_LOCK_ATTRIBUTE_(capability(text))

#define _Requires_lock_held_(...) NT_LOCK_ATTRIBUTE_(requires_capability(__VA_ARGS__))
#define _Requires_exclusive_lock_held_(...) NT_LOCK_ATTRIBUTE_(requires_capability(__VA_ARGS__))
#define _Requires_shared_lock_held_(...) NT_LOCK_ATTRIBUTE_(requires_shared_capability(__VA_ARGS__))
#define _Requires_lock_not_held_(...) NT_LOCK_ATTRIBUTE_(locks_excluded(__VA_ARGS__))
#define _Acquires_lock_(...) NT_LOCK_ATTRIBUTE_(acquire_capability(__VA_ARGS__))
#define _Acquires_exclusive_lock_(...) NT_LOCK_ATTRIBUTE_(acquire_capability(__VA_ARGS__))
#define _Releases_lock_(...) NT_LOCK_ATTRIBUTE_(release_capability(__VA_ARGS__))
#define _Releases_exclusive_lock_(...) NT_LOCK_ATTRIBUTE_(release_capability(__VA_ARGS__))
#define _Guarded_by_(x) NT_LOCK_ATTRIBUTE_(guarded_by(x))
#define _Points_to_guarded_by_(x) NT_LOCK_ATTRIBUTE_(pt_guarded_by(x))
#define _Interlocked_
#define _Has_lock_kind_(kind)
#define _Create_lock_level_(level)
#define _Lock_level_order_(a, b)
#define _Post_same_lock_(a, b)

// For the few bodies the analysis cannot follow (conditional locking, a lock known by two names).
#define _No_thread_safety_analysis_ NT_LOCK_ATTRIBUTE_(no_thread_safety_analysis)

#if defined(__clang__) && defined(__cplusplus)
extern "C++" {
template <class Lock>
inline void NtAnalysisAcquired(Lock& lock) __attribute__((acquire_capability(lock)))
__attribute__((no_thread_safety_analysis)) {
    (void)lock;
}
template <class Lock>
inline void NtAnalysisReleased(Lock& lock) __attribute__((release_capability(lock)))
__attribute__((no_thread_safety_analysis)) {
    (void)lock;
}
template <class Lock>
inline void NtAnalysisHeld(Lock& lock) __attribute__((assert_capability(lock)))
__attribute__((no_thread_safety_analysis)) {
    (void)lock;
}
}
#define _Analysis_assume_lock_acquired_(x) NtAnalysisAcquired(x)
#define _Analysis_assume_lock_released_(x) NtAnalysisReleased(x)
#define _Analysis_assume_lock_held_(x) NtAnalysisHeld(x)
#else
#define _Analysis_assume_lock_acquired_(x)
#define _Analysis_assume_lock_released_(x)
#define _Analysis_assume_lock_held_(x)
#endif
#define _Analysis_assume_(x)
#define _Analysis_assume_same_lock_(a, b)

#endif
