/*
 * device_context.h - DEVICE_CONTEXT, the one per-device record. The framework
 * allocates it zero-filled with the device object; every interface operation
 * gets it as its Context and every subsystem keeps its per-device state here.
 */
#pragma once

#include "../wdk/wdk.h"
#include "sensor_interface.h"

#define SENSOR_NAME_SIZE 16
#define NVM_CACHE_SIZE   750

/* The I2C connections to module peripherals (bus/i2c.h). */
#define I2C_CONNECTION_COUNT 14

/* Slot numbers the callers use. */
#define I2C_SLOT_VCM       1
#define I2C_SLOT_NVM       2 /* and 2 + block for block-addressed memories */

/* One connection slot. ConnectionId and Present are set by whoever provides
 * the connection; InitI2c and DeinitI2c manage Target and Opened. */
typedef struct _I2C_CONNECTION {
    ULONGLONG ConnectionId; /* resource-hub id: low part in bits 0-31, high part in 32-63 */
    WDFIOTARGET Target;     /* null when no target exists */
    UCHAR Opened;           /* 1 after InitI2c opened the target */
    UCHAR InfoA;            /* reported second in the open and close traces */
    UCHAR Present;          /* 0: the slot describes no connection */
    UCHAR InfoB;            /* reported first in the open and close traces */
} I2C_CONNECTION, *PI2C_CONNECTION;

static_assert(sizeof(I2C_CONNECTION) == 24, "I2C_CONNECTION layout");

/* A processor cache line. The reference count is written whenever the camera
 * driver takes or drops the interface; kept a whole line away from every
 * other member, it does not slow the operations that read them. */
#define SENSOR_CACHE_LINE 64

typedef struct _DEVICE_CONTEXT {
    WDFDEVICE Device;                 /* the device that owns this context */
    GUID SensorGuid;                  /* identity of the sensor variant, reported by GetModuleInfo */
    UCHAR RefCountPadBefore[SENSOR_CACHE_LINE];
    volatile LONG InterfaceRefCount;  /* references held on SensorInterface; interlocked only */
    UCHAR RefCountPadAfter[SENSOR_CACHE_LINE - sizeof(LONG)];
    KEVENT BusLock;                   /* auto-reset; serialises actuator and memory bus sequences */
    ULONG MipiPortNumber;             /* MIPI port reported by GetMipiConfig */
    ULONG MipiLaneCount;              /* MIPI lane count reported by GetMipiConfig */
    ULONG MipiFormat;                 /* MIPI data format; low byte also in the module info */
    volatile LONG ModeIndex;          /* row of the selected mode within the selected table */
    volatile LONG ModeTableIndex;     /* selected mode table, 0..3 */
    UCHAR VariantCode;                /* 9 on the RGB-IR sensor, else 0 */
    ULONG NvmAvailable;               /* the cached memory load runs only when non-zero */
    volatile SHORT VcmPosition;       /* last commanded lens position */
    volatile LONG VcmLastMoveDistance;/* distance of the last lens move */
    volatile LONG64 VcmLastMoveTime;  /* system time of the last lens move, 100 ns units */
    UCHAR AuxFlag;                    /* reported by GetAuxFlag */
    ULONG LinkRate;                   /* MIPI link rate in bits per second */
    CHAR SensorName[SENSOR_NAME_SIZE];/* short name of the variant, NUL-terminated */
    UCHAR RegMipiLanes;               /* raw registry "MipiLanes"; 0: MIPI values not configured */
    UCHAR RegMipiPort;                /* raw registry "MipiPort" */
    UCHAR RegMipiDataFormat;          /* raw registry "MipiDataFormat" */
    ULONG RegMipiMBps;                /* raw registry "MipiMBps" */
    LONG VcmType;                     /* selected lens-actuator row; 0 is no actuator */
    ULONG NvmCacheLength;             /* bytes the memory load reads and hands out, at most 750 */
    UCHAR NvmLoaded;                  /* 1 once the cache holds the memory */
    ULONG NvmType;                    /* selected memory row; 0 is no memory */
    LONG NvmSize;                     /* memory size in bytes */
    LONG NvmPageSize;                 /* memory write page size in bytes */
    UCHAR NvmCache[NVM_CACHE_SIZE];   /* memory bytes from address 0 on */
    SENSOR_CAPS SensorCaps;           /* the device's copy of the capability record */
    USHORT VcmLowPosition;            /* lower lens position of the module */
    USHORT VcmHighPosition;           /* upper lens position of the module */
    UCHAR NvmEnabled;                 /* the cached memory load runs only when set */
    I2C_CONNECTION I2cConnections[I2C_CONNECTION_COUNT];
    SENSOR_INTERFACE SensorInterface; /* the record published to the camera driver */
} DEVICE_CONTEXT, *PDEVICE_CONTEXT;

/* Whatever the context's own alignment, no cache line holds the reference
 * count together with another member. */
static_assert(FIELD_OFFSET(DEVICE_CONTEXT, InterfaceRefCount) - (FIELD_OFFSET(DEVICE_CONTEXT, SensorGuid) + sizeof(GUID)) >=
                  SENSOR_CACHE_LINE,
              "InterfaceRefCount shares a cache line with SensorGuid");
static_assert(FIELD_OFFSET(DEVICE_CONTEXT, BusLock) - FIELD_OFFSET(DEVICE_CONTEXT, InterfaceRefCount) >= SENSOR_CACHE_LINE,
              "InterfaceRefCount shares a cache line with BusLock");

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(DEVICE_CONTEXT, GetDeviceContext)

/* Gives every member its starting value during device add; pageable, so C
 * linkage for the Windows build's section pragma. */
EXTERN_C_START
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID InitSensorContext(_Inout_ PDEVICE_CONTEXT DeviceContext);
EXTERN_C_END

/* Identity of a sensor that no hardware identifier names. */
extern const GUID DefaultSensorGuid;
