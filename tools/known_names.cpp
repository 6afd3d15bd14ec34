// known_names.cpp - fault routines and variant hardware identifiers.
#include "known_names.h"

#include "parse.h"

#include "bench/irql_rules.h"
#include "models/actuator.h"

#include <algorithm>

#include <strings.h>

namespace korvanel::tool {

// The platform routines a fault rule can make fail: the rows of the bench's
// IRQL table that say so, each name once, in the table's order.
const std::vector<std::string>& fault_routines()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (const auto& rule : bench::irql_rules()) {
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

namespace {

// Edits (insert, delete, replace one letter, case aside) from a to b.
size_t edit_distance(const std::string& a, const std::string& b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            size_t above = row[j];
            bool same = tolower(uint8_t(a[i - 1])) == tolower(uint8_t(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

}  // namespace

std::vector<std::string> unread_registry_notes(const std::vector<std::string>& given,
                                               const std::vector<std::string>& read)
{
    std::vector<std::string> notes;
    for (auto& name : given) {
        if (read.empty() || std::any_of(read.begin(), read.end(), [&](const std::string& r) {
                return strcasecmp(r.c_str(), name.c_str()) == 0;
            })) {
            continue;
        }
        // A name of a few hundred letters is compared by its start only.
        std::string start = name.substr(0, 256);
        auto closest = std::min_element(read.begin(), read.end(), [&](const std::string& x, const std::string& y) {
            return edit_distance(start, x) < edit_distance(start, y);
        });
        notes.push_back("registry value '" + excerpt(name) + "' is never read by the driver (did you mean '" +
                        *closest + "'?)");
    }
    return notes;
}

std::string actuator_chip_names()
{
    std::string names;
    for (auto& chip : models::actuator_chips()) {
        names += (names.empty() ? "" : ", ") + chip.name;
    }
    return names;
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
