// The few routines the compiler calls on its own in C++ kernel code. The
// image has no C or C++ runtime: memcpy, memset and strlen come from
// ntoskrnl, and nothing needs constructing before DriverEntry. What is left
// is here.
#include <ntddk.h>

// Bug check code of a call through a pure virtual slot: a class was used
// while it was being constructed or destroyed.
#define ETHBRG_BUGCHECK_PURE_VIRTUAL_CALL 0xE0070010

extern "C" void __cxa_pure_virtual()
{
    DbgPrint("ethbrg: FATAL: pure virtual call from %p\n", __builtin_return_address(0));
    KeBugCheckEx(ETHBRG_BUGCHECK_PURE_VIRTUAL_CALL, (ULONG_PTR)__builtin_return_address(0), 0, 0, 0);
}

// A class with a virtual destructor has a deleting destructor, which names
// the global operator delete although the driver never deletes through it:
// every object is allocated from pool, by its class's operator new or by the
// pool forms of operator new. Should one ever be deleted this way, its
// memory goes back to the pool it came from.
void operator delete(void* p) noexcept
{
    if (p != NULL) {
        ExFreePool(p);
    }
}

void operator delete(void* p, size_t) noexcept
{
    operator delete(p);
}

// 128-bit division, which the compiler calls for __int128 operands (the
// trace's time stamps scale the performance counter in 128 bits). Operands
// that fit 64 bits take the processor's division; the rest shift and
// subtract, one quotient bit per round.
extern "C" unsigned __int128 __udivti3(unsigned __int128 n, unsigned __int128 d)
{
    if ((n >> 64) == 0 && (d >> 64) == 0) {
        return (ULONGLONG)n / (ULONGLONG)d;
    }
    unsigned __int128 q = 0, r = 0;
    for (int i = 127; i >= 0; i--) {
        r = (r << 1) | ((n >> i) & 1);
        if (r >= d) {
            r -= d;
            q |= (unsigned __int128)1 << i;
        }
    }
    return q;
}

extern "C" __int128 __divti3(__int128 n, __int128 d)
{
    unsigned __int128 q = __udivti3(n < 0 ? -(unsigned __int128)n : (unsigned __int128)n,
                                    d < 0 ? -(unsigned __int128)d : (unsigned __int128)d);
    return (n < 0) != (d < 0) ? -(__int128)q : (__int128)q;
}
