/*
 * vcm.h - the lens-actuator (voice-coil motor) drivers.
 *
 * A component that gives the device a lens actuator sets VcmType (the row of
 * VcmDrivers), VcmLowPosition, VcmHighPosition and connection slot 1, then
 * calls the row's routines. Every routine takes the device context first and
 * returns an NTSTATUS; all of them run at passive level (they wait on
 * BusLock, send synchronous SPB requests and sleep).
 *
 * The settings tables are driver-global: one per chip type, shared by every
 * device. Init programs the chip from its table; SetConfig replaces the
 * table's data for all devices at once. Init and SetConfig must not run at
 * the same time for the same chip type.
 */
#pragma once

#include "../wdk/wdk.h"
#include "../sensor/device_context.h"

#define VCM_TYPE_COUNT 9 /* rows of VcmDrivers; VcmType 0 is "no actuator" */

/* One settings entry: a register address (a command byte on DW9714) and the
 * value the chip drivers write from its low byte. */
typedef struct _VCM_REG_DATA {
    ULONG Reg;
    ULONG Data;
} VCM_REG_DATA, *PVCM_REG_DATA;

static_assert(sizeof(VCM_REG_DATA) == 8, "VCM_REG_DATA layout");
static_assert(FIELD_OFFSET(VCM_REG_DATA, Data) == 4, "VCM_REG_DATA layout");

/* The seven operations of a row, one signature each. SetPos takes a 16-bit
 * position code; each chip says whether it reads it signed or unsigned. The
 * status operations write 1 (moving, or settled) or 0. SetConfig takes a
 * count followed by that many (Reg, Data) pairs. */
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VCM_INIT(_Inout_ PDEVICE_CONTEXT DeviceContext);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VCM_RESET_POS(_Inout_ PDEVICE_CONTEXT DeviceContext);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VCM_SET_POS(_Inout_ PDEVICE_CONTEXT DeviceContext,
                                                                 _In_ SHORT Position);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VCM_GET_POS(_Inout_ PDEVICE_CONTEXT DeviceContext,
                                                                 _Out_ PUSHORT Position);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VCM_GET_STATUS(_Inout_ PDEVICE_CONTEXT DeviceContext,
                                                                    _Out_ PULONG Status);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VCM_SET_CONFIG(_In_ PDEVICE_CONTEXT DeviceContext,
                                                                    _In_reads_(1 + 2 * Config[0]) const ULONG* Config);

typedef struct _VCM_DRIVER {
    ULONGLONG Id;              /* the actuator number, equal to the row index */
    const CHAR* Name;          /* chip name; also the chip name of every trace event */
    ULONGLONG HomePosition;    /* where the chip's ResetPos leaves the lens */
    VCM_INIT* Init;            /* programs the chip after power-up */
    VCM_RESET_POS* ResetPos;   /* ramps the lens to its rest position */
    VCM_SET_POS* SetPos;       /* moves the lens to a position code */
    VCM_GET_POS* GetPos;       /* reads the position code back */
    VCM_GET_STATUS* GetStatus; /* 1 while the lens is moving */
    VCM_GET_STATUS* GetHPStatus; /* 1 once the lens has settled */
    VCM_SET_CONFIG* SetConfig; /* replaces the data of the chip's settings table */
} VCM_DRIVER, *PVCM_DRIVER;

#if defined(__x86_64__) || defined(_M_AMD64) || defined(__aarch64__)
static_assert(sizeof(VCM_DRIVER) == 80, "VCM_DRIVER layout");
static_assert(FIELD_OFFSET(VCM_DRIVER, Name) == 8, "VCM_DRIVER layout");
static_assert(FIELD_OFFSET(VCM_DRIVER, HomePosition) == 16, "VCM_DRIVER layout");
static_assert(FIELD_OFFSET(VCM_DRIVER, Init) == 24, "VCM_DRIVER layout");
static_assert(FIELD_OFFSET(VCM_DRIVER, SetPos) == 40, "VCM_DRIVER layout");
static_assert(FIELD_OFFSET(VCM_DRIVER, SetConfig) == 72, "VCM_DRIVER layout");
#endif

/* Indexed by VcmType: 0 NoneVCM, 1 AD5823, 2 DW9714, 3 AD5816, 4 DW9719,
 * 5 DW9718, 6 DW9806B, 7 WV517S, 8 LC898122XA. */
extern const VCM_DRIVER VcmDrivers[VCM_TYPE_COUNT];

#define VCM_TYPE_AD5823     1
#define VCM_TYPE_DW9714     2
#define VCM_TYPE_AD5816     3
#define VCM_TYPE_DW9719     4
#define VCM_TYPE_DW9718     5
#define VCM_TYPE_DW9806B    6
#define VCM_TYPE_WV517S     7
#define VCM_TYPE_LC898122XA 8

/* The settings tables, with their sizes (the count SetConfig requires). */
#define AD5823_SETTINGS_COUNT     6
#define DW9714_SETTINGS_COUNT     5
#define AD5816_SETTINGS_COUNT     6
#define DW9719_SETTINGS_COUNT     6
#define DW9718_SETTINGS_COUNT     7
#define DW9806B_SETTINGS_COUNT    6
#define WV517S_SETTINGS_COUNT     6
#define LC898122XA_SETTINGS_COUNT 38

extern VCM_REG_DATA AD5823_Settings[AD5823_SETTINGS_COUNT];
extern VCM_REG_DATA DW9714_Settings[DW9714_SETTINGS_COUNT];
extern VCM_REG_DATA AD5816_Settings[AD5816_SETTINGS_COUNT];
extern VCM_REG_DATA DW9719_Settings[DW9719_SETTINGS_COUNT];
extern VCM_REG_DATA DW9718_Settings[DW9718_SETTINGS_COUNT];
extern VCM_REG_DATA DW9806B_Settings[DW9806B_SETTINGS_COUNT];
extern VCM_REG_DATA WV517S_Settings[WV517S_SETTINGS_COUNT];
extern VCM_REG_DATA LC898122XA_Settings[LC898122XA_SETTINGS_COUNT];

/* A Reg of 0xFF in a table written through VcmWriteReg8 is a pause of Data
 * milliseconds, not a bus write. */
#define VCM_PAUSE_REG 0xFF

EXTERN_C_START

/* ---- Settle-time status: from the last move, no lock, no bus ---- */
VCM_GET_STATUS VcmTimedGetStatus;
VCM_GET_STATUS VcmTimedGetHPStatus;

/* ---- Register access on connection slot 1: one SPB transfer per request,
 * 8-second time-out, the bus released between address and data phase ---- */
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmReadReg8(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ UCHAR Register, _Inout_ PUCHAR Value);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmReadReg16(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ USHORT Register, _Inout_ PUCHAR Value);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmReadWord(_Inout_ PDEVICE_CONTEXT DeviceContext, _Inout_ PUSHORT Value);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmWriteReg8(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ UCHAR Register, _In_ UCHAR Value);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmWriteReg16(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ USHORT Register, _In_ UCHAR Value);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS VcmWriteWord(_Inout_ PDEVICE_CONTEXT DeviceContext, _In_ UCHAR Byte0, _In_ UCHAR Byte1);

/* ---- The chip drivers ---- */
VCM_INIT AD5823_Init;
VCM_RESET_POS AD5823_ResetPos;
VCM_SET_POS AD5823_SetPos;
VCM_GET_POS AD5823_GetPos;
VCM_GET_STATUS AD5823_GetHPStatus;
VCM_SET_CONFIG AD5823_SetConfig;

VCM_INIT DW9714_Init;
VCM_RESET_POS DW9714_ResetPos;
VCM_SET_POS DW9714_SetPos;
VCM_GET_POS DW9714_GetPos;
VCM_SET_CONFIG DW9714_SetConfig;

VCM_INIT AD5816_Init;
VCM_RESET_POS AD5816_ResetPos;
VCM_SET_POS AD5816_SetPos;
VCM_GET_POS AD5816_GetPos;
VCM_GET_STATUS AD5816_GetHPStatus;
VCM_SET_CONFIG AD5816_SetConfig;

VCM_INIT DW9719_Init;
VCM_RESET_POS DW9719_ResetPos;
VCM_SET_POS DW9719_SetPos;
VCM_GET_POS DW9719_GetPos;
VCM_GET_STATUS DW9719_GetStatus;
VCM_GET_STATUS DW9719_GetHPStatus;
VCM_SET_CONFIG DW9719_SetConfig;

VCM_INIT DW9718_Init;
VCM_RESET_POS DW9718_ResetPos;
VCM_SET_POS DW9718_SetPos;
VCM_GET_POS DW9718_GetPos;
VCM_SET_CONFIG DW9718_SetConfig;

VCM_INIT DW9806B_Init;
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS DW9806B_WarmStart(_Inout_ PDEVICE_CONTEXT DeviceContext);
VCM_RESET_POS DW9806B_ResetPos;
VCM_SET_POS DW9806B_SetPos;
VCM_GET_POS DW9806B_GetPos;
VCM_GET_STATUS DW9806B_GetStatus;
VCM_GET_STATUS DW9806B_GetHPStatus;
VCM_SET_CONFIG DW9806B_SetConfig;

VCM_INIT WV517S_Init;
VCM_RESET_POS WV517S_ResetPos;
VCM_SET_POS WV517S_SetPos;
VCM_GET_POS WV517S_GetPos;
VCM_SET_CONFIG WV517S_SetConfig;

VCM_INIT LC898122XA_Init;
VCM_RESET_POS LC898122XA_ResetPos;
VCM_SET_POS LC898122XA_SetPos;
VCM_GET_POS LC898122XA_GetPos;
VCM_GET_STATUS LC898122XA_GetStatus;
VCM_SET_CONFIG LC898122XA_SetConfig;

EXTERN_C_END
