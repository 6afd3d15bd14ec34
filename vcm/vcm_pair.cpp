/*
 * vcm_pair.cpp - the register-pair actuators (AD5823, AD5816, DW9719,
 * DW9718, WV517S) and the two-register scheme that DW9806B and LC898122XA
 * share with them.
 *
 * The position code is split over a high and a low register, and the high
 * register always goes first, so that the code is whole when its low byte
 * arrives. The chips differ only in data: register numbers, how the
 * high register is written (whole, or merged with the other bits it holds),
 * the code range, what is recorded as the new position, whether a failed high
 * write counts, the start-up sequence and the reset ramp. One body per
 * operation works from the chip's record; the named routines pass theirs.
 */
#include "vcm_shared.h"

// {93D87215-59DC-4341-9203-556DF6DDCA83}
static const GUID VcmPairTraceGuid = {0x93d87215, 0x59dc, 0x4341, {0x92, 0x03, 0x55, 0x6d, 0xf6, 0xdd, 0xca, 0x83}};
TRACE_MODULE(VcmPairTraceGuid);

EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS VcmRegRead(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_REG_CHIP* Chip, _In_ USHORT Register,
                           _Inout_ PUCHAR Value);
_IRQL_requires_max_(PASSIVE_LEVEL)
static NTSTATUS VcmRegWrite(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ const VCM_REG_CHIP* Chip, _In_ USHORT Register,
                            _In_ UCHAR Value);
EXTERN_C_END

#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, VcmRegRead)
#pragma alloc_text(PAGE, VcmRegWrite)
#pragma alloc_text(PAGE, VcmRegProgram)
#pragma alloc_text(PAGE, VcmRegInit)
#pragma alloc_text(PAGE, VcmRegSetPos)
#pragma alloc_text(PAGE, VcmRegGetPos)
#pragma alloc_text(PAGE, VcmRegGetStatus)
#pragma alloc_text(PAGE, AD5823_Init)
#pragma alloc_text(PAGE, AD5823_ResetPos)
#pragma alloc_text(PAGE, AD5823_SetPos)
#pragma alloc_text(PAGE, AD5823_GetPos)
#pragma alloc_text(PAGE, AD5823_GetHPStatus)
#pragma alloc_text(PAGE, AD5823_SetConfig)
#pragma alloc_text(PAGE, AD5816_Init)
#pragma alloc_text(PAGE, AD5816_ResetPos)
#pragma alloc_text(PAGE, AD5816_SetPos)
#pragma alloc_text(PAGE, AD5816_GetPos)
#pragma alloc_text(PAGE, AD5816_GetHPStatus)
#pragma alloc_text(PAGE, AD5816_SetConfig)
#pragma alloc_text(PAGE, DW9719_Init)
#pragma alloc_text(PAGE, DW9719_ResetPos)
#pragma alloc_text(PAGE, DW9719_SetPos)
#pragma alloc_text(PAGE, DW9719_GetPos)
#pragma alloc_text(PAGE, DW9719_GetStatus)
#pragma alloc_text(PAGE, DW9719_GetHPStatus)
#pragma alloc_text(PAGE, DW9719_SetConfig)
#pragma alloc_text(PAGE, DW9718_Init)
#pragma alloc_text(PAGE, DW9718_ResetPos)
#pragma alloc_text(PAGE, DW9718_SetPos)
#pragma alloc_text(PAGE, DW9718_GetPos)
#pragma alloc_text(PAGE, DW9718_SetConfig)
#pragma alloc_text(PAGE, WV517S_Init)
#pragma alloc_text(PAGE, WV517S_ResetPos)
#pragma alloc_text(PAGE, WV517S_SetPos)
#pragma alloc_text(PAGE, WV517S_GetPos)
#pragma alloc_text(PAGE, WV517S_SetConfig)
#endif

/* ---- The scheme ---- */

_Use_decl_annotations_
static NTSTATUS VcmRegRead(PDEVICE_CONTEXT DeviceContext, const VCM_REG_CHIP* Chip, USHORT Register, PUCHAR Value)
{
    PAGED_CODE();

    return (Chip->Flags & VCM_WIDE_REGISTERS) ? VcmReadReg16(DeviceContext, Register, Value)
                                              : VcmReadReg8(DeviceContext, (UCHAR)Register, Value);
}

_Use_decl_annotations_
static NTSTATUS VcmRegWrite(PDEVICE_CONTEXT DeviceContext, const VCM_REG_CHIP* Chip, USHORT Register, UCHAR Value)
{
    PAGED_CODE();

    return (Chip->Flags & VCM_WIDE_REGISTERS) ? VcmWriteReg16(DeviceContext, Register, Value)
                                              : VcmWriteReg8(DeviceContext, (UCHAR)Register, Value);
}

_Use_decl_annotations_
NTSTATUS VcmRegProgram(PDEVICE_CONTEXT DeviceContext, const VCM_REG_CHIP* Chip, PUCHAR Id)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Chip == NULL || Id == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    NTSTATUS status = STATUS_SUCCESS;
    if (Chip->Flags & VCM_IDENTIFIES) {
        status = VcmRegRead(DeviceContext, Chip, Chip->IdReg, Id);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if (Chip->IdText != NULL) {
            VcmTrace(TRACE_INFO, DeviceContext, " 0x%02x", Chip->IdText, *Id);
        }
    }

    // The settings, from the driver-global table as it stands now.
    const VCM_CHIP* chip = &Chip->Chip;
    ULONG steps = Chip->InitSteps != NULL ? Chip->InitStepCount : chip->SettingsCount;
    for (ULONG i = 0; i < steps; i++) {
        ULONG entry = Chip->InitSteps != NULL ? Chip->InitSteps[i].Entry : i;
        UCHAR mask = Chip->InitSteps != NULL ? Chip->InitSteps[i].Mask : (UCHAR)VCM_ALL_BITS;
        USHORT reg = (USHORT)chip->Settings[entry].Reg;
        UCHAR value = (UCHAR)chip->Settings[entry].Data;
        if (mask != VCM_ALL_BITS) {
            // The register holds bits the entry does not own: keep them as
            // the chip has them.
            UCHAR current = 0;
            status = VcmRegRead(DeviceContext, Chip, reg, &current);
            if (!NT_SUCCESS(status)) {
                return status;
            }
            value = (UCHAR)((current & ~mask) | (value & mask));
        }
        status = VcmRegWrite(DeviceContext, Chip, reg, value);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return status;
}

_Use_decl_annotations_
NTSTATUS VcmRegInit(PDEVICE_CONTEXT DeviceContext, const VCM_REG_CHIP* Chip)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Chip == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    const VCM_MARKERS* m = &Chip->Chip.Markers;
    VcmTrace(TRACE_INFO, DeviceContext, "", m->InitEnter);
    UCHAR id = 0;
    NTSTATUS status = VcmRegProgram(DeviceContext, Chip, &id);
    if ((Chip->Flags & VCM_IDENTIFIES) && Chip->IdText == NULL) {
        VcmTrace(TRACE_INFO, DeviceContext, " 0x%02x", m->InitExit, id);
    } else {
        VcmTrace(TRACE_INFO, DeviceContext, "", m->InitExit);
    }
    return status;
}

_Use_decl_annotations_
NTSTATUS VcmRegSetPos(PDEVICE_CONTEXT DeviceContext, const VCM_REG_CHIP* Chip, SHORT Position)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Chip == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    LONG code = VcmClampPosition(Position, (Chip->Flags & VCM_SIGNED_POSITION) != 0, Chip->MinCode, Chip->MaxCode);
    USHORT value = (USHORT)(code << Chip->CodeShift);
    UCHAR high = (UCHAR)(value >> 8);
    UCHAR low = (UCHAR)(value & 0xFF);
    USHORT recorded = (Chip->Flags & VCM_RECORD_REQUESTED) ? (USHORT)Position : (USHORT)code;
    const VCM_MARKERS* m = &Chip->Chip.Markers;

    NTSTATUS status = VcmLockBus(DeviceContext, m->SetPosLockFailed);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    if (Chip->Flags & VCM_MERGE_HIGH) {
        UCHAR current = 0;
        status = VcmRegRead(DeviceContext, Chip, Chip->HighReg, &current);
        if (NT_SUCCESS(status)) {
            status = VcmRegWrite(DeviceContext, Chip, Chip->HighReg, (UCHAR)((current & ~Chip->HighMask) | high));
        }
    } else {
        status = VcmRegWrite(DeviceContext, Chip, Chip->HighReg, high);
    }
    // The low write latches the new code; on chips that ignore the high
    // write's outcome it alone decides.
    if (NT_SUCCESS(status) || (Chip->Flags & VCM_HIGH_STATUS_IGNORED)) {
        status = VcmRegWrite(DeviceContext, Chip, Chip->LowReg, low);
    }
    VcmReturnMoved(DeviceContext, m->SetPos, recorded, status);
}

_Use_decl_annotations_
NTSTATUS VcmRegGetPos(PDEVICE_CONTEXT DeviceContext, const VCM_REG_CHIP* Chip, PUSHORT Position)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Chip == NULL || Position == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    const VCM_MARKERS* m = &Chip->Chip.Markers;
    NTSTATUS status = VcmLockBus(DeviceContext, m->GetPosLockFailed);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    UCHAR high = 0;
    UCHAR low = 0;
    if (Chip->Flags & VCM_LOW_FIRST) {
        status = VcmRegRead(DeviceContext, Chip, Chip->LowReg, &low);
        if (NT_SUCCESS(status)) {
            status = VcmRegRead(DeviceContext, Chip, Chip->HighReg, &high);
        }
    } else {
        status = VcmRegRead(DeviceContext, Chip, Chip->HighReg, &high);
        if (NT_SUCCESS(status)) {
            status = VcmRegRead(DeviceContext, Chip, Chip->LowReg, &low);
        }
    }
    USHORT position = 0;
    if (NT_SUCCESS(status)) {
        position = (USHORT)((((high & Chip->HighMask) << 8) | low) >> Chip->CodeShift);
        *Position = position;
    }
    VcmReturnRead(DeviceContext, m->GetPos, position, status);
}

_Use_decl_annotations_
NTSTATUS VcmRegGetStatus(PDEVICE_CONTEXT DeviceContext, const VCM_REG_CHIP* Chip, PULONG Status)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Chip == NULL || Status == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    const VCM_MARKERS* m = &Chip->Chip.Markers;
    NTSTATUS status = VcmLockBus(DeviceContext, m->GetStatusLockFailed);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    // Bit 0 of the status register: the chip is still driving the lens.
    UCHAR value = 0;
    ULONG moving = 0;
    status = VcmRegRead(DeviceContext, Chip, Chip->BusyReg, &value);
    if (NT_SUCCESS(status)) {
        moving = value & 1;
        *Status = moving;
    }
    VcmReturnRead(DeviceContext, m->GetStatus, moving, status);
}

/* ---- The five register-pair chips ---- */

/* AD5823 keeps the ring-control enable in bit 2 of its code-MSB register and
 * mode bits 7..6 in register 0x02: Init replaces only the bits its entries
 * own. Entry 3 (the code LSB) is not written at start-up. */
static const VCM_INIT_STEP Ad5823InitSteps[] = {
    {2, 0x04}, {0, 0x3F}, {1, VCM_ALL_BITS}, {4, VCM_ALL_BITS}, {5, VCM_ALL_BITS},
};

static const VCM_REG_CHIP Ad5823Chip = {
    .Chip = {.Markers = VCM_MARKERS_OF("AD5823"),
             .Settings = AD5823_Settings,
             .SettingsCount = AD5823_SETTINGS_COUNT,
             .VerifiedCount = 6,
             .Ramp = {AD5823_SetPos, VcmRampDown, 1, 1023, 1}},
    .Flags = VCM_MERGE_HIGH | VCM_SIGNED_POSITION | VCM_RECORD_REQUESTED,
    .HighReg = 0x04,
    .LowReg = 0x05,
    .HighMask = 0x03,
    .MinCode = 1,
    .MaxCode = 1023,
    .InitSteps = Ad5823InitSteps,
    .InitStepCount = RTL_NUMBER_OF(Ad5823InitSteps),
};

/* AD5816 reports its version in register 0x01 and takes both code registers
 * whole. */
static const VCM_REG_CHIP Ad5816Chip = {
    .Chip = {.Markers = VCM_MARKERS_OF("AD5816"),
             .Settings = AD5816_Settings,
             .SettingsCount = AD5816_SETTINGS_COUNT,
             .VerifiedCount = 6,
             .Ramp = {AD5816_SetPos, VcmRampDown, 0, 1023, 1}},
    .Flags = VCM_SIGNED_POSITION | VCM_RECORD_REQUESTED | VCM_IDENTIFIES,
    .HighReg = 0x03,
    .LowReg = 0x04,
    .HighMask = 0x03,
    .MinCode = 0,
    .MaxCode = 1023,
    .IdReg = 0x01,
    .IdText = "IC Version:",
};

/* DW9719 walks the lens to the module's low position from either side, with
 * 10 ms between steps; bit 0 of register 0x05 says it is still moving. */
static const VCM_REG_CHIP Dw9719Chip = {
    .Chip = {.Markers = VCM_MARKERS_OF("DW9719"),
             .Settings = DW9719_Settings,
             .SettingsCount = DW9719_SETTINGS_COUNT,
             .VerifiedCount = 6,
             .Ramp = {DW9719_SetPos, VcmRampEitherWay, VCM_RAMP_TO_LOW_POSITION, 1023, 10}},
    .Flags = VCM_MERGE_HIGH | VCM_SIGNED_POSITION | VCM_RECORD_REQUESTED | VCM_IDENTIFIES,
    .HighReg = 0x03,
    .LowReg = 0x04,
    .HighMask = 0x03,
    .MinCode = 0,
    .MaxCode = 1023,
    .BusyReg = 0x05,
    .IdReg = 0x00,
    .IdText = "IC Info:",
};

/* DW9718 and WV517S take the code unsigned, record the clamped code, read the
 * low register back first, and let the low write alone decide the outcome. */
static const VCM_REG_CHIP Dw9718Chip = {
    .Chip = {.Markers = VCM_MARKERS_OF("DW9718"),
             .Settings = DW9718_Settings,
             .SettingsCount = DW9718_SETTINGS_COUNT,
             .VerifiedCount = 6,
             .Ramp = {DW9718_SetPos, VcmRampDown, 1, 1023, 1}},
    .Flags = VCM_HIGH_STATUS_IGNORED | VCM_LOW_FIRST,
    .HighReg = 0x02,
    .LowReg = 0x03,
    .HighMask = 0x03,
    .MinCode = 1,
    .MaxCode = 1023,
};

static const VCM_REG_CHIP Wv517sChip = {
    .Chip = {.Markers = VCM_MARKERS_OF("WV517S"),
             .Settings = WV517S_Settings,
             .SettingsCount = WV517S_SETTINGS_COUNT,
             .VerifiedCount = 5,
             .Ramp = {WV517S_SetPos, VcmRampDown, 1, 1023, 1}},
    .Flags = VCM_HIGH_STATUS_IGNORED | VCM_LOW_FIRST,
    .HighReg = 0x41,
    .LowReg = 0x42,
    .HighMask = 0x03,
    .MinCode = 1,
    .MaxCode = 1023,
};

VCM_REG_CHIP_ROUTINES(AD5823, Ad5823Chip)
VCM_REG_CHIP_ROUTINES(AD5816, Ad5816Chip)
VCM_REG_CHIP_ROUTINES(DW9719, Dw9719Chip)
VCM_REG_CHIP_ROUTINES(DW9718, Dw9718Chip)
VCM_REG_CHIP_ROUTINES(WV517S, Wv517sChip)

_Use_decl_annotations_
NTSTATUS AD5823_GetHPStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();
    return VcmReportSettled(DeviceContext, Status, Ad5823Chip.Chip.Markers.GetHPStatus);
}

_Use_decl_annotations_
NTSTATUS AD5816_GetHPStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();
    return VcmReportSettled(DeviceContext, Status, Ad5816Chip.Chip.Markers.GetHPStatus);
}

_Use_decl_annotations_
NTSTATUS DW9719_GetHPStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();
    return VcmReportSettled(DeviceContext, Status, Dw9719Chip.Chip.Markers.GetHPStatus);
}

_Use_decl_annotations_
NTSTATUS DW9719_GetStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();
    return VcmRegGetStatus(DeviceContext, &Dw9719Chip, Status);
}
