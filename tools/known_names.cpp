// known_names.cpp - fault routines and variant hardware identifiers.
#include "known_names.h"

#include <strings.h>

namespace korvanel::tool {

const std::vector<std::string>& fault_routines()
{
    static const std::vector<std::string> names = {
        "ExAllocatePoolWithTag",
        "IoBuildSynchronousFsdRequest",
        "KeWaitForSingleObject",
        "RtlAnsiStringToUnicodeString",
        "WdfDeviceAddQueryInterface",
        "WdfDeviceAssignS0IdleSettings",
        "WdfDeviceCreate",
        "WdfDeviceCreateDeviceInterface",
        "WdfDeviceRetrieveDeviceInterfaceString",
        "WdfDeviceStopIdle",
        "WdfDriverCreate",
        "WdfIoTargetCreate",
        "WdfIoTargetOpen",
        "WdfIoTargetSendIoctlSynchronously",
        "WdfStringCreate",
        "ZwOpenKey",
        "ZwQueryValueKey",
    };
    return names;
}

std::string fault_routine_names()
{
    std::string out;
    for (auto& name : fault_routines()) {
        out += (out.empty() ? "" : ", ") + name;
    }
    return out;
}

std::optional<std::string> variant_name(const std::string& hardware_id)
{
    static const std::pair<const char*, const char*> variants[] = {
        {"root\\KORVANEL", "HAPS"},  {"root\\KORVANEL\\sve", "SVE"},     {"root\\KORVANEL\\rgbir", "RGBIR"},
        {"root\\KORVANEL\\mdsve", "MDSVE"}, {"root\\KORVANEL\\md_T3", "MD"}, {"root\\KORVANEL\\md", "MD"},
        {"root\\KORVANEL\\dpc", "DPC"},   {"root\\KORVANEL\\dpc_T3", "DPC"},
    };
    for (auto [id, name] : variants) {
        if (strcasecmp(id, hardware_id.c_str()) == 0) {
            return name;
        }
    }
    return std::nullopt;
}

}  // namespace korvanel::tool
