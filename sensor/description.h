/*
 * description.h - the driver-wide records that describe the sensor to the
 * camera driver: the capability template, the parameter record, the PDAF
 * information template and the PDAF data sizes by image size.
 *
 * They are constants of the sensor except for four fields that each device
 * add sets from the registry (InterleaveMode, FormatFlagA and FormatFlagB of
 * PdafInfoTemplate, PdafType of SensorParameters); all devices share them.
 */
#pragma once

#include "device_context.h"

/* One row of PdafSizeTable: the PDAF data size for one image size. */
typedef struct _PDAF_SIZE {
    ULONG ImageWidth;
    ULONG ImageHeight;
    ULONG PdafWidth;
    ULONG PdafHeight;
    ULONG Word4;
} PDAF_SIZE, *PPDAF_SIZE;
static_assert(sizeof(PDAF_SIZE) == 20, "PDAF_SIZE layout");

#define PDAF_SIZE_ROWS 10

extern const SENSOR_CAPS SensorCapsTemplate;
extern SENSOR_PARAMETERS SensorParameters;
extern PDAF_INFO PdafInfoTemplate;
extern const PDAF_SIZE PdafSizeTable[PDAF_SIZE_ROWS];

/* The capability mode in bits 3-5 of the word at byte 8; the other bits of
 * the record are the template's and are never touched. */
_IRQL_requires_max_(DISPATCH_LEVEL)
inline ULONG GetCapsMode(_In_ const SENSOR_CAPS* Caps)
{
    return (Caps->ModeFlags & SENSOR_CAPS_MODE_MASK) >> SENSOR_CAPS_MODE_SHIFT;
}

_IRQL_requires_max_(DISPATCH_LEVEL)
inline VOID SetCapsMode(_Inout_ PSENSOR_CAPS Caps, _In_ ULONG Mode)
{
    Caps->ModeFlags = (Caps->ModeFlags & ~SENSOR_CAPS_MODE_MASK) | ((Mode << SENSOR_CAPS_MODE_SHIFT) & SENSOR_CAPS_MODE_MASK);
}
