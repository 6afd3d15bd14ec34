/*
 * vcm_dw9806b.cpp - the DW9806B actuator.
 *
 * Its registers are those of the DW9719: code bits 9..8 in register 0x03
 * (merged with the other bits there), bits 7..0 in register 0x04, busy in
 * bit 0 of register 0x05, identification in register 0x00, the control
 * register 0x02. SetPos, GetPos and GetStatus are the shared two-register
 * scheme with a code range of 1..1023.
 *
 * What sets it apart are the camera modules it sits in. Two of them, known by
 * the device's sensor name, need the lens walked gently: after start-up the
 * warm start brings the lens up to the module's low position (START2REAR, in
 * steps of 8 with the ring control off) or 50 codes above it (CM500RF05SW700,
 * steps of 32, 10 ms apart), and the reset ramps bring it down in steps that
 * shrink near the low position. Any other module goes straight to rest.
 *
 * The register 0x02 writes of the warm start and the ramp switch the ring
 * control off and on around a walk; a failed switch must not strand the lens
 * mid-walk, so only the final switch-on gives the warm start its result.
 */
#include "vcm_shared.h"

// {51D14962-82A6-455E-BF7D-9A0A8E90D665}
static const GUID VcmDw9806bTraceGuid = {0x51d14962, 0x82a6, 0x455e, {0xbf, 0x7d, 0x9a, 0x0a, 0x8e, 0x90, 0xd6, 0x65}};
TRACE_MODULE(VcmDw9806bTraceGuid);

typedef enum _DW9806B_MODULE {
    Dw9806bModuleOther,
    Dw9806bModuleStart2Rear,
    Dw9806bModuleCm500,
} DW9806B_MODULE;

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static DW9806B_MODULE Dw9806bModule(_In_ PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS Dw9806bWalkUp(_Inout_ PDEVICE_CONTEXT DeviceContext, _Inout_ PLONG Position, _In_ ULONG Bound,
                              _In_ LONG Step, _In_ LONG PauseMs);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS Dw9806bStart2RearDown(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ LONG Position);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS Dw9806bCm500Down(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ LONG Position);
EXTERN_C_END

#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, Dw9806bModule)
#pragma alloc_text(PAGE, Dw9806bWalkUp)
#pragma alloc_text(PAGE, Dw9806bStart2RearDown)
#pragma alloc_text(PAGE, Dw9806bCm500Down)
#pragma alloc_text(PAGE, DW9806B_Init)
#pragma alloc_text(PAGE, DW9806B_WarmStart)
#pragma alloc_text(PAGE, DW9806B_ResetPos)
#pragma alloc_text(PAGE, DW9806B_SetPos)
#pragma alloc_text(PAGE, DW9806B_GetPos)
#pragma alloc_text(PAGE, DW9806B_GetStatus)
#pragma alloc_text(PAGE, DW9806B_GetHPStatus)
#pragma alloc_text(PAGE, DW9806B_SetConfig)
#endif

#define DW9806B_CONTROL_REG 0x02
#define DW9806B_RING_OFF    0x00
#define DW9806B_RING_ON     0x02
#define DW9806B_MAX_CODE    1023

/* Its own reset ramps; the record's ramp is not used. */
static const VCM_REG_CHIP Dw9806bChip = {
    .Chip = {.Markers = VCM_MARKERS_OF("DW9806B"),
             .Settings = DW9806B_Settings,
             .SettingsCount = DW9806B_SETTINGS_COUNT,
             .VerifiedCount = 5,
             .Ramp = {}},
    .Flags = VCM_MERGE_HIGH | VCM_SIGNED_POSITION | VCM_RECORD_REQUESTED | VCM_IDENTIFIES,
    .HighReg = 0x03,
    .LowReg = 0x04,
    .HighMask = 0x03,
    .MinCode = 1,
    .MaxCode = DW9806B_MAX_CODE,
    .BusyReg = 0x05,
    .IdReg = 0x00,
    .IdText = "IC Info:",
};

/* The camera module, from the sensor name, ignoring ASCII case. */
_Use_decl_annotations_
static DW9806B_MODULE Dw9806bModule(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    static const struct {
        const CHAR* Name;
        DW9806B_MODULE Module;
    } modules[] = {
        {"START2REAR", Dw9806bModuleStart2Rear},
        {"CM500RF05SW700", Dw9806bModuleCm500},
    };
    for (ULONG m = 0; m < RTL_NUMBER_OF(modules); m++) {
        const CHAR* name = modules[m].Name;
        ULONG i = 0;
        for (; i < SENSOR_NAME_SIZE; i++) {
            CHAR a = DeviceContext->SensorName[i];
            CHAR b = name[i];
            if (a >= 'a' && a <= 'z') {
                a = (CHAR)(a - 'a' + 'A');
            }
            if (a != b || a == 0) {
                break;
            }
        }
        if (i < SENSOR_NAME_SIZE && DeviceContext->SensorName[i] == 0 && name[i] == 0) {
            return modules[m].Module;
        }
    }
    return Dw9806bModuleOther;
}

/* The warm start's walk: from *Position up in Step codes while the position
 * is above 1 and not past Bound, pausing PauseMs after each step (0: none,
 * the bus paces it). *Position is where the walk stopped: one step past the
 * last position commanded, or the position whose SetPos failed. */
_Use_decl_annotations_
static NTSTATUS Dw9806bWalkUp(PDEVICE_CONTEXT DeviceContext, PLONG Position, ULONG Bound, LONG Step, LONG PauseMs)
{
    PAGED_CODE();

    NTSTATUS status = STATUS_SUCCESS;
    LONG p = *Position;
    while (p > 1 && (ULONG)p <= Bound) {
        status = DW9806B_SetPos(DeviceContext, (SHORT)p);
        if (!NT_SUCCESS(status)) {
            break;
        }
        p += Step;
        DelayMilliseconds(PauseMs);
    }
    *Position = p;
    return status;
}

_Use_decl_annotations_
NTSTATUS DW9806B_Init(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    const VCM_MARKERS* m = &Dw9806bChip.Chip.Markers;
    VcmTrace(TRACE_INFO, DeviceContext, "", m->InitEnter);

    UCHAR id = 0;
    NTSTATUS status = VcmRegProgram(DeviceContext, &Dw9806bChip, &id);
    if (NT_SUCCESS(status)) {
        // Where the warm start begins its walk; nothing moves yet.
        LONG low = DeviceContext->VcmLowPosition;
        switch (Dw9806bModule(DeviceContext)) {
        case Dw9806bModuleStart2Rear:
            WriteNoFence16(&DeviceContext->VcmPosition, (SHORT)(low <= 320 ? 120 : low - 200));
            break;
        case Dw9806bModuleCm500:
            WriteNoFence16(&DeviceContext->VcmPosition, (SHORT)(USHORT)(low - 50));
            break;
        default:
            break;
        }
        // The chip is programmed whatever the walk does.
        (VOID) DW9806B_WarmStart(DeviceContext);
    }

    VcmTrace(TRACE_INFO, DeviceContext, "", m->InitExit);
    return status;
}

_Use_decl_annotations_
NTSTATUS DW9806B_WarmStart(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    VcmTrace(TRACE_INFO, DeviceContext, "", "DW9806B_WarmStart +");

    NTSTATUS result = STATUS_SUCCESS;
    NTSTATUS status = STATUS_SUCCESS;
    LONG p = ReadNoFence16(&DeviceContext->VcmPosition);
    switch (Dw9806bModule(DeviceContext)) {
    case Dw9806bModuleStart2Rear:
        // Ring control off for the walk, steps of 8 up to the low position,
        // then the last position reached is the recorded one.
        (VOID) VcmWriteReg8(DeviceContext, DW9806B_CONTROL_REG, DW9806B_RING_OFF);
        status = Dw9806bWalkUp(DeviceContext, &p, DeviceContext->VcmLowPosition, 8, 0);
        if (NT_SUCCESS(status)) {
            WriteNoFence16(&DeviceContext->VcmPosition, (SHORT)(p - 8));
            result = VcmWriteReg8(DeviceContext, DW9806B_CONTROL_REG, DW9806B_RING_ON);
        }
        break;
    case Dw9806bModuleCm500:
        status = Dw9806bWalkUp(DeviceContext, &p, (ULONG)DeviceContext->VcmLowPosition + 50, 32, 10);
        break;
    default:
        break;
    }

    VcmTrace(TRACE_INFO, DeviceContext, "", "DW9806B_WarmStart -");
    return NT_SUCCESS(status) ? result : status;
}

/* START2REAR: 8-code steps between the low and the high position, 2-code
 * steps from the low position down to 120, 32-code steps below; no pauses,
 * the bus paces it. */
_Use_decl_annotations_
static NTSTATUS Dw9806bStart2RearDown(PDEVICE_CONTEXT DeviceContext, LONG Position)
{
    PAGED_CODE();

    LONG p = Position;
    NTSTATUS status = STATUS_SUCCESS;
    if (p > DeviceContext->VcmHighPosition) {
        p = DeviceContext->VcmHighPosition;
        status = DW9806B_SetPos(DeviceContext, (SHORT)p);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        DelayMilliseconds(10);
    }
    (VOID) VcmWriteReg8(DeviceContext, DW9806B_CONTROL_REG, DW9806B_RING_OFF);
    while (p > 0) {
        ULONG u = (ULONG)p;
        if (u > DW9806B_MAX_CODE) {
            break;
        }
        if (DeviceContext->VcmLowPosition < u && u <= DeviceContext->VcmHighPosition) {
            p -= 8;
        } else if (120 < u && u <= DeviceContext->VcmLowPosition) {
            p -= 2;
        } else {
            p -= 32;
            if (p <= 0) {
                break;
            }
        }
        status = DW9806B_SetPos(DeviceContext, (SHORT)p);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

/* CM500RF05SW700: 32-code steps above the high position; above 90 codes over
 * the low position 32-code steps 1 ms apart, stopping there; within 45 codes
 * below to 90 above it 8-code steps 10 ms apart; 32-code steps below. */
_Use_decl_annotations_
static NTSTATUS Dw9806bCm500Down(PDEVICE_CONTEXT DeviceContext, LONG Position)
{
    PAGED_CODE();

    LONG p = Position;
    while (p > 0) {
        if ((ULONG)p > DW9806B_MAX_CODE) {
            break;
        }
        LONG low = DeviceContext->VcmLowPosition;
        if (p > DeviceContext->VcmHighPosition) {
            p -= 32;
        } else if (p > low + 90) {
            DelayMilliseconds(1);
            p = p - 32 > low + 90 ? p - 32 : low + 90;
        } else if (p > low - 45) {
            p -= 8;
            DelayMilliseconds(10);
        } else {
            p -= 32;
            if (p <= 0) {
                break;
            }
        }
        NTSTATUS status = DW9806B_SetPos(DeviceContext, (SHORT)p);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS DW9806B_ResetPos(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    const VCM_MARKERS* m = &Dw9806bChip.Chip.Markers;
    VcmTrace(TRACE_INFO, DeviceContext, "", m->ResetPosEnter);

    NTSTATUS status = STATUS_SUCCESS;
    LONG p = ReadNoFence16(&DeviceContext->VcmPosition);
    switch (Dw9806bModule(DeviceContext)) {
    case Dw9806bModuleStart2Rear:
        status = Dw9806bStart2RearDown(DeviceContext, p);
        break;
    case Dw9806bModuleCm500:
        if (p > 0) {
            status = Dw9806bCm500Down(DeviceContext, p);
        }
        break;
    default:
        break;
    }

    // Rest: the chip gets code 1; recording 0 first makes the move "none",
    // so the lens counts as settled at once.
    if (NT_SUCCESS(status)) {
        WriteNoFence16(&DeviceContext->VcmPosition, 0);
        status = DW9806B_SetPos(DeviceContext, 0);
    }
    VcmTrace(TRACE_INFO, DeviceContext, "", m->ResetPosExit);
    return status;
}

_Use_decl_annotations_
NTSTATUS DW9806B_SetPos(PDEVICE_CONTEXT DeviceContext, SHORT Position)
{
    PAGED_CODE();
    return VcmRegSetPos(DeviceContext, &Dw9806bChip, Position);
}

_Use_decl_annotations_
NTSTATUS DW9806B_GetPos(PDEVICE_CONTEXT DeviceContext, PUSHORT Position)
{
    PAGED_CODE();
    return VcmRegGetPos(DeviceContext, &Dw9806bChip, Position);
}

_Use_decl_annotations_
NTSTATUS DW9806B_GetStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();
    return VcmRegGetStatus(DeviceContext, &Dw9806bChip, Status);
}

_Use_decl_annotations_
NTSTATUS DW9806B_GetHPStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();
    return VcmReportSettled(DeviceContext, Status, Dw9806bChip.Chip.Markers.GetHPStatus);
}

_Use_decl_annotations_
NTSTATUS DW9806B_SetConfig(PDEVICE_CONTEXT DeviceContext, const ULONG* Config)
{
    PAGED_CODE();
    return VcmSetConfig(DeviceContext, Config, &Dw9806bChip.Chip);
}
