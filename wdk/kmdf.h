/*
 * kmdf.h - the part of the Kernel-Mode Driver Framework 1.15 interface that the
 * driver uses: handles, the records it fills with their published x64 layouts
 * and initialisers, the callback role types and the framework routines.
 *
 * Used by the Windows cross-check (on top of mingw-w64's DDK headers) and by
 * the host build (on top of wdk/wdm.h). A WDK build uses the real wdf.h.
 */
#pragma once

/* ---- Handles ---- */
#define KMDF_DECLARE_HANDLE(name) typedef struct name##__* name
/* Any framework handle converts to WDFOBJECT, as in the framework's headers. */
typedef HANDLE WDFOBJECT, *PWDFOBJECT;
KMDF_DECLARE_HANDLE(WDFDRIVER);
KMDF_DECLARE_HANDLE(WDFDEVICE);
KMDF_DECLARE_HANDLE(WDFSTRING);
KMDF_DECLARE_HANDLE(WDFIOTARGET);
KMDF_DECLARE_HANDLE(WDFREQUEST);
KMDF_DECLARE_HANDLE(WDFMEMORY);
KMDF_DECLARE_HANDLE(WDFCMRESLIST);
typedef struct WDFDEVICE_INIT* PWDFDEVICE_INIT;

typedef enum _WDF_TRI_STATE { WdfFalse = FALSE, WdfTrue = TRUE, WdfUseDefault = 2 } WDF_TRI_STATE, *PWDF_TRI_STATE;

#define WDF_NO_OBJECT_ATTRIBUTES NULL
#define WDF_NO_HANDLE NULL
#define WDF_NO_SEND_OPTIONS NULL

/* ---- Object attributes and typed contexts ---- */
typedef enum _WDF_EXECUTION_LEVEL {
    WdfExecutionLevelInvalid = 0,
    WdfExecutionLevelInheritFromParent,
    WdfExecutionLevelPassive,
    WdfExecutionLevelDispatch,
} WDF_EXECUTION_LEVEL;

typedef enum _WDF_SYNCHRONIZATION_SCOPE {
    WdfSynchronizationScopeInvalid = 0,
    WdfSynchronizationScopeInheritFromParent,
    WdfSynchronizationScopeDevice,
    WdfSynchronizationScopeQueue,
    WdfSynchronizationScopeNone,
} WDF_SYNCHRONIZATION_SCOPE;

typedef VOID(EVT_WDF_OBJECT_CONTEXT_CLEANUP)(WDFOBJECT Object);
typedef EVT_WDF_OBJECT_CONTEXT_CLEANUP* PFN_WDF_OBJECT_CONTEXT_CLEANUP;
typedef VOID(EVT_WDF_OBJECT_CONTEXT_DESTROY)(WDFOBJECT Object);
typedef EVT_WDF_OBJECT_CONTEXT_DESTROY* PFN_WDF_OBJECT_CONTEXT_DESTROY;

typedef struct _WDF_OBJECT_CONTEXT_TYPE_INFO WDF_OBJECT_CONTEXT_TYPE_INFO, *PWDF_OBJECT_CONTEXT_TYPE_INFO;
typedef const WDF_OBJECT_CONTEXT_TYPE_INFO* PCWDF_OBJECT_CONTEXT_TYPE_INFO;
typedef PCWDF_OBJECT_CONTEXT_TYPE_INFO(__cdecl* PFN_GET_UNIQUE_CONTEXT_TYPE)(VOID);

struct _WDF_OBJECT_CONTEXT_TYPE_INFO {
    ULONG Size;
    PCHAR ContextName;
    size_t ContextSize;
    PCWDF_OBJECT_CONTEXT_TYPE_INFO UniqueType;
    PFN_GET_UNIQUE_CONTEXT_TYPE EvtDriverGetUniqueContextType;
};

typedef struct _WDF_OBJECT_ATTRIBUTES {
    ULONG Size;
    PFN_WDF_OBJECT_CONTEXT_CLEANUP EvtCleanupCallback;
    PFN_WDF_OBJECT_CONTEXT_DESTROY EvtDestroyCallback;
    WDF_EXECUTION_LEVEL ExecutionLevel;
    WDF_SYNCHRONIZATION_SCOPE SynchronizationScope;
    WDFOBJECT ParentObject;
    size_t ContextSizeOverride;
    PCWDF_OBJECT_CONTEXT_TYPE_INFO ContextTypeInfo;
} WDF_OBJECT_ATTRIBUTES, *PWDF_OBJECT_ATTRIBUTES;

inline VOID WDF_OBJECT_ATTRIBUTES_INIT(PWDF_OBJECT_ATTRIBUTES Attributes)
{
    RtlZeroMemory(Attributes, sizeof(WDF_OBJECT_ATTRIBUTES));
    Attributes->Size = sizeof(WDF_OBJECT_ATTRIBUTES);
    Attributes->ExecutionLevel = WdfExecutionLevelInheritFromParent;
    Attributes->SynchronizationScope = WdfSynchronizationScopeInheritFromParent;
}

#define WDF_TYPE_NAME_TO_TYPE_INFO(_contexttype) _WDF_##_contexttype##_TYPE_INFO
#define WDF_GET_CONTEXT_TYPE_INFO(_contexttype) \
    (WDF_TYPE_NAME_TO_TYPE_INFO(_contexttype).UniqueType)

#define WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(_attributes, _contexttype) \
    (_attributes)->ContextTypeInfo = WDF_GET_CONTEXT_TYPE_INFO(_contexttype)

#define WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(_attributes, _contexttype) \
    WDF_OBJECT_ATTRIBUTES_INIT(_attributes);                                 \
    WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(_attributes, _contexttype)

extern "C" PVOID WdfObjectGetTypedContextWorker(WDFOBJECT Handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO TypeInfo);

/* Declares the context type record under the name the framework reports and a
 * typed accessor, as the framework's own macro does. */
#define WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(_contexttype, _castingfunction)                          \
    inline const WDF_OBJECT_CONTEXT_TYPE_INFO WDF_TYPE_NAME_TO_TYPE_INFO(_contexttype) = {           \
        sizeof(WDF_OBJECT_CONTEXT_TYPE_INFO), (PCHAR) #_contexttype, sizeof(_contexttype),           \
        &WDF_TYPE_NAME_TO_TYPE_INFO(_contexttype), NULL};                                            \
    inline _contexttype* _castingfunction(WDFOBJECT Handle)                                          \
    {                                                                                                \
        return (_contexttype*)WdfObjectGetTypedContextWorker(Handle,                                 \
                                                             WDF_GET_CONTEXT_TYPE_INFO(_contexttype)); \
    }

/* ---- Driver ---- */
typedef NTSTATUS(EVT_WDF_DRIVER_DEVICE_ADD)(WDFDRIVER Driver, PWDFDEVICE_INIT DeviceInit);
typedef EVT_WDF_DRIVER_DEVICE_ADD* PFN_WDF_DRIVER_DEVICE_ADD;
typedef VOID(EVT_WDF_DRIVER_UNLOAD)(WDFDRIVER Driver);
typedef EVT_WDF_DRIVER_UNLOAD* PFN_WDF_DRIVER_UNLOAD;

typedef struct _WDF_DRIVER_CONFIG {
    ULONG Size;
    PFN_WDF_DRIVER_DEVICE_ADD EvtDriverDeviceAdd;
    PFN_WDF_DRIVER_UNLOAD EvtDriverUnload;
    ULONG DriverInitFlags;
    ULONG DriverPoolTag;
} WDF_DRIVER_CONFIG, *PWDF_DRIVER_CONFIG;

inline VOID WDF_DRIVER_CONFIG_INIT(PWDF_DRIVER_CONFIG Config, PFN_WDF_DRIVER_DEVICE_ADD EvtDriverDeviceAdd)
{
    RtlZeroMemory(Config, sizeof(WDF_DRIVER_CONFIG));
    Config->Size = sizeof(WDF_DRIVER_CONFIG);
    Config->EvtDriverDeviceAdd = EvtDriverDeviceAdd;
}

extern "C" NTSTATUS WdfDriverCreate(PDRIVER_OBJECT DriverObject, PCUNICODE_STRING RegistryPath,
                                    PWDF_OBJECT_ATTRIBUTES DriverAttributes, PWDF_DRIVER_CONFIG DriverConfig,
                                    WDFDRIVER* Driver);
extern "C" PDRIVER_OBJECT WdfDriverWdmGetDriverObject(WDFDRIVER Driver);

/* ---- PnP and power callbacks ---- */
typedef enum _WDF_POWER_DEVICE_STATE {
    WdfPowerDeviceInvalid = 0,
    WdfPowerDeviceD0,
    WdfPowerDeviceD1,
    WdfPowerDeviceD2,
    WdfPowerDeviceD3,
    WdfPowerDeviceD3Final,
    WdfPowerDevicePrepareForHibernation,
    WdfPowerDeviceMaximum,
} WDF_POWER_DEVICE_STATE;

typedef enum _WDF_SPECIAL_FILE_TYPE {
    WdfSpecialFileUndefined = 0,
    WdfSpecialFilePaging,
    WdfSpecialFileHibernation,
    WdfSpecialFileDump,
    WdfSpecialFileBoot,
    WdfSpecialFileMax,
} WDF_SPECIAL_FILE_TYPE;

typedef NTSTATUS(EVT_WDF_DEVICE_D0_ENTRY)(WDFDEVICE Device, WDF_POWER_DEVICE_STATE PreviousState);
typedef EVT_WDF_DEVICE_D0_ENTRY* PFN_WDF_DEVICE_D0_ENTRY;
typedef NTSTATUS(EVT_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED)(WDFDEVICE Device,
                                                                  WDF_POWER_DEVICE_STATE PreviousState);
typedef EVT_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED* PFN_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED;
typedef NTSTATUS(EVT_WDF_DEVICE_D0_EXIT)(WDFDEVICE Device, WDF_POWER_DEVICE_STATE TargetState);
typedef EVT_WDF_DEVICE_D0_EXIT* PFN_WDF_DEVICE_D0_EXIT;
typedef NTSTATUS(EVT_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED)(WDFDEVICE Device, WDF_POWER_DEVICE_STATE TargetState);
typedef EVT_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED* PFN_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED;
typedef NTSTATUS(EVT_WDF_DEVICE_PREPARE_HARDWARE)(WDFDEVICE Device, WDFCMRESLIST ResourcesRaw,
                                                  WDFCMRESLIST ResourcesTranslated);
typedef EVT_WDF_DEVICE_PREPARE_HARDWARE* PFN_WDF_DEVICE_PREPARE_HARDWARE;
typedef NTSTATUS(EVT_WDF_DEVICE_RELEASE_HARDWARE)(WDFDEVICE Device, WDFCMRESLIST ResourcesTranslated);
typedef EVT_WDF_DEVICE_RELEASE_HARDWARE* PFN_WDF_DEVICE_RELEASE_HARDWARE;
typedef VOID(EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP* PFN_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP;
typedef VOID(EVT_WDF_DEVICE_SELF_MANAGED_IO_FLUSH)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_FLUSH* PFN_WDF_DEVICE_SELF_MANAGED_IO_FLUSH;
typedef NTSTATUS(EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT* PFN_WDF_DEVICE_SELF_MANAGED_IO_INIT;
typedef NTSTATUS(EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND* PFN_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND;
typedef NTSTATUS(EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART* PFN_WDF_DEVICE_SELF_MANAGED_IO_RESTART;
typedef VOID(EVT_WDF_DEVICE_SURPRISE_REMOVAL)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SURPRISE_REMOVAL* PFN_WDF_DEVICE_SURPRISE_REMOVAL;
typedef NTSTATUS(EVT_WDF_DEVICE_QUERY_REMOVE)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_QUERY_REMOVE* PFN_WDF_DEVICE_QUERY_REMOVE;
typedef NTSTATUS(EVT_WDF_DEVICE_QUERY_STOP)(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_QUERY_STOP* PFN_WDF_DEVICE_QUERY_STOP;
typedef VOID(EVT_WDF_DEVICE_USAGE_NOTIFICATION)(WDFDEVICE Device, WDF_SPECIAL_FILE_TYPE NotificationType,
                                                BOOLEAN IsInNotificationPath);
typedef EVT_WDF_DEVICE_USAGE_NOTIFICATION* PFN_WDF_DEVICE_USAGE_NOTIFICATION;
typedef VOID(EVT_WDF_DEVICE_RELATIONS_QUERY)(WDFDEVICE Device, int RelationType);
typedef EVT_WDF_DEVICE_RELATIONS_QUERY* PFN_WDF_DEVICE_RELATIONS_QUERY;
typedef NTSTATUS(EVT_WDF_DEVICE_USAGE_NOTIFICATION_EX)(WDFDEVICE Device, WDF_SPECIAL_FILE_TYPE NotificationType,
                                                       BOOLEAN IsInNotificationPath);
typedef EVT_WDF_DEVICE_USAGE_NOTIFICATION_EX* PFN_WDF_DEVICE_USAGE_NOTIFICATION_EX;

typedef struct _WDF_PNPPOWER_EVENT_CALLBACKS {
    ULONG Size;
    PFN_WDF_DEVICE_D0_ENTRY EvtDeviceD0Entry;
    PFN_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED EvtDeviceD0EntryPostInterruptsEnabled;
    PFN_WDF_DEVICE_D0_EXIT EvtDeviceD0Exit;
    PFN_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED EvtDeviceD0ExitPreInterruptsDisabled;
    PFN_WDF_DEVICE_PREPARE_HARDWARE EvtDevicePrepareHardware;
    PFN_WDF_DEVICE_RELEASE_HARDWARE EvtDeviceReleaseHardware;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP EvtDeviceSelfManagedIoCleanup;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_FLUSH EvtDeviceSelfManagedIoFlush;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_INIT EvtDeviceSelfManagedIoInit;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND EvtDeviceSelfManagedIoSuspend;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_RESTART EvtDeviceSelfManagedIoRestart;
    PFN_WDF_DEVICE_SURPRISE_REMOVAL EvtDeviceSurpriseRemoval;
    PFN_WDF_DEVICE_QUERY_REMOVE EvtDeviceQueryRemove;
    PFN_WDF_DEVICE_QUERY_STOP EvtDeviceQueryStop;
    PFN_WDF_DEVICE_USAGE_NOTIFICATION EvtDeviceUsageNotification;
    PFN_WDF_DEVICE_RELATIONS_QUERY EvtDeviceRelationsQuery;
    PFN_WDF_DEVICE_USAGE_NOTIFICATION_EX EvtDeviceUsageNotificationEx;
} WDF_PNPPOWER_EVENT_CALLBACKS, *PWDF_PNPPOWER_EVENT_CALLBACKS;

inline VOID WDF_PNPPOWER_EVENT_CALLBACKS_INIT(PWDF_PNPPOWER_EVENT_CALLBACKS Callbacks)
{
    RtlZeroMemory(Callbacks, sizeof(WDF_PNPPOWER_EVENT_CALLBACKS));
    Callbacks->Size = sizeof(WDF_PNPPOWER_EVENT_CALLBACKS);
}

extern "C" VOID WdfDeviceInitSetPnpPowerEventCallbacks(PWDFDEVICE_INIT DeviceInit,
                                                       PWDF_PNPPOWER_EVENT_CALLBACKS PnpPowerEventCallbacks);

/* ---- Device ---- */
extern "C" NTSTATUS WdfDeviceCreate(PWDFDEVICE_INIT* DeviceInit, PWDF_OBJECT_ATTRIBUTES DeviceAttributes,
                                    WDFDEVICE* Device);
extern "C" NTSTATUS WdfDeviceCreateDeviceInterface(WDFDEVICE Device, const GUID* InterfaceClassGUID,
                                                   PCUNICODE_STRING ReferenceString);
extern "C" NTSTATUS WdfDeviceRetrieveDeviceInterfaceString(WDFDEVICE Device, const GUID* InterfaceClassGUID,
                                                           PCUNICODE_STRING ReferenceString, WDFSTRING String);
extern "C" PDEVICE_OBJECT WdfDeviceWdmGetPhysicalDevice(WDFDEVICE Device);
extern "C" VOID WdfDeviceSetStaticStopRemove(WDFDEVICE Device, BOOLEAN Stoppable);

extern "C" NTSTATUS WdfStringCreate(PCUNICODE_STRING UnicodeString, PWDF_OBJECT_ATTRIBUTES StringAttributes,
                                    WDFSTRING* String);
extern "C" VOID WdfStringGetUnicodeString(WDFSTRING String, PUNICODE_STRING UnicodeString);
extern "C" VOID WdfObjectDelete(WDFOBJECT Object);

/* Query interfaces */
typedef NTSTATUS(EVT_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST)(WDFDEVICE Device, LPGUID InterfaceType,
                                                                 PINTERFACE ExposedInterface,
                                                                 PVOID ExposedInterfaceSpecificData);
typedef EVT_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST* PFN_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST;

typedef struct _WDF_QUERY_INTERFACE_CONFIG {
    ULONG Size;
    PINTERFACE Interface;
    const GUID* InterfaceType;
    BOOLEAN SendQueryToParentStack;
    PFN_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST EvtDeviceProcessQueryInterfaceRequest;
    BOOLEAN ImportInterface;
} WDF_QUERY_INTERFACE_CONFIG, *PWDF_QUERY_INTERFACE_CONFIG;

inline VOID WDF_QUERY_INTERFACE_CONFIG_INIT(PWDF_QUERY_INTERFACE_CONFIG InterfaceConfig, PINTERFACE Interface,
                                            const GUID* InterfaceType,
                                            PFN_WDF_DEVICE_PROCESS_QUERY_INTERFACE_REQUEST EvtDeviceProcessQueryInterfaceRequest)
{
    RtlZeroMemory(InterfaceConfig, sizeof(WDF_QUERY_INTERFACE_CONFIG));
    InterfaceConfig->Size = sizeof(WDF_QUERY_INTERFACE_CONFIG);
    InterfaceConfig->Interface = Interface;
    InterfaceConfig->InterfaceType = InterfaceType;
    InterfaceConfig->EvtDeviceProcessQueryInterfaceRequest = EvtDeviceProcessQueryInterfaceRequest;
}

extern "C" NTSTATUS WdfDeviceAddQueryInterface(WDFDEVICE Device, PWDF_QUERY_INTERFACE_CONFIG InterfaceConfig);

/* Device state */
typedef struct _WDF_DEVICE_STATE {
    ULONG Size;
    WDF_TRI_STATE Disabled;
    WDF_TRI_STATE DontDisplayInUI;
    WDF_TRI_STATE Failed;
    WDF_TRI_STATE NotDisableable;
    WDF_TRI_STATE Removed;
    WDF_TRI_STATE ResourcesChanged;
} WDF_DEVICE_STATE, *PWDF_DEVICE_STATE;

inline VOID WDF_DEVICE_STATE_INIT(PWDF_DEVICE_STATE PnpDeviceState)
{
    RtlZeroMemory(PnpDeviceState, sizeof(WDF_DEVICE_STATE));
    PnpDeviceState->Size = sizeof(WDF_DEVICE_STATE);
    PnpDeviceState->Disabled = WdfUseDefault;
    PnpDeviceState->DontDisplayInUI = WdfUseDefault;
    PnpDeviceState->Failed = WdfUseDefault;
    PnpDeviceState->NotDisableable = WdfUseDefault;
    PnpDeviceState->Removed = WdfUseDefault;
    PnpDeviceState->ResourcesChanged = WdfUseDefault;
}

extern "C" VOID WdfDeviceSetDeviceState(WDFDEVICE Device, PWDF_DEVICE_STATE DeviceState);

/* S0 idle policy */
typedef enum _WDF_POWER_POLICY_S0_IDLE_CAPABILITIES {
    IdleCapsInvalid = 0,
    IdleCannotWakeFromS0,
    IdleCanWakeFromS0,
    IdleUsbSelectiveSuspend,
} WDF_POWER_POLICY_S0_IDLE_CAPABILITIES;

typedef enum _WDF_POWER_POLICY_S0_IDLE_USER_CONTROL {
    IdleUserControlInvalid = 0,
    IdleDoNotAllowUserControl,
    IdleAllowUserControl,
} WDF_POWER_POLICY_S0_IDLE_USER_CONTROL;

typedef enum _WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE {
    DriverManagedIdleTimeout = 0,
    SystemManagedIdleTimeout = 1,
    SystemManagedIdleTimeoutWithHint = 2,
} WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE;

#define IdleTimeoutDefaultValue ((ULONG)0)

typedef struct _WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS {
    ULONG Size;
    WDF_POWER_POLICY_S0_IDLE_CAPABILITIES IdleCaps;
    DEVICE_POWER_STATE DxState;
    ULONG IdleTimeout;
    WDF_POWER_POLICY_S0_IDLE_USER_CONTROL UserControlOfIdleSettings;
    WDF_TRI_STATE Enabled;
    WDF_TRI_STATE PowerUpIdleDeviceOnSystemWake;
    WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE IdleTimeoutType;
    WDF_TRI_STATE ExcludeD3Cold;
} WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS, *PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS;

inline VOID WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS_INIT(PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS Settings,
                                                       WDF_POWER_POLICY_S0_IDLE_CAPABILITIES IdleCaps)
{
    RtlZeroMemory(Settings, sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS));
    Settings->Size = sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS);
    Settings->IdleTimeout = IdleTimeoutDefaultValue;
    Settings->UserControlOfIdleSettings = IdleAllowUserControl;
    Settings->Enabled = WdfUseDefault;
    Settings->PowerUpIdleDeviceOnSystemWake = WdfUseDefault;
    Settings->IdleTimeoutType = DriverManagedIdleTimeout;
    Settings->ExcludeD3Cold = WdfUseDefault;
    Settings->IdleCaps = IdleCaps;
    Settings->DxState = IdleCaps == IdleCannotWakeFromS0 ? PowerDeviceD3 : PowerDeviceMaximum;
}

extern "C" NTSTATUS WdfDeviceAssignS0IdleSettings(WDFDEVICE Device, PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS Settings);

/* Idle references, with the tag and source location the framework tracks. */
extern "C" NTSTATUS WdfDeviceStopIdleActual(WDFDEVICE Device, BOOLEAN WaitForD0, PVOID Tag, LONG Line, PCHAR File);
extern "C" VOID WdfDeviceResumeIdleActual(WDFDEVICE Device, PVOID Tag, LONG Line, PCHAR File);
#define WdfDeviceStopIdleWithTag(Device, WaitForD0, Tag) \
    WdfDeviceStopIdleActual(Device, WaitForD0, Tag, __LINE__, (PCHAR)__FILE__)
#define WdfDeviceStopIdle(Device, WaitForD0) WdfDeviceStopIdleWithTag(Device, WaitForD0, NULL)
#define WdfDeviceResumeIdleWithTag(Device, Tag) WdfDeviceResumeIdleActual(Device, Tag, __LINE__, (PCHAR)__FILE__)
#define WdfDeviceResumeIdle(Device) WdfDeviceResumeIdleWithTag(Device, NULL)

/* ---- I/O targets ---- */
typedef enum _WDF_IO_TARGET_OPEN_TYPE {
    WdfIoTargetOpenUndefined = 0,
    WdfIoTargetOpenUseExistingDevice = 1,
    WdfIoTargetOpenByName = 2,
    WdfIoTargetOpenReopen = 3,
    WdfIoTargetOpenLocalTargetByFile = 4,
} WDF_IO_TARGET_OPEN_TYPE;

typedef NTSTATUS(EVT_WDF_IO_TARGET_QUERY_REMOVE)(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_QUERY_REMOVE* PFN_WDF_IO_TARGET_QUERY_REMOVE;
typedef VOID(EVT_WDF_IO_TARGET_REMOVE_CANCELED)(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_REMOVE_CANCELED* PFN_WDF_IO_TARGET_REMOVE_CANCELED;
typedef VOID(EVT_WDF_IO_TARGET_REMOVE_COMPLETE)(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_REMOVE_COMPLETE* PFN_WDF_IO_TARGET_REMOVE_COMPLETE;

typedef struct _WDF_IO_TARGET_OPEN_PARAMS {
    ULONG Size;
    WDF_IO_TARGET_OPEN_TYPE Type;
    PFN_WDF_IO_TARGET_QUERY_REMOVE EvtIoTargetQueryRemove;
    PFN_WDF_IO_TARGET_REMOVE_CANCELED EvtIoTargetRemoveCanceled;
    PFN_WDF_IO_TARGET_REMOVE_COMPLETE EvtIoTargetRemoveComplete;
    PDEVICE_OBJECT TargetDeviceObject;
    PFILE_OBJECT TargetFileObject;
    UNICODE_STRING TargetDeviceName;
    ACCESS_MASK DesiredAccess;
    ULONG ShareAccess;
    ULONG FileAttributes;
    ULONG CreateDisposition;
    ULONG CreateOptions;
    PVOID EaBuffer;
    ULONG EaBufferLength;
    PLONGLONG AllocationSize;
    ULONG FileInformation;
    UNICODE_STRING FileObjectFileName;
} WDF_IO_TARGET_OPEN_PARAMS, *PWDF_IO_TARGET_OPEN_PARAMS;

inline VOID WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(PWDF_IO_TARGET_OPEN_PARAMS Params,
                                                       PCUNICODE_STRING TargetDeviceName, ACCESS_MASK DesiredAccess)
{
    RtlZeroMemory(Params, sizeof(WDF_IO_TARGET_OPEN_PARAMS));
    Params->Size = sizeof(WDF_IO_TARGET_OPEN_PARAMS);
    Params->Type = WdfIoTargetOpenByName;
    RtlCopyMemory(&Params->TargetDeviceName, TargetDeviceName, sizeof(UNICODE_STRING));
    Params->DesiredAccess = DesiredAccess;
    Params->CreateDisposition = FILE_OPEN;
    Params->CreateOptions = FILE_NON_DIRECTORY_FILE;
}

typedef enum _WDF_MEMORY_DESCRIPTOR_TYPE {
    WdfMemoryDescriptorTypeInvalid = 0,
    WdfMemoryDescriptorTypeBuffer,
    WdfMemoryDescriptorTypeMdl,
    WdfMemoryDescriptorTypeHandle,
} WDF_MEMORY_DESCRIPTOR_TYPE;

typedef struct _WDFMEMORY_OFFSET {
    size_t BufferOffset;
    size_t BufferLength;
} WDFMEMORY_OFFSET, *PWDFMEMORY_OFFSET;

typedef struct _WDF_MEMORY_DESCRIPTOR {
    WDF_MEMORY_DESCRIPTOR_TYPE Type;
    union {
        struct {
            PVOID Buffer;
            ULONG Length;
        } BufferType;
        struct {
            PMDL Mdl;
            ULONG BufferLength;
        } MdlType;
        struct {
            WDFMEMORY Memory;
            PWDFMEMORY_OFFSET Offsets;
        } HandleType;
    } u;
} WDF_MEMORY_DESCRIPTOR, *PWDF_MEMORY_DESCRIPTOR;

inline VOID WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(PWDF_MEMORY_DESCRIPTOR Descriptor, PVOID Buffer, ULONG BufferLength)
{
    RtlZeroMemory(Descriptor, sizeof(WDF_MEMORY_DESCRIPTOR));
    Descriptor->Type = WdfMemoryDescriptorTypeBuffer;
    Descriptor->u.BufferType.Buffer = Buffer;
    Descriptor->u.BufferType.Length = BufferLength;
}

typedef enum _WDF_REQUEST_SEND_OPTIONS_FLAGS {
    WDF_REQUEST_SEND_OPTION_TIMEOUT = 0x00000001,
    WDF_REQUEST_SEND_OPTION_SYNCHRONOUS = 0x00000002,
    WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE = 0x00000004,
    WDF_REQUEST_SEND_OPTION_SEND_AND_FORGET = 0x00000008,
    WDF_REQUEST_SEND_OPTION_IMPERSONATE_CLIENT = 0x00010000,
    WDF_REQUEST_SEND_OPTION_IMPERSONATION_IGNORE_FAILURE = 0x00020000,
} WDF_REQUEST_SEND_OPTIONS_FLAGS;

typedef struct _WDF_REQUEST_SEND_OPTIONS {
    ULONG Size;
    ULONG Flags;
    LONGLONG Timeout;
} WDF_REQUEST_SEND_OPTIONS, *PWDF_REQUEST_SEND_OPTIONS;

inline VOID WDF_REQUEST_SEND_OPTIONS_INIT(PWDF_REQUEST_SEND_OPTIONS Options, ULONG Flags)
{
    RtlZeroMemory(Options, sizeof(WDF_REQUEST_SEND_OPTIONS));
    Options->Size = sizeof(WDF_REQUEST_SEND_OPTIONS);
    Options->Flags = Flags;
}

inline VOID WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(PWDF_REQUEST_SEND_OPTIONS Options, LONGLONG Timeout)
{
    Options->Flags |= WDF_REQUEST_SEND_OPTION_TIMEOUT;
    Options->Timeout = Timeout;
}

/* Relative time-outs are negative counts of 100 ns. */
inline LONGLONG WDF_REL_TIMEOUT_IN_MS(ULONGLONG Time) { return (LONGLONG)Time * -10000; }
inline LONGLONG WDF_REL_TIMEOUT_IN_SEC(ULONGLONG Time) { return (LONGLONG)Time * -10000000; }

extern "C" NTSTATUS WdfIoTargetCreate(WDFDEVICE Device, PWDF_OBJECT_ATTRIBUTES IoTargetAttributes,
                                      WDFIOTARGET* IoTarget);
extern "C" NTSTATUS WdfIoTargetOpen(WDFIOTARGET IoTarget, PWDF_IO_TARGET_OPEN_PARAMS OpenParams);
extern "C" VOID WdfIoTargetClose(WDFIOTARGET IoTarget);
extern "C" NTSTATUS WdfIoTargetSendIoctlSynchronously(WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoctlCode,
                                                      PWDF_MEMORY_DESCRIPTOR InputBuffer,
                                                      PWDF_MEMORY_DESCRIPTOR OutputBuffer,
                                                      PWDF_REQUEST_SEND_OPTIONS RequestOptions,
                                                      PULONG_PTR BytesReturned);

/* ---- The published x64 layouts ---- */
#if defined(__x86_64__) || defined(_M_AMD64) || defined(__aarch64__)
static_assert(sizeof(WDF_OBJECT_CONTEXT_TYPE_INFO) == 40, "WDF_OBJECT_CONTEXT_TYPE_INFO layout");
static_assert(sizeof(WDF_OBJECT_ATTRIBUTES) == 56, "WDF_OBJECT_ATTRIBUTES layout");
static_assert(FIELD_OFFSET(WDF_OBJECT_ATTRIBUTES, ParentObject) == 32, "WDF_OBJECT_ATTRIBUTES layout");
static_assert(FIELD_OFFSET(WDF_OBJECT_ATTRIBUTES, ContextTypeInfo) == 48, "WDF_OBJECT_ATTRIBUTES layout");
static_assert(sizeof(WDF_DRIVER_CONFIG) == 32, "WDF_DRIVER_CONFIG layout");
static_assert(sizeof(WDF_PNPPOWER_EVENT_CALLBACKS) == 144, "WDF_PNPPOWER_EVENT_CALLBACKS layout");
static_assert(FIELD_OFFSET(WDF_PNPPOWER_EVENT_CALLBACKS, EvtDeviceQueryRemove) == 104, "WDF_PNPPOWER_EVENT_CALLBACKS");
static_assert(sizeof(WDF_QUERY_INTERFACE_CONFIG) == 48, "WDF_QUERY_INTERFACE_CONFIG layout");
static_assert(sizeof(WDF_DEVICE_STATE) == 28, "WDF_DEVICE_STATE layout");
static_assert(sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS) == 36, "WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS layout");
static_assert(sizeof(WDF_IO_TARGET_OPEN_PARAMS) == 136, "WDF_IO_TARGET_OPEN_PARAMS layout");
static_assert(FIELD_OFFSET(WDF_IO_TARGET_OPEN_PARAMS, TargetDeviceName) == 48, "WDF_IO_TARGET_OPEN_PARAMS layout");
static_assert(FIELD_OFFSET(WDF_IO_TARGET_OPEN_PARAMS, DesiredAccess) == 64, "WDF_IO_TARGET_OPEN_PARAMS layout");
static_assert(FIELD_OFFSET(WDF_IO_TARGET_OPEN_PARAMS, CreateOptions) == 80, "WDF_IO_TARGET_OPEN_PARAMS layout");
static_assert(sizeof(WDF_MEMORY_DESCRIPTOR) == 24, "WDF_MEMORY_DESCRIPTOR layout");
static_assert(sizeof(WDF_REQUEST_SEND_OPTIONS) == 16, "WDF_REQUEST_SEND_OPTIONS layout");
#endif
