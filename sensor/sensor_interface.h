/*
 * sensor_interface.h - the direct-call interface of the korvanel camera sensor,
 * as the camera (image signal processor) driver sees it.
 *
 * The camera driver sends a query-interface request for GUID_SENSOR_INTERFACE
 * and receives a SENSOR_INTERFACE record (Size 376, Version 18). It calls the
 * operations in the slots directly, passing the record's Context first, and
 * calls InterfaceDereference when it lets go. A null slot is an operation the
 * sensor does not provide: test a slot before calling it.
 *
 * C-compatible: include it after the kernel headers (wdm.h or ntddk.h).
 * All records are little-endian with the offsets given beside their members.
 */
#ifndef KORVANEL_SENSOR_INTERFACE_H
#define KORVANEL_SENSOR_INTERFACE_H

#ifdef __cplusplus
#define SENSOR_LAYOUT_ASSERT(e, m) static_assert(e, m)
extern "C" {
#else
#define SENSOR_LAYOUT_ASSERT(e, m) _Static_assert(e, m)
#endif

/* {B426401D-67B7-47EF-8E70-34AAAC721DDA}: the query-interface type. */
DEFINE_GUID(GUID_SENSOR_INTERFACE, 0xB426401D, 0x67B7, 0x47EF, 0x8E, 0x70, 0x34, 0xAA, 0xAC, 0x72, 0x1D, 0xDA);
/* {DB53BE49-6227-48FA-A2F9-9524D27C03D7}: the device interface class. */
DEFINE_GUID(GUID_DEVINTERFACE_CAMERA_SENSOR, 0xDB53BE49, 0x6227, 0x48FA, 0xA2, 0xF9, 0x95, 0x24, 0xD2, 0x7C, 0x03,
            0xD7);

#define SENSOR_INTERFACE_SIZE    376
#define SENSOR_INTERFACE_VERSION 18
#define SENSOR_INTERFACE_SLOTS   43

/* QueryProperty identifier of the MIPI link rate in bits per second. */
#define SensorPropertyLinkRate 34

/* Capability record, five 32-bit words. Bits 3-5 of the word at byte 8 are
 * the capability mode: 5 normally, 4 on the RGB-IR sensor. */
typedef struct _SENSOR_CAPS {
    ULONG Capabilities;  /* 0 */
    ULONG Reserved;      /* 4 */
    ULONG ModeFlags;     /* 8, CapsMode in bits 3-5 */
    ULONG Count;         /* 12 */
    ULONG Mask;          /* 16 */
} SENSOR_CAPS, *PSENSOR_CAPS;
SENSOR_LAYOUT_ASSERT(sizeof(SENSOR_CAPS) == 20, "SENSOR_CAPS layout");

#define SENSOR_CAPS_MODE_SHIFT 3
#define SENSOR_CAPS_MODE_MASK  (7u << SENSOR_CAPS_MODE_SHIFT)
#define SENSOR_CAPS_MODE_RGBIR 4
#define SENSOR_CAPS_MODE_RGB   5

/* Parameter record handed out by address; 208 bytes of 32-bit words. */
typedef struct _SENSOR_PARAMETERS {
    ULONG Values[20];   /* 0 .. 79 */
    ULONG HdrWord;      /* 80: GetParameterWord reports 4 when this is 4, else 3 */
    ULONG Reserved84;   /* 84 */
    ULONG PdafType;     /* 88: registry "PDAF_Type" */
    ULONG Reserved[29]; /* 92 .. 207 */
} SENSOR_PARAMETERS, *PSENSOR_PARAMETERS;
SENSOR_LAYOUT_ASSERT(sizeof(SENSOR_PARAMETERS) == 208, "SENSOR_PARAMETERS layout");

/* One published mode: eight 32-bit words. */
typedef struct _MODE_ENTRY {
    ULONG Width;     /* 0 */
    ULONG Height;    /* 4 */
    ULONG Fixed0;    /* 8: 1000 */
    ULONG Fixed1;    /* 12: 1000 */
    ULONG FrameRate; /* 16 */
    ULONG Word5;     /* 20 */
    ULONG Reserved6; /* 24: 0 */
    ULONG Word7;     /* 28 */
} MODE_ENTRY, *PMODE_ENTRY;
SENSOR_LAYOUT_ASSERT(sizeof(MODE_ENTRY) == 32, "MODE_ENTRY layout");

/* One PDAF data size. */
typedef struct _PDAF_MODE {
    ULONG Width;
    ULONG Height;
    ULONG FrameRate;
} PDAF_MODE, *PPDAF_MODE;
SENSOR_LAYOUT_ASSERT(sizeof(PDAF_MODE) == 12, "PDAF_MODE layout");

/* A published list: Count entries at Entries (MODE_ENTRY, or PDAF_MODE for the
 * PDAF list). */
typedef struct _MODE_LIST {
    ULONG Count;    /* 0 */
    PVOID Entries;  /* 8 */
} MODE_LIST, *PMODE_LIST;
SENSOR_LAYOUT_ASSERT(sizeof(MODE_LIST) == 16, "MODE_LIST layout");

#pragma pack(push, 1)

/* Output description of the selected mode, 40 bytes; W and H are the low 16
 * bits of the mode's width and height. Bytes 38-39 are not written. */
typedef struct _SENSOR_MODE_INFO {
    ULONG Signature;     /* 0: 0x09FCD140 */
    USHORT Width;        /* 4 */
    USHORT Height;       /* 6 */
    USHORT Zero8;        /* 8 */
    USHORT Height10;     /* 10 */
    USHORT One12;        /* 12: 1 */
    USHORT Four14;       /* 14: 4 */
    ULONG Zero16;        /* 16 */
    USHORT Width20;      /* 20 */
    USHORT Height22;     /* 22 */
    USHORT Width24;      /* 24 */
    USHORT Height26;     /* 26 */
    UCHAR One28;         /* 28: 1 */
    UCHAR One29;         /* 29: 1 */
    USHORT Width30;      /* 30 */
    USHORT Height32;     /* 32 */
    ULONG Zero34;        /* 34 */
    UCHAR Untouched[2];  /* 38: left as the caller had them */
} SENSOR_MODE_INFO, *PSENSOR_MODE_INFO;

/* Identity of the module, 210 bytes; texts are NUL-terminated within their
 * fields and the bytes after each terminator are left as the caller had them. */
typedef struct _SENSOR_MODULE_INFO {
    GUID SensorGuid;          /* 0 */
    UCHAR VariantCode;        /* 16 */
    UCHAR MipiFormat;         /* 17 */
    CHAR DriverName[16];      /* 18 */
    CHAR SensorName[64];      /* 34 */
    CHAR ModuleName[64];      /* 98 */
    CHAR BaseSensorName[16];  /* 162 */
    CHAR ModuleRevision[16];  /* 178 */
    CHAR VendorName[16];      /* 194 */
} SENSOR_MODULE_INFO, *PSENSOR_MODULE_INFO;

#pragma pack(pop)

SENSOR_LAYOUT_ASSERT(sizeof(SENSOR_MODE_INFO) == 40, "SENSOR_MODE_INFO layout");
SENSOR_LAYOUT_ASSERT(sizeof(SENSOR_MODULE_INFO) == 210, "SENSOR_MODULE_INFO layout");

/* PDAF information for one image size, 40 bytes, completed by GetPdafInfo from
 * the Width and Height the caller puts in. Bytes 1-3 are not written. */
typedef struct _PDAF_INFO {
    UCHAR Byte0;            /* 0 */
    UCHAR Untouched[3];     /* 1 */
    ULONG InterleaveMode;   /* 4 */
    ULONG FormatFlagA;      /* 8 */
    ULONG Width;            /* 12 */
    ULONG Height;           /* 16 */
    ULONG PdafWidth;        /* 20 */
    ULONG PdafHeight;       /* 24 */
    ULONG Word28;           /* 28 */
    ULONG FormatFlagB;      /* 32 */
    ULONG Word36;           /* 36 */
} PDAF_INFO, *PPDAF_INFO;
SENSOR_LAYOUT_ASSERT(sizeof(PDAF_INFO) == 40, "PDAF_INFO layout");

/* A request entry handed over by the camera driver, 12 bytes; the sensor reads
 * words 1 to 3 only. */
typedef struct _SENSOR_ENTRY {
    USHORT Word0;  /* 0 */
    USHORT Word1;  /* 2 */
    USHORT Word2;  /* 4 */
    USHORT Word3;  /* 6 */
    ULONG Word4;   /* 8 */
} SENSOR_ENTRY, *PSENSOR_ENTRY;
SENSOR_LAYOUT_ASSERT(sizeof(SENSOR_ENTRY) == 12, "SENSOR_ENTRY layout");

/* The interface Context; its layout is the sensor's own. */
struct _DEVICE_CONTEXT;
typedef struct _DEVICE_CONTEXT* PSENSOR_CONTEXT;

/* The operations, as the camera driver calls them: the highest level each
 * may be called at and what it does with each argument. */
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_ACCEPT_RECORD)(
    _In_ PSENSOR_CONTEXT Context, _In_reads_(4) PULONG Record);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_GET_SENSOR_CAPS)(
    _Inout_ PSENSOR_CONTEXT Context, _Inout_ PSENSOR_CAPS Caps);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) VOID (*PFN_SENSOR_GET_MIPI_CONFIG)(
    _In_ PSENSOR_CONTEXT Context, _Out_ PULONG Port, _Out_ PULONG Lanes, _Out_ PULONG Format);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_GET_SENSOR_PARAMETERS)(
    _In_ PSENSOR_CONTEXT Context, _Outptr_ const SENSOR_PARAMETERS** Parameters);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_GET_MODE_TABLES)(
    _In_ PSENSOR_CONTEXT Context, _Outptr_ const MODE_LIST** Still, _Outptr_ const MODE_LIST** Video,
    _Outptr_ const MODE_LIST** Preview, _Outptr_ const MODE_LIST** Raw);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_GET_PDAF_TABLE)(
    _In_ PSENSOR_CONTEXT Context, _Outptr_ const MODE_LIST** List);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_SELECT_MODE)(
    _Inout_ PSENSOR_CONTEXT Context, _In_ LONG TableIndex, _In_ LONG MinWidth, _In_ LONG MinHeight,
    _In_ LONG FrameRate);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_ACCEPT_ENTRY)(
    _In_ PSENSOR_CONTEXT Context, _In_opt_ PSENSOR_ENTRY Entry);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_ACCEPT_POINTER)(
    _In_ PSENSOR_CONTEXT Context, _In_ PVOID Pointer);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_ACCEPT_VALUE)(
    _In_ PSENSOR_CONTEXT Context, _In_ PULONG Value);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_ACCEPT_PAIR)(
    _In_ PSENSOR_CONTEXT Context, _In_ ULONG First, _In_ ULONG Second);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_ACCEPT_NOTICE)(_In_ PSENSOR_CONTEXT Context);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_GET_MODE_INFO)(
    _In_ PSENSOR_CONTEXT Context, _Inout_ PULONG Size, _Out_writes_bytes_to_(*Size, *Size) PSENSOR_MODE_INFO Info);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS (*PFN_SENSOR_POWER_UP)(_In_ PSENSOR_CONTEXT Context);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_POWER_DOWN)(_In_ PSENSOR_CONTEXT Context);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_GET_AUX_FLAG)(
    _In_ PSENSOR_CONTEXT Context, _Out_ PULONG Value);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_GET_PARAMETER_WORD)(
    _In_ PSENSOR_CONTEXT Context, _Out_ PULONG Value);
typedef _IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS (*PFN_SENSOR_GET_MODULE_INFO)(
    _In_ PSENSOR_CONTEXT Context, _Out_ PSENSOR_MODULE_INFO Info);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_QUERY_PROPERTY)(
    _In_ PSENSOR_CONTEXT Context, _In_ LONG Id, _Out_ PULONG Value);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_GET_PDAF_INFO)(
    _In_ PSENSOR_CONTEXT Context, _In_ _At_(*Info, _Inout_) PPDAF_INFO* Info);
typedef _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS (*PFN_SENSOR_ACCEPT_ENTRY_LIST)(
    _In_ PSENSOR_CONTEXT Context, _In_reads_(Count) PSENSOR_ENTRY Entries, _In_ USHORT Count);

typedef struct _SENSOR_INTERFACE {
    INTERFACE InterfaceHeader;                        /* 0: Size, Version, Context, references */
    PFN_SENSOR_ACCEPT_RECORD AcceptRecord;            /* slot 0, 32 */
    PFN_SENSOR_GET_SENSOR_CAPS GetSensorCaps;         /* slot 1, 40 */
    PFN_SENSOR_GET_MIPI_CONFIG GetMipiConfig;         /* slot 2, 48 */
    PFN_SENSOR_GET_SENSOR_PARAMETERS GetSensorParameters; /* slot 3, 56 */
    PFN_SENSOR_GET_MODE_TABLES GetModeTables;         /* slot 4, 64 */
    PFN_SENSOR_GET_PDAF_TABLE GetPdafTable;           /* slot 5, 72 */
    PFN_SENSOR_SELECT_MODE SelectMode;                /* slot 6, 80 */
    PFN_SENSOR_ACCEPT_ENTRY AcceptEntry;              /* slot 7, 88 */
    PFN_SENSOR_ACCEPT_POINTER AcceptPointer;          /* slot 8, 96 */
    PFN_SENSOR_ACCEPT_VALUE AcceptValue;              /* slot 9, 104 */
    PFN_SENSOR_ACCEPT_PAIR AcceptPair;                /* slot 10, 112 */
    PFN_SENSOR_ACCEPT_NOTICE AcceptNotice;            /* slot 11, 120 */
    PVOID Reserved12;                                 /* slot 12, 128 */
    PVOID Reserved13;
    PVOID Reserved14;
    PVOID Reserved15;
    PVOID Reserved16;
    PFN_SENSOR_GET_MODE_INFO GetModeInfo;             /* slot 17, 168 */
    PFN_SENSOR_POWER_UP PowerUp;                      /* slot 18, 176 */
    PFN_SENSOR_POWER_DOWN PowerDown;                  /* slot 19, 184 */
    PVOID Reserved20;                                 /* slot 20, 192 */
    PVOID Reserved21;
    PVOID Reserved22;
    PVOID Reserved23;
    PFN_SENSOR_GET_AUX_FLAG GetAuxFlag;               /* slot 24, 224 */
    PFN_SENSOR_GET_PARAMETER_WORD GetParameterWord;   /* slot 25, 232 */
    PFN_SENSOR_GET_MODULE_INFO GetModuleInfo;         /* slot 26, 240 */
    PVOID Reserved27;                                 /* slot 27, 248 */
    PVOID Reserved28;
    PVOID Reserved29;
    PFN_SENSOR_QUERY_PROPERTY QueryProperty;          /* slot 30, 272 */
    PVOID Reserved31;                                 /* slot 31, 280 */
    PVOID Reserved32;
    PVOID Reserved33;
    PVOID Reserved34;
    PVOID Reserved35;
    PVOID Reserved36;
    PFN_SENSOR_GET_PDAF_INFO GetPdafInfo;             /* slot 37, 328 */
    PVOID Reserved38;                                 /* slot 38, 336 */
    PVOID Reserved39;
    PVOID Reserved40;
    PFN_SENSOR_ACCEPT_ENTRY_LIST AcceptEntryList;     /* slot 41, 360 */
    PVOID Reserved42;                                 /* slot 42, 368 */
} SENSOR_INTERFACE, *PSENSOR_INTERFACE;

#define SENSOR_SLOT_OFFSET(k) (32 + 8 * (k))
SENSOR_LAYOUT_ASSERT(sizeof(SENSOR_INTERFACE) == SENSOR_INTERFACE_SIZE, "SENSOR_INTERFACE layout");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, AcceptRecord) == SENSOR_SLOT_OFFSET(0), "slot 0");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, SelectMode) == SENSOR_SLOT_OFFSET(6), "slot 6");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, AcceptNotice) == SENSOR_SLOT_OFFSET(11), "slot 11");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, GetModeInfo) == SENSOR_SLOT_OFFSET(17), "slot 17");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, PowerDown) == SENSOR_SLOT_OFFSET(19), "slot 19");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, GetAuxFlag) == SENSOR_SLOT_OFFSET(24), "slot 24");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, GetModuleInfo) == SENSOR_SLOT_OFFSET(26), "slot 26");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, QueryProperty) == SENSOR_SLOT_OFFSET(30), "slot 30");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, GetPdafInfo) == SENSOR_SLOT_OFFSET(37), "slot 37");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, AcceptEntryList) == SENSOR_SLOT_OFFSET(41), "slot 41");
SENSOR_LAYOUT_ASSERT(FIELD_OFFSET(SENSOR_INTERFACE, Reserved42) == SENSOR_SLOT_OFFSET(42), "slot 42");

#ifdef __cplusplus
}
#endif

#endif /* KORVANEL_SENSOR_INTERFACE_H */
