/*
 * vcm_table.cpp - the actuator driver table, the settings tables Init
 * programs, and the rules every chip driver follows: the settle-time status,
 * the bus lock protocol, the bookkeeping of a move, SetConfig checks and the
 * reset ramps.
 *
 * BusLock is the device's one lock around bus sequences; the memory commands
 * take it too. SetPos, GetPos and the chip-reading GetStatus hold it for
 * their transfers only, so a ramp lets other work onto the bus between its
 * steps. The settle-time routines read the last move without a lock: the
 * fields are written whole, through the no-fence accessors.
 */
#include "vcm_shared.h"

// {611D0622-5A59-4D3C-B5C8-4B3827C1FE56}
static const GUID VcmTableTraceGuid = {0x611d0622, 0x5a59, 0x4d3c, {0xb5, 0xc8, 0x4b, 0x38, 0x27, 0xc1, 0xfe, 0x56}};
TRACE_MODULE(VcmTableTraceGuid);

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static BOOLEAN VcmMoving(_In_ PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(PASSIVE_LEVEL)
static LONG VcmRampTarget(_In_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_RAMP* Ramp);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS VcmRampWalk(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_RAMP* Ramp, _In_ LONG Direction,
                            _Inout_ PLONG Position, _Inout_ PLONG Target);
EXTERN_C_END

// Waits on an event and sleeps between ramp steps: passive level only.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, VcmMoving)
#pragma alloc_text(PAGE, VcmTimedGetStatus)
#pragma alloc_text(PAGE, VcmTimedGetHPStatus)
#pragma alloc_text(PAGE, VcmLockBus)
#pragma alloc_text(PAGE, VcmFinishMove)
#pragma alloc_text(PAGE, VcmReportSettled)
#pragma alloc_text(PAGE, VcmSetConfig)
#pragma alloc_text(PAGE, VcmRampTarget)
#pragma alloc_text(PAGE, VcmRampWalk)
#pragma alloc_text(PAGE, VcmResetPos)
#endif

/* ---- Settings tables: what Init programs, until a SetConfig replaces the data ---- */

VCM_REG_DATA AD5823_Settings[AD5823_SETTINGS_COUNT] = {
    {0x02, 0x00}, {0x03, 0x60}, {0x04, 0x04}, {0x05, 0x00}, {0x06, 0x00}, {0x07, 0xA0},
};
/* Four command words (Reg is the high byte), then the mode nibble of every
 * position word in entry 4's Data. */
VCM_REG_DATA DW9714_Settings[DW9714_SETTINGS_COUNT] = {
    {0xEC, 0xA3}, {0xA1, 0x0D}, {0xF2, 0xC0}, {0xDC, 0x51}, {0x00, 0x00},
};
VCM_REG_DATA AD5816_Settings[AD5816_SETTINGS_COUNT] = {
    {0x02, 0x02}, {0x06, 0x02}, {0x07, 0x96}, {0x08, 0x50}, {0x03, 0x00}, {0x04, 0x00},
};
VCM_REG_DATA DW9719_Settings[DW9719_SETTINGS_COUNT] = {
    {0x02, 0x01}, {0x02, 0x02}, {0x06, 0x40}, {0x07, 0x60}, {0x03, 0x00}, {0x04, 0x00},
};
VCM_REG_DATA DW9718_Settings[DW9718_SETTINGS_COUNT] = {
    {0x00, 0x00}, {0x01, 0x39}, {0x02, 0x00}, {0x03, 0x00}, {0x04, 0x00}, {0x05, 0x61}, {0x10, 0x00},
};
/* Entry 2 is a 1 ms pause between leaving power-down and the ring mode. */
VCM_REG_DATA DW9806B_Settings[DW9806B_SETTINGS_COUNT] = {
    {0x02, 0x01}, {0x02, 0x00}, {VCM_PAUSE_REG, 0x01}, {0x02, 0x02}, {0x06, 0x61}, {0x07, 0x3D},
};
VCM_REG_DATA WV517S_Settings[WV517S_SETTINGS_COUNT] = {
    {0x40, 0x01}, {0x41, 0x00}, {0x42, 0x00}, {0x43, 0x01}, {0x44, 0xA0}, {0x45, 0x00},
};
/* Entries 12 and 13 put the lens at code 1024, the middle of its range. */
VCM_REG_DATA LC898122XA_Settings[LC898122XA_SETTINGS_COUNT] = {
    {0x02D0, 0x03}, {0x0256, 0x00}, {0x0257, 0x90}, {0x0258, 0x00}, {0x020B, 0x1F}, {0x020C, 0x00},
    {0x0210, 0x00}, {0x0211, 0x00}, {0x0212, 0x02}, {0x0213, 0x00}, {0x0214, 0x06}, {0x00A0, 0x00},
    {0x0380, 0x80}, {0x0381, 0x00}, {0x0081, 0x10}, {0x0083, 0x40}, {0x0084, 0x80}, {0x0088, 0x90},
    {0x0082, 0x00}, {0x0085, 0x00}, {0x0091, 0x01}, {0x0099, 0x20}, {0x00A1, 0x08}, {0x0250, 0x00},
    {0x0264, 0x00}, {0x0302, 0x02}, {0x0396, 0x7F}, {0x0397, 0xFF}, {0x0398, 0x11}, {0x0399, 0x3E},
    {0x039A, 0x72}, {0x039B, 0x11}, {0x0303, 0xA9}, {0x0304, 0x04}, {0x0250, 0x80}, {0x0264, 0x05},
    {0x0081, 0x10}, {0x00A0, 0x80},
};

/* ---- The driver table, indexed by VcmType ---- */

const VCM_DRIVER VcmDrivers[VCM_TYPE_COUNT] = {
    {0, "NoneVCM", 0, NULL, NULL, NULL, NULL, NULL, NULL, NULL},
    {1, "AD5823", 1, AD5823_Init, AD5823_ResetPos, AD5823_SetPos, AD5823_GetPos, VcmTimedGetStatus,
     AD5823_GetHPStatus, AD5823_SetConfig},
    {2, "DW9714", 1, DW9714_Init, DW9714_ResetPos, DW9714_SetPos, DW9714_GetPos, VcmTimedGetStatus,
     VcmTimedGetHPStatus, DW9714_SetConfig},
    {3, "AD5816", 1, AD5816_Init, AD5816_ResetPos, AD5816_SetPos, AD5816_GetPos, VcmTimedGetStatus,
     AD5816_GetHPStatus, AD5816_SetConfig},
    {4, "DW9719", 1, DW9719_Init, DW9719_ResetPos, DW9719_SetPos, DW9719_GetPos, DW9719_GetStatus,
     DW9719_GetHPStatus, DW9719_SetConfig},
    {5, "DW9718", 1, DW9718_Init, DW9718_ResetPos, DW9718_SetPos, DW9718_GetPos, VcmTimedGetStatus,
     VcmTimedGetHPStatus, DW9718_SetConfig},
    {6, "DW9806B", 1, DW9806B_Init, DW9806B_ResetPos, DW9806B_SetPos, DW9806B_GetPos, DW9806B_GetStatus,
     DW9806B_GetHPStatus, DW9806B_SetConfig},
    {7, "WV517S", 1, WV517S_Init, WV517S_ResetPos, WV517S_SetPos, WV517S_GetPos, VcmTimedGetStatus,
     VcmTimedGetHPStatus, WV517S_SetConfig},
    {8, "LC898122XA", 0x400, LC898122XA_Init, LC898122XA_ResetPos, LC898122XA_SetPos, LC898122XA_GetPos,
     LC898122XA_GetStatus, VcmTimedGetHPStatus, LC898122XA_SetConfig},
};

/* ---- Settle time ---- */

/* One millisecond per code of the last move, at most 40 ms, in 100 ns units. */
#define VCM_SETTLE_PER_CODE 10000
#define VCM_SETTLE_MAX      400000

/* Whether the last move's settle time has not yet passed. */
_Use_decl_annotations_
static BOOLEAN VcmMoving(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    LONG distance = ReadNoFence(&DeviceContext->VcmLastMoveDistance);
    ULONGLONG settle = (distance < 0 ? (ULONGLONG)(-(LONGLONG)distance) : (ULONGLONG)distance) * VCM_SETTLE_PER_CODE;
    if (settle > VCM_SETTLE_MAX) {
        settle = VCM_SETTLE_MAX;
    }
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    LONG64 elapsed = now.QuadPart - ReadNoFence64(&DeviceContext->VcmLastMoveTime);
    return elapsed <= (LONG64)settle;
}

_Use_decl_annotations_
NTSTATUS VcmTimedGetStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Status == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *Status = VcmMoving(DeviceContext) ? 1 : 0;
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS VcmTimedGetHPStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Status == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *Status = VcmMoving(DeviceContext) ? 0 : 1;
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS VcmReportSettled(PDEVICE_CONTEXT DeviceContext, PULONG Status, const CHAR* Marker)
{
    PAGED_CODE();

    NTSTATUS status = VcmTimedGetHPStatus(DeviceContext, Status);
    if (NT_SUCCESS(status)) {
        VcmTrace(TRACE_INFO, DeviceContext, " %u %!STATUS!", Marker, *Status, status);
    }
    return status;
}

/* ---- Lock protocol and bookkeeping ---- */

_Use_decl_annotations_
NTSTATUS VcmLockBus(PDEVICE_CONTEXT DeviceContext, const CHAR* LockFailedMarker)
{
    PAGED_CODE();

    // Any other answer, a success code such as STATUS_ALERTED included, means
    // the lock is not ours.
    NTSTATUS status = AcquireBusLock(&DeviceContext->BusLock);
    if (status != STATUS_SUCCESS) {
        VcmTrace(TRACE_INFO, DeviceContext, " %!STATUS!", LockFailedMarker, status);
        return status;
    }
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
VOID VcmFinishMove(PDEVICE_CONTEXT DeviceContext, USHORT NewPosition, NTSTATUS Status)
{
    PAGED_CODE();

    // Recorded while the lock is still held, so that a status or settle
    // query never sees a move the chip did not take.
    if (NT_SUCCESS(Status)) {
        // The new position counts unsigned, the previous one signed: a chip
        // that records a negative request moves "far" and settles for the
        // longest time.
        LONG distance = (LONG)NewPosition - (LONG)ReadNoFence16(&DeviceContext->VcmPosition);
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        WriteNoFence(&DeviceContext->VcmLastMoveDistance, distance);
        WriteNoFence16(&DeviceContext->VcmPosition, (SHORT)NewPosition);
        WriteNoFence64(&DeviceContext->VcmLastMoveTime, now.QuadPart);
    }
    ReleaseBusLock(&DeviceContext->BusLock);
}

/* ---- SetConfig ---- */

_Use_decl_annotations_
NTSTATUS VcmSetConfig(PDEVICE_CONTEXT DeviceContext, const ULONG* Config, const VCM_CHIP* Chip)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Chip == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    const VCM_MARKERS* m = &Chip->Markers;
    VcmTrace(TRACE_INFO, DeviceContext, "", m->SetConfigEnter);
    if (Config == NULL) {
        VcmTrace(TRACE_INFO, DeviceContext, "", m->SetConfigExit);
        return STATUS_INVALID_PARAMETER;
    }

    // Malformed input is reported only through the traces: the caller gets
    // success and the table stays as it was.
    ULONG count = Config[0];
    if (count != Chip->SettingsCount) {
        VcmTrace(TRACE_INFO, DeviceContext, " %u", "incorrect count", count);
        VcmTrace(TRACE_INFO, DeviceContext, "", m->SetConfigExit);
        return STATUS_SUCCESS;
    }
    const ULONG* pairs = &Config[1];
    for (ULONG i = 0; i < Chip->VerifiedCount; i++) {
        ULONG reg = pairs[2 * i];
        ULONG data = pairs[2 * i + 1];
        VcmTrace(TRACE_INFO, DeviceContext, " 0x%x 0x%x", "reg - data", reg, data);
        if (reg != Chip->Settings[i].Reg) {
            VcmTrace(TRACE_INFO, DeviceContext, " 0x%x 0x%x", "incorrect reg - data", reg, data);
            VcmTrace(TRACE_INFO, DeviceContext, "", m->SetConfigExit);
            return STATUS_SUCCESS;
        }
    }

    // Only the data changes: the registers are the chip's.
    for (ULONG i = 0; i < count; i++) {
        Chip->Settings[i].Data = pairs[2 * i + 1];
    }
    VcmTrace(TRACE_INFO, DeviceContext, "", m->SetConfigExit);
    return STATUS_SUCCESS;
}

/* ---- Reset ramps ---- */

/* The ramp's rest position: the module's low position, read afresh at every
 * step, or the chip's constant. */
_Use_decl_annotations_
static LONG VcmRampTarget(PDEVICE_CONTEXT DeviceContext, const VCM_RAMP* Ramp)
{
    PAGED_CODE();

    return Ramp->Target == VCM_RAMP_TO_LOW_POSITION ? (LONG)DeviceContext->VcmLowPosition : Ramp->Target;
}

/* Steps of 32 codes in Direction (-1 down, +1 up) while the position is on
 * the far side of the target, re-commanding the current position first and
 * pausing after every step so that the lens does not hit its stop. A
 * position above the chip's range is not stepped from. */
_Use_decl_annotations_
static NTSTATUS VcmRampWalk(PDEVICE_CONTEXT DeviceContext, const VCM_RAMP* Ramp, LONG Direction, PLONG Position,
                            PLONG Target)
{
    PAGED_CODE();

    NTSTATUS status = STATUS_SUCCESS;
    LONG p = *Position;
    LONG target = *Target;
    do {
        if (p > Ramp->Limit) {
            break;
        }
        status = Ramp->SetPos(DeviceContext, (SHORT)p);
        if (!NT_SUCCESS(status)) {
            break;
        }
        DelayMilliseconds(Ramp->PauseMs);
        target = VcmRampTarget(DeviceContext, Ramp);
        p += Direction * VCM_RAMP_STEP;
    } while (Direction < 0 ? p > target : p < target);
    *Position = p;
    *Target = target;
    return status;
}

_Use_decl_annotations_
NTSTATUS VcmResetPos(PDEVICE_CONTEXT DeviceContext, const VCM_CHIP* Chip)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Chip == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    const VCM_RAMP* ramp = &Chip->Ramp;
    VcmTrace(TRACE_INFO, DeviceContext, "", Chip->Markers.ResetPosEnter);

    NTSTATUS status = STATUS_SUCCESS;
    LONG p = ReadNoFence16(&DeviceContext->VcmPosition);
    LONG target = VcmRampTarget(DeviceContext, ramp);
    BOOLEAN down = p > target;
    if (down) {
        status = VcmRampWalk(DeviceContext, ramp, -1, &p, &target);
    }
    // Coming up from below: on a chip that ramps either way only when it did
    // not come down; on one that ramps down then up, also after a descent
    // that overshot the rest position.
    if (NT_SUCCESS(status) && p < target &&
        (ramp->Style == VcmRampDownThenUp || (ramp->Style == VcmRampEitherWay && !down))) {
        status = VcmRampWalk(DeviceContext, ramp, 1, &p, &target);
    }
    if (NT_SUCCESS(status)) {
        status = ramp->SetPos(DeviceContext, (SHORT)target);
        if (NT_SUCCESS(status)) {
            DelayMilliseconds(ramp->PauseMs);
        }
    }
    VcmTrace(TRACE_INFO, DeviceContext, "", Chip->Markers.ResetPosExit);
    return status;
}
