// The few routines the compiler calls on its own in C++ kernel code. The
// image has no C or C++ runtime: memcpy, memset, memmove and memcmp come from
// ntoskrnl, 128-bit division from libgcc, and nothing needs constructing
// before DriverEntry. What is left is here.
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
