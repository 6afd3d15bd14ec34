/*
 * delay.cpp - settling and write-cycle waits between bus transfers.
 *
 * Short waits spin: giving the processor up costs at least a scheduler tick,
 * far more than the few milliseconds asked for. From 6 ms on the thread
 * sleeps instead.
 */
#include "delay.h"

// The kernel wait needs passive level anyway.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, DelayMilliseconds)
#endif

#define DELAY_SLEEP_FROM_MS 6   /* shortest wait that sleeps */
#define DELAY_STALL_STEP_US 50  /* one processor stall */
#define HUNDRED_NS_PER_MS 10000

_Use_decl_annotations_
VOID DelayMilliseconds(LONG Milliseconds)
{
    PAGED_CODE();

    if (Milliseconds >= DELAY_SLEEP_FROM_MS) {
        // Negative: relative to now, in 100 ns units.
        LARGE_INTEGER interval;
        interval.QuadPart = (LONGLONG)Milliseconds * -HUNDRED_NS_PER_MS;
        (VOID) KeDelayExecutionThread(KernelMode, FALSE, &interval);
        return;
    }

    // No caller passes a negative count; one would otherwise become a huge
    // unsigned stall count, so it waits as long as 0.
    if (Milliseconds <= 0) {
        return;
    }

    ULONG stalls = (ULONG)Milliseconds * 1000 / DELAY_STALL_STEP_US;
    for (ULONG i = 0; i < stalls; i++) {
        KeStallExecutionProcessor(DELAY_STALL_STEP_US);
    }
}
