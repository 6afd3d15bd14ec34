// known_names.cpp - fault routines and variant hardware identifiers.
#include "known_names.h"

#include "host/irql_rules.h"

#include <algorithm>

#include <strings.h>

namespace korvanel::tool {

// The platform routines a fault rule can make fail: the rows of the bench's
// IRQL table that say so, each name once, in the table's order.
const std::vector<std::string>& fault_routines()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (const auto& rule : host::irql_rules()) {
            if (rule.fails && std::find(out.begin(), out.end(), rule.routine) == out.end()) {
                out.push_back(rule.routine);
            }
        }
        return out;
    }();
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
