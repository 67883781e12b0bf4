// Configuration: the parameter table and the registry behind it.
#include "pnpadd.h"

enum : ULONG {
    KEY_RIGHTS_SERVICE = 0x2001F,   // read, set value, create subkey, enumerate, notify
    KEY_RIGHTS_DEVICE = 0x20000,
    VALUE_HEADER_SIZE = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data),
    VALUE_ROOM = 16,                // header and the first four bytes of data
    DWORD_QUERY_SIZE = 32,
};
static_assert(VALUE_HEADER_SIZE == 12);

struct CFG_PARAM {
    const WCHAR* Name;
    ULONG Default;
    UCHAR WriteDefault;   // 1: a missing value is created
    UCHAR Idx;            // equals the row's position
    ULONG CFG::*Field;    // where LoadCfg puts it; null: not a device parameter
    ULONG Min;
    ULONG Max;
};

static constexpr ULONG NO_MAX = MAXULONG;

static constexpr CFG_PARAM CfgParams[] = {
    {KTEXT("RequestTimeout"), 400, 1, CFG_REQUEST_TIMEOUT, &CFG::RequestTimeout, 0, NO_MAX},
    {KTEXT("TimerInterval"), 10, 1, CFG_TIMER_INTERVAL, &CFG::TimerInterval, 1, 100},
    {KTEXT("IdleInterval"), 0, 1, CFG_IDLE_INTERVAL, &CFG::IdleInterval, 0, NO_MAX},
    {KTEXT("HighPowerCfg"), 1, 1, CFG_HIGH_POWER_CFG, &CFG::HighPowerCfg, 0, NO_MAX},
    {KTEXT("LowPowerCfg"), 0, 1, CFG_LOW_POWER_CFG, &CFG::LowPowerCfg, 0, NO_MAX},
    {KTEXT("UsbInterface"), 0, 1, CFG_USB_INTERFACE, &CFG::UsbInterface, 0, NO_MAX},
    {KTEXT("UsbConfig"), 0, 1, CFG_USB_CONFIG, &CFG::UsbConfig, 0, NO_MAX},
    {KTEXT("ReadBufferSize"), 65536, 1, CFG_READ_BUFFER_SIZE, &CFG::ReadBufferSize, 64, 128000},
    {KTEXT("WriteBufferSize"), 4096, 1, CFG_WRITE_BUFFER_SIZE, &CFG::WriteBufferSize, 64, 128000},
    {KTEXT("ReadCircBufferSize"), 65536, 1, CFG_READ_CIRC_BUFFER_SIZE, &CFG::ReadCircBufferSize, 256, 128000},
    {KTEXT("WriteCircBufferSize"), 2048, 1, CFG_WRITE_CIRC_BUFFER_SIZE, &CFG::WriteCircBufferSize, 256, 128000},
    {KTEXT("ReadBufferCount"), 5, 1, CFG_READ_BUFFER_COUNT, &CFG::ReadBufferCount, 1, 32},
    {KTEXT("VID"), 0, 0, CFG_VID, &CFG::VID, 0, NO_MAX},
    {KTEXT("PID"), 0, 0, CFG_PID, &CFG::PID, 0, NO_MAX},
    {KTEXT("useCtsFlowControl"), 0, 1, CFG_USE_CTS_FLOW_CONTROL, &CFG::useCtsFlowControl, 0, NO_MAX},
    {KTEXT("FlowTest"), 0, 1, CFG_FLOW_TEST, &CFG::FlowTest, 0, NO_MAX},
    {KTEXT("TraceMask"), 3, 1, CFG_TRACE_MASK, nullptr, 0, NO_MAX},
};

static constexpr bool TableIsComplete()
{
    for (ULONG Idx = 0; Idx < CFG_PARAMETER_COUNT; ++Idx) {
        if (CfgParams[Idx].Idx != Idx)
            return false;
    }
    return sizeof(CfgParams) / sizeof(CfgParams[0]) == CFG_PARAMETER_COUNT;
}
static_assert(TableIsComplete());

NTSTATUS OpenKey(HANDLE* Key, const WCHAR* Path)
{
    UNICODE_STRING Name;
    OBJECT_ATTRIBUTES Attributes;

    RtlInitUnicodeString(&Name, Path);
    InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    return ZwOpenKey(Key, KEY_RIGHTS_SERVICE, &Attributes);
}

ULONG ReadRegDword(HANDLE Key, const WCHAR* Name, ULONG Default, UCHAR WriteDefault)
{
    union {
        KEY_VALUE_PARTIAL_INFORMATION Info;
        UCHAR Bytes[DWORD_QUERY_SIZE];
    } Query;
    UNICODE_STRING ValueName;
    ULONG ResultLength = 0;
    ULONG Value = Default;

    RtlInitUnicodeString(&ValueName, Name);
    NTSTATUS Status = ZwQueryValueKey(Key, &ValueName, KeyValuePartialInformation, &Query, sizeof(Query), &ResultLength);
    if (Status == STATUS_SUCCESS) {
        if (Query.Info.Type == REG_DWORD && Query.Info.DataLength == sizeof(ULONG))
            RtlCopyMemory(&Value, Query.Info.Data, sizeof(ULONG));
    } else if (WriteDefault) {
        ZwSetValueKey(Key, &ValueName, 0, REG_DWORD, &Default, sizeof(Default));
    }
    return Value;
}

ULONG ReadCfgParam(HANDLE Key, ULONG CfgParam)
{
    if (CfgParam >= CFG_PARAMETER_COUNT) {
        TRACE(TRC_ASSERT, "%P: Invalid Config Parameter: %i", CfgParam);
        return 0;
    }
    const CFG_PARAM* Rec = &CfgParams[CfgParam];
    KASSERT(CfgParam==Rec->Idx);
    return ReadRegDword(Key, Rec->Name, Rec->Default, Rec->WriteDefault);
}

NTSTATUS QueryRegValue(HANDLE Key, const WCHAR* Name, ULONG* Length, VOID* Buffer)
{
    UNICODE_STRING ValueName;
    ULONG ResultLength = 0;

    if (*Length > MAXULONG - VALUE_ROOM)
        return STATUS_INSUFFICIENT_RESOURCES;
    ULONG QueryLength = *Length + VALUE_ROOM;
    KEY_VALUE_PARTIAL_INFORMATION* Info =
        (KEY_VALUE_PARTIAL_INFORMATION*)ExAllocatePoolWithTag(PagedPool, QueryLength, Tag4('C', 'f', 'g', '0'));
    if (Info == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Info, QueryLength);

    RtlInitUnicodeString(&ValueName, Name);
    NTSTATUS Status = ZwQueryValueKey(Key, &ValueName, KeyValuePartialInformation, Info, QueryLength, &ResultLength);
    if (NT_SUCCESS(Status) && Buffer != NULL)
        RtlCopyMemory(Buffer, Info->Data, Info->DataLength < *Length ? Info->DataLength : *Length);
    if (ResultLength >= VALUE_HEADER_SIZE)
        *Length = ResultLength - VALUE_HEADER_SIZE;
    ExFreePool(Info);
    return Status;
}

NTSTATUS ReadRegString(HANDLE Key, const WCHAR* Name, WCHAR** Out)
{
    ULONG Length = 0;

    *Out = NULL;
    NTSTATUS Status = QueryRegValue(Key, Name, &Length, NULL);
    if (Length == 0)
        return Status;
    // Whole units and a terminator, also when the value's length is odd.
    ULONG Size = Length + (Length & 1) + sizeof(WCHAR);
    WCHAR* Text = (WCHAR*)MemAlloc(Size, Tag4('c', 'f', 'g', '0'));
    if (Text == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(Text, Size);
    Status = QueryRegValue(Key, Name, &Length, Text);
    if (!NT_SUCCESS(Status)) {
        MemFree(Text);
        return Status;
    }
    *Out = Text;
    return Status;
}

NTSTATUS LoadCfg(PDEVICE_OBJECT Pdo, CFG* Cfg)
{
    HANDLE Key;

    NTSTATUS Status = IoOpenDeviceRegistryKey(Pdo, PLUGPLAY_REGKEY_DEVICE, KEY_RIGHTS_DEVICE, &Key);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:LoadCfg: Open PLUGPLAY_REGKEY_DEVICE failed (%D)\n", Status);
        return Status;
    }
    RtlZeroMemory(Cfg, sizeof(*Cfg));
    for (ULONG Idx = 0; Idx < CFG_TRACE_MASK; ++Idx) {
        const CFG_PARAM* Rec = &CfgParams[Idx];
        ULONG Value = ReadCfgParam(Key, Idx);
        if (Value < Rec->Min)
            Value = Rec->Min;
        if (Value > Rec->Max)
            Value = Rec->Max;
        Cfg->*Rec->Field = Value;
    }
    ZwClose(Key);
    return STATUS_SUCCESS;
}

NTSTATUS WriteInstance(DEVICE* Dev)
{
    static const ULONG Written[] = {CFG_USB_INTERFACE, CFG_USB_CONFIG};
    HANDLE Key;

    NTSTATUS Status = IoOpenDeviceRegistryKey(Dev->Pdo, PLUGPLAY_REGKEY_DEVICE, KEY_RIGHTS_DEVICE, &Key);
    if (!NT_SUCCESS(Status)) {
        TRACE(TRC_ERROR, "%P:%S:WriteInstance: Open PLUGPLAY_REGKEY_DEVICE failed (%D)\n", PORT_NAME(Dev), Status);
        return Status;
    }
    for (ULONG Idx : Written) {
        const CFG_PARAM* Rec = &CfgParams[Idx];
        Status = RtlWriteRegistryValue(RTL_REGISTRY_HANDLE, (PCWSTR)Key, Rec->Name, REG_DWORD, &(Dev->Cfg.*Rec->Field),
                                       sizeof(ULONG));
        if (!NT_SUCCESS(Status)) {
            TRACE(TRC_ERROR, "%P:%S:WriteInstance: RtlWriteRegistryValue failed (%D)\n", PORT_NAME(Dev), Status);
            break;
        }
    }
    ZwClose(Key);
    return Status;
}
