/*
 * bus_lock.h - BusLock, the device's one lock around the bus sequences of the
 * lens actuator and the module memory: an auto-reset event, signalled while
 * free, not recursive.
 */
#pragma once

#include "../wdk/wdk.h"

EXTERN_C_START
/* Waits for the lock without a time-out, in kernel mode, not alertable.
 * STATUS_SUCCESS is the only answer that means the caller holds it; any
 * other status is returned as the wait gave it, and the lock is then not the
 * caller's to release. The caller traces a failure in its own words.
 * Passive level only. */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS AcquireBusLock(_Inout_ PKEVENT BusLock);
/* Hands the lock to the next waiter; no wait follows. */
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID ReleaseBusLock(_Inout_ PKEVENT BusLock);
EXTERN_C_END
