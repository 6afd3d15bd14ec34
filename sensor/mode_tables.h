/*
 * mode_tables.h - the sensor's mode tables and the lists published from them.
 *
 * The sensor's output modes live in four static tables of SENSOR_MODE rows,
 * one per use (Still, Video, Preview, Raw). Device add publishes each of them
 * to the camera driver as a MODE_LIST of MODE_ENTRY records, and the PDAF data
 * sizes as a MODE_LIST of PDAF_MODE rows. SelectMode and GetModeInfo read the
 * rows themselves through ModeTables.
 */
#pragma once

#include "device_context.h"

/* The settings a mode row points to: a 0xFFFF end marker and nothing before
 * it. Only its presence matters: a row with a null list ends its table. */
typedef struct _SENSOR_SETTING_LIST {
    USHORT EndMarker;     /* 0xFFFF */
    UCHAR Reserved[14];
} SENSOR_SETTING_LIST, *PSENSOR_SETTING_LIST;
static_assert(sizeof(SENSOR_SETTING_LIST) == 16, "SENSOR_SETTING_LIST layout");

/* One mode table row: 36 little-endian 32-bit words, words 10-11 a pointer. */
typedef struct _SENSOR_MODE {
    LONG Width;           /* word 0: pixels per line */
    LONG Height;          /* word 1: lines */
    LONG FrameRate;       /* word 2: frames per second */
    ULONG Word3;          /* word 3: 1; 2 in the 2016 x 1136 row */
    ULONG Word4;          /* word 4 */
    ULONG Word5;          /* word 5: published in MODE_ENTRY */
    ULONG Word6;          /* word 6 */
    ULONG Word7;          /* word 7: published in MODE_ENTRY */
    ULONG Word8;          /* word 8 */
    ULONG Word9;          /* word 9 */
    const SENSOR_SETTING_LIST* SettingList; /* words 10-11; null ends the table */
    ULONG Reserved[24];   /* words 12-35 */
} SENSOR_MODE, *PSENSOR_MODE;
static_assert(sizeof(SENSOR_MODE) == 36 * 4, "SENSOR_MODE is 36 words");
static_assert(FIELD_OFFSET(SENSOR_MODE, SettingList) == 10 * 4, "SettingList at words 10-11");
static_assert(FIELD_OFFSET(SENSOR_MODE, Reserved) == 12 * 4, "words 12-35");

/* Table indices, as SelectMode and ModeTableIndex use them. */
#define MODE_TABLE_STILL   0
#define MODE_TABLE_VIDEO   1
#define MODE_TABLE_PREVIEW 2
#define MODE_TABLE_RAW     3
#define MODE_TABLE_COUNT   4

/* Rows are counted up to this many, so an unterminated table counts as 51 and
 * exceeds every list's capacity. */
#define MODE_TABLE_ROW_LIMIT 51

#define PDAF_MODE_CAPACITY 10

extern const SENSOR_SETTING_LIST EmptySettingList;

/* The four tables by table index. Each points at its first row; an all-zero
 * row follows the last one. */
extern const SENSOR_MODE* ModeTables[MODE_TABLE_COUNT];

/* The published descriptors, indexed like ModeTables, and the PDAF list. */
extern MODE_LIST ModeLists[MODE_TABLE_COUNT];
extern MODE_LIST PdafList;

/* PDAF data sizes; a row with Width 0 ends them. */
extern const PDAF_MODE PdafModes[PDAF_MODE_CAPACITY];

/* Publish the four mode lists and the PDAF list; run during device add, from
 * pageable code (C linkage for the Windows build's section pragmas). */
EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS BuildModeLists(_In_ PDEVICE_CONTEXT DeviceContext);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS BuildPdafList(_In_ PDEVICE_CONTEXT DeviceContext);
EXTERN_C_END
