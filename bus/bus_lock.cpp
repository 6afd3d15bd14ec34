/*
 * bus_lock.cpp - taking and giving back BusLock. The actuator operations and
 * the memory commands share it, so that no transfer of one falls between the
 * address and data phases, or the write cycles, of the other.
 */
#include "bus_lock.h"

// The wait has no time-out: passive level only.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, AcquireBusLock)
#pragma alloc_text(PAGE, ReleaseBusLock)
#endif

_Use_decl_annotations_
NTSTATUS AcquireBusLock(PKEVENT BusLock)
{
    PAGED_CODE();

    if (BusLock == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    return KeWaitForSingleObject(BusLock, Executive, KernelMode, FALSE, NULL);
}

_Use_decl_annotations_
VOID ReleaseBusLock(PKEVENT BusLock)
{
    PAGED_CODE();

    if (BusLock != NULL) {
        (VOID) KeSetEvent(BusLock, 0, FALSE);
    }
}
