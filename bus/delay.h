/*
 * delay.h - millisecond waits for chip settling and write-cycle times.
 */
#pragma once

#include "../wdk/wdk.h"

/* Below 6 ms spins in 50 us processor stalls; from 6 ms on the thread sleeps.
 * Passive level only. */
EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID DelayMilliseconds(_In_ LONG Milliseconds);
EXTERN_C_END
