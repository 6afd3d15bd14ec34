/*
 * bus_lock.h - BusLock, the device's one lock around the bus sequences of the
 * lens actuator and the module memory: an auto-reset event, signalled while
 * free, not recursive.
 */
#pragma once

#include "../wdk/wdk.h"

EXTERN_C_START
/* Waits for the lock without a time-out, in kernel mode, not alertable, and
 * returns the wait's status as it came. What the status means is each
 * caller's rule, applied where it calls: the actuator operations go on only
 * on STATUS_SUCCESS (VcmLockBus); a linear memory command whose member
 * checks the wait goes on on any NT_SUCCESS status; the block commands and
 * the linear members that do not check it go on whatever it says (such a
 * wait on an event returns only STATUS_SUCCESS) and release the lock at the
 * end like any other path. A caller that stops traces the failure in its
 * own words and does not release. Passive level only. */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS AcquireBusLock(_Inout_ PKEVENT BusLock);
/* Hands the lock to the next waiter; no wait follows. */
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID ReleaseBusLock(_Inout_ PKEVENT BusLock);
EXTERN_C_END
