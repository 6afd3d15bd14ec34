/*
 * mode_tables.cpp - the sensor's output modes and the lists the camera driver
 * reads them from.
 *
 * All four tables are one base list of modes: the "Raw" table is that list,
 * and each of the others repeats or moves one of its rows. The tables are
 * built from the base list at compile time, so a mode is written down once
 * and the four tables cannot drift apart. Each table keeps its rows exactly
 * as the camera driver expects them, duplicates included: the row index is
 * what SelectMode stores and what the camera driver sees.
 */
#include "mode_tables.h"
#include "../trace/trace.h"

// {7EDD8CF1-1F44-4E70-9C26-CDD7F1C0D359}
static const GUID ModeTablesTraceGuid = {0x7edd8cf1, 0x1f44, 0x4e70, {0x9c, 0x26, 0xcd, 0xd7, 0xf1, 0xc0, 0xd3, 0x59}};
TRACE_MODULE(ModeTablesTraceGuid);

// Both run once per device add, at passive level.
#ifdef ALLOC_PRAGMA
#pragma alloc_text(PAGE, BuildModeLists)
#pragma alloc_text(PAGE, BuildPdafList)
#endif

const SENSOR_SETTING_LIST EmptySettingList = {0xFFFF, {0}};

/* ---- The base list ---- */

typedef struct _BASE_MODE {
    LONG Width;
    LONG Height;
    LONG FrameRate;
    ULONG Word3;
} BASE_MODE;

// The "Raw" table, row by row.
static constexpr BASE_MODE BaseModes[] = {
    {640, 512, 30, 1},    {1280, 512, 30, 1},   {1312, 816, 30, 1},   {1920, 1120, 30, 1},
    {4032, 3024, 30, 1},  {4208, 3120, 30, 1},  {4096, 3072, 30, 1},  {8064, 3024, 30, 1},
    {4032, 2272, 60, 1},  {2016, 1136, 120, 2}, {4224, 3136, 30, 1},  {644, 364, 60, 1},
    {1364, 768, 120, 1},  {2036, 1404, 30, 1},  {2112, 1568, 30, 1},  {4076, 2806, 30, 1},
    {1296, 798, 30, 1},   {1296, 798, 60, 1},   {4032, 1136, 30, 1},  {3844, 2182, 30, 1},
    {2048, 1152, 60, 1},  {4608, 3458, 30, 1},
};
static constexpr ULONG BaseModeCount = RTL_NUMBER_OF(BaseModes);

/* ---- How each table differs from the base list ---- */

// A table is the base list with row Source placed once more in front of base
// row Before (BaseModeCount: at the end); with Move set, Source leaves its own
// place. No edit at all is Source = NO_EDIT.
typedef struct _MODE_TABLE_EDIT {
    ULONG Source;
    ULONG Before;
    BOOLEAN Move;
} MODE_TABLE_EDIT;

#define NO_EDIT 0xFFFFFFFF

static constexpr MODE_TABLE_EDIT StillEdit = {15, 16, FALSE};   // 4076 x 2806 at 30 twice
static constexpr MODE_TABLE_EDIT VideoEdit = {6, 19, FALSE};    // 4096 x 3072 again after 4032 x 1136
static constexpr MODE_TABLE_EDIT PreviewEdit = {6, 19, TRUE};   // 4096 x 3072 moved after 4032 x 1136
static constexpr MODE_TABLE_EDIT RawEdit = {NO_EDIT, 0, FALSE};

_IRQL_requires_max_(PASSIVE_LEVEL)
static constexpr ULONG EditedRowCount(_In_ const MODE_TABLE_EDIT& Edit)
{
    return (Edit.Source == NO_EDIT || Edit.Move) ? BaseModeCount : BaseModeCount + 1;
}

// The rows of a table plus the all-zero row that ends it.
template <ULONG Rows>
struct MODE_TABLE_IMAGE {
    SENSOR_MODE Row[Rows + 1];
};

_IRQL_requires_max_(PASSIVE_LEVEL)
static constexpr SENSOR_MODE ModeRow(_In_ const BASE_MODE& Mode)
{
    SENSOR_MODE row{};
    row.Width = Mode.Width;
    row.Height = Mode.Height;
    row.FrameRate = Mode.FrameRate;
    row.Word3 = Mode.Word3;
    row.Word7 = 1;
    row.SettingList = &EmptySettingList;
    return row;
}

template <ULONG Rows>
_IRQL_requires_max_(PASSIVE_LEVEL)
static constexpr MODE_TABLE_IMAGE<Rows> BuildModeTable(_In_ const MODE_TABLE_EDIT& Edit)
{
    static_assert(Rows < MODE_TABLE_ROW_LIMIT, "a shipped table must end before the row limit");
    MODE_TABLE_IMAGE<Rows> table{};
    ULONG next = 0;
    for (ULONG base = 0; base <= BaseModeCount; base++) {
        if (Edit.Source != NO_EDIT && base == Edit.Before) {
            table.Row[next++] = ModeRow(BaseModes[Edit.Source]);
        }
        if (base < BaseModeCount && !(Edit.Move && base == Edit.Source)) {
            table.Row[next++] = ModeRow(BaseModes[base]);
        }
    }
    return table;
}

#define MODE_TABLE(Edit) BuildModeTable<EditedRowCount(Edit)>(Edit)

static constexpr auto StillModes = MODE_TABLE(StillEdit);
static constexpr auto VideoModes = MODE_TABLE(VideoEdit);
static constexpr auto PreviewModes = MODE_TABLE(PreviewEdit);
static constexpr auto RawModes = MODE_TABLE(RawEdit);

static_assert(RTL_NUMBER_OF(StillModes.Row) == 23 + 1 && RTL_NUMBER_OF(VideoModes.Row) == 23 + 1 &&
                  RTL_NUMBER_OF(PreviewModes.Row) == 22 + 1 && RTL_NUMBER_OF(RawModes.Row) == 22 + 1,
              "Still and Video have 23 rows, Preview and Raw 22");
static_assert(StillModes.Row[16].Width == 4076 && VideoModes.Row[19].Width == 4096 &&
                  PreviewModes.Row[18].Width == 4096 && PreviewModes.Row[6].Width == 8064,
              "the tables differ from the base list where the camera driver expects it");

// Not const: the pointers are the one place a table is reached from, and a
// test build swaps a table here to try the list capacities.
const SENSOR_MODE* ModeTables[MODE_TABLE_COUNT] = {
    StillModes.Row,
    VideoModes.Row,
    PreviewModes.Row,
    RawModes.Row,
};

/* ---- The published lists ---- */

MODE_LIST ModeLists[MODE_TABLE_COUNT];
MODE_LIST PdafList;

static MODE_ENTRY StillEntries[25];
static MODE_ENTRY VideoEntries[25];
static MODE_ENTRY PreviewEntries[25];
static MODE_ENTRY RawEntries[50];

// Per table index: its name in traces and the storage its list publishes.
static const struct {
    const CHAR* Name;
    MODE_ENTRY* Entries;
    ULONG Capacity;
} ModeListStorage[MODE_TABLE_COUNT] = {
    {"Still", StillEntries, RTL_NUMBER_OF(StillEntries)},
    {"Video", VideoEntries, RTL_NUMBER_OF(VideoEntries)},
    {"Preview", PreviewEntries, RTL_NUMBER_OF(PreviewEntries)},
    {"Raw", RawEntries, RTL_NUMBER_OF(RawEntries)},
};

const PDAF_MODE PdafModes[PDAF_MODE_CAPACITY] = {
    {128, 24, 30},
    {4032, 756, 30},
    {272, 832, 30},
    {256, 384, 30},
};

#define MODE_ENTRY_SCALE 1000

/* Rows in use from row 0 up to the terminating row, at most
 * MODE_TABLE_ROW_LIMIT; 0 for a missing table. */
_IRQL_requires_max_(PASSIVE_LEVEL)
static ULONG CountModeRows(_In_opt_ const SENSOR_MODE* Table)
{
    ULONG count = 0;
    if (Table != NULL) {
        while (count < MODE_TABLE_ROW_LIMIT && Table[count].SettingList != NULL) {
            count++;
        }
    }
    return count;
}

_Use_decl_annotations_
NTSTATUS BuildModeLists(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    for (ULONG table = 0; table < MODE_TABLE_COUNT; table++) {
        const SENSOR_MODE* rows = ModeTables[table];
        const CHAR* name = ModeListStorage[table].Name;
        MODE_ENTRY* entries = ModeListStorage[table].Entries;
        ULONG count = CountModeRows(rows);

        // A table that does not fit its list is not published at all; the
        // lists already built stay as they are.
        if (count > ModeListStorage[table].Capacity) {
            TraceEvents(TRACE_ERROR, "%s mode table has %u rows, more than its list holds", name, count);
            return STATUS_UNSUCCESSFUL;
        }

        ModeLists[table].Entries = entries;
        ModeLists[table].Count = count;
        TraceEvents(TRACE_INFO, "%s mode list: %u entries", name, count);

        for (ULONG i = 0; i < count; i++) {
            MODE_ENTRY* entry = &entries[i];
            entry->Width = (ULONG)rows[i].Width;
            entry->Height = (ULONG)rows[i].Height;
            entry->Fixed0 = MODE_ENTRY_SCALE;
            entry->Fixed1 = MODE_ENTRY_SCALE;
            entry->FrameRate = (ULONG)rows[i].FrameRate;
            entry->Word5 = rows[i].Word5;
            entry->Word7 = rows[i].Word7;
            TraceEvents(TRACE_INFO, "mode %u x %u (%u/%u) at %u, %u %u", entry->Width, entry->Height,
                        entry->Fixed0, entry->Fixed1, entry->FrameRate, entry->Word5, entry->Word7);
        }
    }
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS BuildPdafList(PDEVICE_CONTEXT DeviceContext)
{
    PAGED_CODE();

    if (DeviceContext == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    // The list points straight at the rows; an empty table leaves it as it was.
    for (ULONG row = 0; row < PDAF_MODE_CAPACITY && PdafModes[row].Width != 0; row++) {
        PdafList.Count = row + 1;
        PdafList.Entries = (PVOID)PdafModes;
        TraceEvents(TRACE_INFO, "%s list: %u entries", "PDAF", row + 1);
    }
    return STATUS_SUCCESS;
}
