/*
 * vcm_lc898122xa.cpp - the LC898122XA actuator.
 *
 * A 16-bit register address space and an 11-bit position code (0..2047)
 * whose rest position is the middle of the range, 1024: the lens is held
 * centred and driven either way. The code goes in as the 16-bit value
 * code x 32 over registers 0x0380 (high byte) and 0x0381 (low byte, code bits
 * 2..0 in its bits 7..5). Bit 0 of register 0x0335 says the lens is still
 * moving; register 0x027E is read once at start-up for the trace.
 *
 * Start-up writes the 38 settings entries in order, without pauses; entries
 * 12 and 13 put the lens at 1024. The reset ramp comes down from above or up
 * from below in 32-code steps 1 ms apart, and a descent that passes 1024
 * makes one step up again before the last step onto it.
 */
#include "vcm_shared.h"


#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, LC898122XA_Init)
#pragma alloc_text(PAGE, LC898122XA_ResetPos)
#pragma alloc_text(PAGE, LC898122XA_SetPos)
#pragma alloc_text(PAGE, LC898122XA_GetPos)
#pragma alloc_text(PAGE, LC898122XA_GetStatus)
#pragma alloc_text(PAGE, LC898122XA_SetConfig)
#endif

#define LC898122XA_MAX_CODE 2047
#define LC898122XA_REST     1024

static const VCM_REG_CHIP Lc898122xaChip = {
    .Chip = {.Markers = VCM_MARKERS_OF("LC898122XA"),
             .Settings = LC898122XA_Settings,
             .SettingsCount = LC898122XA_SETTINGS_COUNT,
             .VerifiedCount = LC898122XA_SETTINGS_COUNT,
             .Ramp = {LC898122XA_SetPos, VcmRampDownThenUp, LC898122XA_REST, LC898122XA_MAX_CODE, 1}},
    .Flags = VCM_WIDE_REGISTERS | VCM_IDENTIFIES,
    .HighReg = 0x0380,
    .LowReg = 0x0381,
    .HighMask = 0xFF,
    .CodeShift = 5,
    .MinCode = 0,
    .MaxCode = LC898122XA_MAX_CODE,
    .BusyReg = 0x0335,
    .IdReg = 0x027E,
    .IdText = NULL, /* the byte goes into the Init exit event */
};

VCM_REG_CHIP_ROUTINES(LC898122XA, Lc898122xaChip)

_Use_decl_annotations_
NTSTATUS LC898122XA_GetStatus(PDEVICE_CONTEXT DeviceContext, PULONG Status)
{
    PAGED_CODE();
    return VcmRegGetStatus(DeviceContext, &Lc898122xaChip, Status);
}
