/*
 * wdk.h - the one platform header of every driver source.
 *
 * Three builds share the driver sources:
 *   KORVANEL_WDK          Windows, the real WDK headers.
 *   KORVANEL_CROSS_CHECK  mingw-w64 compile-only check against its DDK headers,
 *                         plus our KMDF 1.15 and SPB declarations.
 *   (default)             Linux host build on top of wdk/wdm.h.
 */
#pragma once

#if defined(KORVANEL_WDK)

/* wdm.h declares WmiTraceMessage only for trace-message builds; this driver
 * sends its own messages. */
#define RUN_WPP
#include <ntddk.h>
#include <wdf.h>
#include <ntstrsafe.h>
#include <spb.h>
#include <reshub.h>
#include <wmistr.h>
#include <evntrace.h> /* TRACE_ENABLE_CONTEXT, the trace message flags */

#elif defined(KORVANEL_CROSS_CHECK)

/* wdm.h declares these two intrinsics in a form g++ rejects unless told
 * they are already defined. */
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset
/* mingw declares WmiTraceMessage only for WPP builds. */
#define RUN_WPP
#include <ntddk.h>
#include <ntstrsafe.h>
#include <wmistr.h>
#include "kmdf.h"
#include "spb.h"

#else

#include "wdm.h"
#include "kmdf.h"
#include "spb.h"

#endif

#include "wdk_extras.h"
