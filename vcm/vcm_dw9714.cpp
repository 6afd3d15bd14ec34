/*
 * vcm_dw9714.cpp - the DW9714, an actuator without register addresses.
 *
 * Every write is one 16-bit command word, high byte first. A position word
 * carries the 10-bit code in bits 13..4 and the step mode in bits 3..0, with
 * the power-down and flag bits 15..14 left 0; reading returns the chip's
 * word. Start-up sends four command words from the settings table (the
 * protection unlock, two timing settings, the protection lock); the table's
 * fifth entry holds the mode nibble, read afresh by every SetPos so that a
 * new mode applies without a new Init.
 */
#include "vcm_shared.h"

// {4606FEFA-7268-4B9D-8D07-7EE49AB3C980}
static const GUID VcmDw9714TraceGuid = {0x4606fefa, 0x7268, 0x4b9d, {0x8d, 0x07, 0x7e, 0xe4, 0x9a, 0xb3, 0xc9, 0x80}};
TRACE_MODULE(VcmDw9714TraceGuid);

#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, DW9714_Init)
#pragma alloc_text(PAGE, DW9714_ResetPos)
#pragma alloc_text(PAGE, DW9714_SetPos)
#pragma alloc_text(PAGE, DW9714_GetPos)
#pragma alloc_text(PAGE, DW9714_SetConfig)
#endif

#define DW9714_COMMAND_WORDS 4  /* entries 0..3 are sent at start-up */
#define DW9714_MODE_ENTRY    4  /* entry 4's Data: the mode nibble of every position word */
#define DW9714_MAX_CODE      1023
#define DW9714_CODE_SHIFT    4

static const VCM_CHIP Dw9714Chip = {
    .Markers = VCM_MARKERS_OF("DW9714"),
    .Settings = DW9714_Settings,
    .SettingsCount = DW9714_SETTINGS_COUNT,
    .VerifiedCount = DW9714_COMMAND_WORDS,
    .Ramp = {DW9714_SetPos, VcmRampDown, 1, DW9714_MAX_CODE, 1},
};

_Use_decl_annotations_
NTSTATUS DW9714_Init(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    VcmTrace(TRACE_INFO, DeviceContext, "", Dw9714Chip.Markers.InitEnter);
    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG i = 0; i < DW9714_COMMAND_WORDS; i++) {
        status = VcmWriteWord(DeviceContext, (UCHAR)DW9714_Settings[i].Reg, (UCHAR)DW9714_Settings[i].Data);
        if (!NT_SUCCESS(status)) {
            break;
        }
    }
    VcmTrace(TRACE_INFO, DeviceContext, "", Dw9714Chip.Markers.InitExit);
    return status;
}

_Use_decl_annotations_
NTSTATUS DW9714_SetPos(PDEVICE_CONTEXT DeviceContext, SHORT Position)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    // Code 0 would let the lens fall onto its stop; 1 holds it there gently.
    USHORT code = (USHORT)VcmClampPosition(Position, FALSE, 1, DW9714_MAX_CODE);
    USHORT word = (USHORT)((code << DW9714_CODE_SHIFT) | (DW9714_Settings[DW9714_MODE_ENTRY].Data & 0xF));

    NTSTATUS status = VcmLockBus(DeviceContext, Dw9714Chip.Markers.SetPosLockFailed);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    status = VcmWriteWord(DeviceContext, (UCHAR)(word >> 8), (UCHAR)(word & 0xFF));
    VcmReturnMoved(DeviceContext, Dw9714Chip.Markers.SetPos, code, status);
}

_Use_decl_annotations_
NTSTATUS DW9714_GetPos(PDEVICE_CONTEXT DeviceContext, PUSHORT Position)
{
    PAGED_CODE();

    if (DeviceContext == NULL || Position == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = VcmLockBus(DeviceContext, Dw9714Chip.Markers.GetPosLockFailed);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    // The word's top 12 bits as they come: the code in bits 9..0, the
    // power-down and flag bits above it.
    USHORT value = 0;
    status = VcmReadWord(DeviceContext, &value);
    if (NT_SUCCESS(status)) {
        *Position = value;
    }
    VcmReturnRead(DeviceContext, Dw9714Chip.Markers.GetPos, value, status);
}

_Use_decl_annotations_
NTSTATUS DW9714_ResetPos(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();
    return VcmResetPos(DeviceContext, &Dw9714Chip);
}

_Use_decl_annotations_
NTSTATUS DW9714_SetConfig(PDEVICE_CONTEXT DeviceContext, const ULONG* Config)
{
    PAGED_CODE();
    return VcmSetConfig(DeviceContext, Config, &Dw9714Chip);
}
