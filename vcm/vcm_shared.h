/*
 * vcm_shared.h - what the actuator chip drivers have in common, said once:
 * the trace convention, the marker texts of a chip's routines, the bus lock
 * protocol and the end of every locked exchange with the bookkeeping of a
 * move, SetConfig checks, reset ramps, and
 * the two-register position scheme that every chip but DW9714 uses.
 *
 * A chip is described by constant records (VCM_CHIP, VCM_REG_CHIP); one body
 * per operation works from the record, and the named routines of vcm.h are
 * thin wrappers that pass their chip's record.
 */
#pragma once

#include "vcm.h"
#include "../bus/bus_lock.h"
#include "../bus/i2c.h"
#include "../bus/delay.h"
#include "../trace/trace.h"

/* ---- Trace convention ------------------------------------------------------ */

/* Every actuator event names the chip of the row the device's VcmType
 * selects, whichever routine emits it; with VcmType outside the table there
 * is no chip and no event. */
_IRQL_requires_max_(PASSIVE_LEVEL)
inline const CHAR* VcmChipName(_In_opt_ PDEVICE_CONTEXT DeviceContext)
{
    if (DeviceContext == NULL || (ULONG)DeviceContext->VcmType >= VCM_TYPE_COUNT) {
        return NULL;
    }
    return VcmDrivers[DeviceContext->VcmType].Name;
}

/* An event with the chip name and the routine's marker text as its first
 * two arguments, then the numbers Text formats. A disabled event costs the
 * flag test only; the chip lookup runs for enabled ones. */
#define VcmTrace(Flag, Context, Text, Marker, ...)                                              \
    do {                                                                                        \
        if (TraceFlags() & (Flag)) {                                                            \
            const CHAR* vcmChipName = VcmChipName(Context);                                     \
            if (vcmChipName != NULL) {                                                          \
                TraceEvents(Flag, "%s %s" Text, vcmChipName, Marker __VA_OPT__(, ) __VA_ARGS__); \
            }                                                                                   \
        }                                                                                       \
    } while (0)

/* The marker texts of one chip's routines: the routine's name, with " +" at
 * entry and " -" at exit where a routine has both, and the lock-failure texts
 * of the routines that take BusLock. */
typedef struct _VCM_MARKERS {
    const CHAR* InitEnter;
    const CHAR* InitExit;
    const CHAR* ResetPosEnter;
    const CHAR* ResetPosExit;
    const CHAR* SetConfigEnter;
    const CHAR* SetConfigExit;
    const CHAR* SetPos;
    const CHAR* SetPosLockFailed;
    const CHAR* GetPos;
    const CHAR* GetPosLockFailed;
    const CHAR* GetStatus;
    const CHAR* GetStatusLockFailed;
    const CHAR* GetHPStatus;
} VCM_MARKERS;

#define VCM_LOCK_FAILED " KeWaitForSingleObject fail"
#define VCM_MARKERS_OF(Chip)                                                                         \
    {                                                                                                \
        Chip "_Init +", Chip "_Init -", Chip "_ResetPos +", Chip "_ResetPos -", Chip "_SetConfig +", \
            Chip "_SetConfig -", Chip "_SetPos", Chip "_SetPos" VCM_LOCK_FAILED, Chip "_GetPos",     \
            Chip "_GetPos" VCM_LOCK_FAILED, Chip "_GetStatus", Chip "_GetStatus" VCM_LOCK_FAILED,    \
            Chip "_GetHPStatus"                                                                      \
    }

/* ---- Chip records -------------------------------------------------------- */

/* How ResetPos walks the lens to rest: steps of 32 codes with a pause after
 * each, then one last step onto the target. */
typedef enum _VCM_RAMP_STYLE {
    VcmRampDown,        /* only from above the target */
    VcmRampEitherWay,   /* down from above, or else up from below */
    VcmRampDownThenUp,  /* down from above, then up if that overshot */
} VCM_RAMP_STYLE;

#define VCM_RAMP_STEP 32
#define VCM_RAMP_TO_LOW_POSITION (-1) /* Target: VcmLowPosition, read afresh after every step */

typedef struct _VCM_RAMP {
    VCM_SET_POS* SetPos;      /* the chip's own SetPos, lock and bookkeeping included */
    VCM_RAMP_STYLE Style;
    LONG Target;              /* the rest position, or VCM_RAMP_TO_LOW_POSITION */
    LONG Limit;               /* a position above this ends the stepping at once */
    LONG PauseMs;             /* after every step, and after the last on success */
} VCM_RAMP;

/* What every chip has: its texts, its settings table with the number of
 * leading entries whose Reg SetConfig verifies, and its reset ramp. */
typedef struct _VCM_CHIP {
    VCM_MARKERS Markers;
    PVCM_REG_DATA Settings;
    ULONG SettingsCount;      /* also the count SetConfig requires */
    ULONG VerifiedCount;
    VCM_RAMP Ramp;
} VCM_CHIP;

/* One step of an Init that does not simply write every entry to its own
 * register: the entry, and the bits of its register the entry replaces (the
 * others are read from the chip and written back as they were). */
typedef struct _VCM_INIT_STEP {
    UCHAR Entry;
    UCHAR Mask;
} VCM_INIT_STEP;

#define VCM_ALL_BITS 0xFF

/* How a two-register chip differs from the plain case (8-bit addresses, high
 * register written whole and its failure ending SetPos, argument unsigned,
 * clamped code recorded, high register read back first, no identification).
 * A chip with a busy register says so by naming its own GetStatus in the
 * driver table, which reads BusyReg through VcmRegGetStatus. */
#define VCM_WIDE_REGISTERS    0x0001 /* 16-bit register addresses */
#define VCM_MERGE_HIGH        0x0002 /* read the high register, replace only its code bits */
#define VCM_HIGH_STATUS_IGNORED 0x0004 /* the low write alone decides SetPos */
#define VCM_SIGNED_POSITION   0x0008 /* SetPos reads its argument as signed */
#define VCM_RECORD_REQUESTED  0x0010 /* record the requested position, not the code */
#define VCM_LOW_FIRST         0x0020 /* GetPos reads the low register first */
#define VCM_IDENTIFIES        0x0040 /* Init first reads IdReg */

/* A chip whose position code sits in a high and a low register. The code is
 * placed CodeShift bits up in the 16-bit value high:low; HighMask is the part
 * of the high register that holds code bits. What a chip's record leaves out
 * is zero: no flags, no shift, no busy or identification register. */
typedef struct _VCM_REG_CHIP {
    VCM_CHIP Chip;
    ULONG Flags = 0;
    USHORT HighReg = 0;
    USHORT LowReg = 0;
    UCHAR HighMask = 0;
    UCHAR CodeShift = 0;
    LONG MinCode = 0;
    LONG MaxCode = 0;
    USHORT BusyReg = 0;             /* bit 0: busy; read by VcmRegGetStatus */
    USHORT IdReg = 0;               /* with VCM_IDENTIFIES */
    const CHAR* IdText = NULL;      /* the identification's trace text; NULL: the byte goes into Init's exit event */
    const VCM_INIT_STEP* InitSteps = NULL; /* NULL: every entry in order, to its own register */
    ULONG InitStepCount = 0;
} VCM_REG_CHIP;

/* SetPos's code from its argument, within the chip's range. */
_IRQL_requires_max_(PASSIVE_LEVEL)
inline LONG VcmClampPosition(_In_ SHORT Position, _In_ BOOLEAN Signed, _In_ LONG MinCode, _In_ LONG MaxCode)
{
    LONG code = Signed ? (LONG)Position : (LONG)(USHORT)Position;
    if (code > MaxCode) {
        code = MaxCode;
    }
    if (code < MinCode) {
        code = MinCode;
    }
    return code;
}

/* The named Init, ResetPos, SetPos, GetPos and SetConfig of a two-register
 * chip: one body per operation, given the chip's record. */
#define VCM_REG_CHIP_ROUTINES(Name, Record)                                                          \
    _Use_decl_annotations_                                                                           \
    NTSTATUS Name##_Init(PDEVICE_CONTEXT DeviceContext)                                              \
    {                                                                                                \
        PAGED_CODE();                                                                                \
        return VcmRegInit(DeviceContext, &Record);                                                   \
    }                                                                                                \
    _Use_decl_annotations_                                                                           \
    NTSTATUS Name##_ResetPos(PDEVICE_CONTEXT DeviceContext)                                          \
    {                                                                                                \
        PAGED_CODE();                                                                                \
        return VcmResetPos(DeviceContext, &Record.Chip);                                             \
    }                                                                                                \
    _Use_decl_annotations_                                                                           \
    NTSTATUS Name##_SetPos(PDEVICE_CONTEXT DeviceContext, SHORT Position)                            \
    {                                                                                                \
        PAGED_CODE();                                                                                \
        return VcmRegSetPos(DeviceContext, &Record, Position);                                       \
    }                                                                                                \
    _Use_decl_annotations_                                                                           \
    NTSTATUS Name##_GetPos(PDEVICE_CONTEXT DeviceContext, PUSHORT Position)                          \
    {                                                                                                \
        PAGED_CODE();                                                                                \
        return VcmRegGetPos(DeviceContext, &Record, Position);                                       \
    }                                                                                                \
    _Use_decl_annotations_                                                                           \
    NTSTATUS Name##_SetConfig(PDEVICE_CONTEXT DeviceContext, const ULONG* Config)                    \
    {                                                                                                \
        PAGED_CODE();                                                                                \
        return VcmSetConfig(DeviceContext, Config, &Record.Chip);                                    \
    }

EXTERN_C_START

/* ---- Shared rules (vcm_table.cpp) ---- */

/* Waits for BusLock; a wait that does not return STATUS_SUCCESS is traced
 * with the routine's lock-failure text and returned, the lock not taken. */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmLockBus(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_z_ const CHAR* LockFailedMarker);
/* After a SetPos exchange, given the status of its transfers: the move is
 * recorded when the chip took it, then BusLock is released whatever
 * happened. */
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID VcmFinishMove(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ USHORT NewPosition, _In_ NTSTATUS Status);
EXTERN_C_END

/* How every locked exchange ends: the move finished (SetPos) or BusLock
 * released (a read), then the routine's exit event with the recorded
 * position (signed) or the value read (unsigned) and the status, which is
 * returned. Macros, so that the event is the chip source's own and keeps
 * that module's message GUID and number. */
#define VcmReturnMoved(Context, Marker, Position, Status)                                   \
    do {                                                                                    \
        VcmFinishMove(Context, Position, Status);                                           \
        VcmTrace(TRACE_INFO, Context, " %d %!STATUS!", Marker, (LONG)(SHORT)(Position), Status); \
        return Status;                                                                      \
    } while (0)
#define VcmReturnRead(Context, Marker, Value, Status)                                       \
    do {                                                                                    \
        ReleaseBusLock(&(Context)->BusLock);                                                \
        VcmTrace(TRACE_INFO, Context, " %u %!STATUS!", Marker, (ULONG)(Value), Status);     \
        return Status;                                                                      \
    } while (0)
EXTERN_C_START
/* The settle rule with the chip's GetHPStatus trace. */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmReportSettled(_In_ PDEVICE_CONTEXT DeviceContext, _Out_ PULONG Status, _In_z_ const CHAR* Marker);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmSetConfig(_In_ PDEVICE_CONTEXT DeviceContext, _In_reads_(1 + 2 * Config[0]) const ULONG* Config,
                      _In_ const VCM_CHIP* Chip);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmResetPos(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_CHIP* Chip);

/* ---- The two-register scheme (vcm_pair.cpp) ---- */

/* Identification read and settings writes, without Init's traces; the
 * identification byte goes to *Id. */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmRegProgram(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_REG_CHIP* Chip, _Inout_ PUCHAR Id);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmRegInit(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_REG_CHIP* Chip);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmRegSetPos(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_REG_CHIP* Chip, _In_ SHORT Position);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmRegGetPos(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_REG_CHIP* Chip, _Out_ PUSHORT Position);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmRegGetStatus(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_REG_CHIP* Chip, _Out_ PULONG Status);

EXTERN_C_END
