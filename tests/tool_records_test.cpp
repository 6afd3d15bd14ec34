// What korvanel-sim shows of the interface: records decoded to named fields,
// every slot as a named call with named arguments, and the decoded trace.
#include "camera_client.h"

#include "sensor/description.h"
#include "tools/calls.h"
#include "tools/records.h"
#include "tools/trace_view.h"

#include <set>

namespace korvanel::test {
namespace {

using nlohmann::ordered_json;
using tool::Record;

// A field decoded at the wrong offset or with the wrong width shows another
// field's bytes: every byte of every record belongs to exactly one field.
TEST(RecordLayoutTest, FieldsCoverEachRecordByteForByte)
{
    for (Record r : {Record::Caps, Record::Parameters, Record::ModeInfo, Record::ModuleInfo, Record::PdafInfo,
                     Record::ModeEntry, Record::PdafMode, Record::Entry}) {
        const auto& layout = tool::record_layout(r);
        std::vector<int> owners(layout.size, 0);
        std::set<std::string> names;
        for (auto& f : layout.fields) {
            EXPECT_TRUE(names.insert(f.name).second) << layout.name << " names " << f.name << " twice";
            if (f.kind == tool::RecordField::Kind::Bits) {
                continue;  // a flag inside a word another field covers
            }
            ASSERT_LE(f.offset + f.size, layout.size) << layout.name << "." << f.name;
            for (size_t b = f.offset; b < f.offset + f.size; b++) {
                owners[b]++;
            }
        }
        for (size_t b = 0; b < layout.size; b++) {
            EXPECT_EQ(owners[b], 1) << layout.name << " byte " << b;
        }
    }
}

// "in" presets fields the way a caller's record arrives; a flag is set inside
// its word without touching the word's other bits, and a wrong field or
// value is named.
TEST(RecordLayoutTest, FieldsAreSetByName)
{
    const auto& caps = tool::record_layout(Record::Caps);
    SENSOR_CAPS record{};
    record.ModeFlags = 0xFFFFFFC7;  // every bit but CapsMode's
    ASSERT_EQ(tool::encode_fields(caps, {{"CapsMode", 4}, {"Count", "0x10"}}, &record), std::nullopt);
    EXPECT_EQ(record.ModeFlags, 0xFFFFFFE7u);
    EXPECT_EQ(record.Count, 16u);
    auto decoded = tool::decode_record(caps, &record);
    EXPECT_EQ(decoded["CapsMode"], 4);
    EXPECT_EQ(decoded["CapsModeName"], "SENSOR_CAPS_MODE_RGBIR");

    const auto& module = tool::record_layout(Record::ModuleInfo);
    SENSOR_MODULE_INFO info;
    memset(&info, 0xFF, sizeof info);
    ASSERT_EQ(tool::encode_fields(module, {{"DriverName", "ABC"}}, &info), std::nullopt);
    EXPECT_EQ(tool::decode_record(module, &info)["DriverName"], "ABC");
    EXPECT_EQ(uint8_t(info.DriverName[4]), 0xFF);  // past the terminator: as it was

    struct Bad {
        Record record;
        ordered_json fields;
        const char* names;
    } bad[] = {
        {Record::Caps, {{"Mode", 1}}, "SENSOR_CAPS has no field 'Mode'"},
        {Record::Caps, {{"CapsMode", 8}}, "'CapsMode' of SENSOR_CAPS takes a number of 3 bits"},
        {Record::ModeInfo, {{"Width", 65536}}, "'Width' of SENSOR_MODE_INFO takes a number of 16 bits"},
        {Record::ModuleInfo, {{"VendorName", "seventeen letters"}}, "at most 16 characters"},
        {Record::ModeInfo, {{"Untouched", "01"}}, "takes 2 hex bytes"},
    };
    for (auto& b : bad) {
        std::vector<uint8_t> bytes(tool::record_layout(b.record).size);
        auto error = tool::encode_fields(tool::record_layout(b.record), b.fields, bytes.data());
        ASSERT_TRUE(error.has_value()) << b.fields.dump();
        EXPECT_NE(error->find(b.names), std::string::npos) << *error;
    }
}

class CallTest : public CameraTest {
protected:
    ordered_json call(const std::string& name, const ordered_json& args = ordered_json::object(), bool raw = false)
    {
        tool::ArgumentError error;
        auto made = tool::prepare_call(name, args, error);
        EXPECT_TRUE(made) << name << ": " << error.field << ": " << error.message;
        return made ? made(si, raw) : ordered_json();
    }
};

// Arguments reach the slot as the camera driver passes them, and what the
// slot writes comes back under the record's names.
TEST_F(CallTest, ArgumentsAndResultsByName)
{
    open({u"root\\KORVANEL\\rgbir"});
    struct Case {
        const char* name;
        ordered_json args;
        ordered_json expected;  // within the result
    } cases[] = {
        {"GetSensorCaps", {}, {{"status", "STATUS_SUCCESS"}, {"ModeFlags", 0xC61}, {"CapsMode", 4}}},
        {"SelectMode", {{"TableIndex", "Preview"}, {"MinWidth", 4000}, {"MinHeight", 3000}},
         {{"status", "STATUS_SUCCESS"}}},
        {"GetModeInfo", {{"Size", 100}, {"in", {{"Untouched", "AB CD"}}}},
         {{"Size", 40}, {"Width", 4032}, {"Height", 3024}, {"Width30", 4032}, {"Untouched", "AB CD"}}},
        {"SelectMode", {{"TableIndex", 2}, {"MinWidth", 1296}, {"MinHeight", 798}, {"FrameRate", 60}},
         {{"status", "STATUS_SUCCESS"}}},
        {"GetModeInfo", {}, {{"Width", 1296}, {"Height", 798}}},
        {"GetModuleInfo", {}, {{"VariantCode", 9}, {"SensorName", "RGBIR"}, {"VendorName", "ORVEX"}}},
        {"QueryProperty", {{"Id", 33}, {"in", {{"Value", 7}}}}, {{"status", "STATUS_NOT_SUPPORTED"}, {"Value", 7}}},
        {"GetPdafInfo", {{"Width", 1000}, {"Height", 1000}, {"in", {{"Word28", 5}}}},
         {{"status", "STATUS_NOT_SUPPORTED"}, {"PdafWidth", 0}, {"Word28", 5}, {"Word36", 48}}},
        {"GetModeTables", {{"null", {"Raw"}}}, {{"status", "STATUS_INVALID_PARAMETER"}}},
        {"GetModeTables", {}, {{"Preview", {{"Count", 22}}}, {"Raw", {{"Count", 22}}}}},
        {"AcceptEntryList", {{"Entries", {{{"Word1", 1}}, {{"Word1", 2}}}}, {"Count", 2}},
         {{"status", "STATUS_SUCCESS"}}},
        {"AcceptEntryList", {{"null", {"Entries"}}, {"Count", 3}}, {{"status", "STATUS_INVALID_PARAMETER"}}},
        {"GetParameterWord", {}, {{"Value", 0x37530}}},
        {"GetMipiConfig", {{"in", {{"Lanes", 9}}}, {"null", {"Port"}}}, {{"Lanes", 9}}},
    };
    for (auto& c : cases) {
        ordered_json result = call(c.name, c.args);
        for (auto& [key, value] : c.expected.items()) {
            if (value.is_object()) {
                EXPECT_EQ(result[key]["Count"], value["Count"]) << c.name << " " << key;
            } else {
                EXPECT_EQ(result[key], value) << c.name << " " << c.args.dump() << ": " << key;
            }
        }
    }
    // The mode list came back from the driver's own published list.
    auto preview = call("GetModeTables")["Preview"]["Entries"];
    EXPECT_EQ(preview[3]["Width"], 1920);
    EXPECT_EQ(preview[3]["Height"], 1120);
    // A null context is refused by every operation that returns a status.
    for (auto& name : tool::call_names()) {
        ordered_json args = {{"null", {"Context"}}};
        if (name == "SelectMode") {
            args.update({{"MinWidth", 640}, {"MinHeight", 480}});
        }
        auto result = call(name, args);
        if (name != "GetMipiConfig") {
            EXPECT_EQ(result["status"], "STATUS_INVALID_PARAMETER") << name;
        }
    }
}

// Lists shorter than what the driver reads are padded with zeros, never read
// past their end; the driver's trace shows what it read.
TEST_F(CallTest, ShortListsReachTheDriverPadded)
{
    sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    open();
    auto traced = [&](const char* text) {
        std::vector<uint32_t> words;
        for (auto& e : sys.traces().find(text)) {
            for (size_t i = 1; i < e.args.size(); i++) {
                words.push_back(bench::Traces::u32(e, i));
            }
        }
        sys.traces().clear();
        return words;
    };
    sys.traces().clear();
    call("AcceptRecord", {{"Record", {1, 2}}});
    call("AcceptRecord", {{"Record", {1, 2, 3, 4, 5}}});
    EXPECT_EQ(traced("AcceptRecord word 3 %u %!STATUS!"), (std::vector<uint32_t>{0, 0, 4, 0}));
    call("AcceptEntryList", {{"Entries", {{{"Word1", 7}, {"Word3", 9}}}}, {"Count", 3}});
    EXPECT_EQ(traced("AcceptEntryList entry %u: %u %u %u %!STATUS!"),
              (std::vector<uint32_t>{0, 7, 0, 9, 0, 1, 0, 0, 0, 0, 2, 0, 0, 0, 0}));
}

TEST_F(CallTest, RawBytesKeepWhatTheCallerHadPastEachText)
{
    open();
    auto result = call("GetModuleInfo", {{"fill", 255}}, /*raw=*/true);
    auto bytes = result["bytes"].get<std::string>();
    // DriverName at 18: "KORVANEL", its terminator, then the caller's 0xFF.
    EXPECT_EQ(bytes.substr(18 * 3, 10 * 3 - 1), "4B 4F 52 56 41 4E 45 4C 00 FF");
}

TEST_F(CallTest, WrongArgumentsAreNamed)
{
    open();
    struct Case {
        const char* name;
        ordered_json args;
        const char* field;
        const char* message;
    } cases[] = {
        {"GetModeInfoo", {}, "", "is not an operation of SENSOR_INTERFACE"},
        {"SelectMode", {{"MinWidth", 1920}}, "MinHeight", "SelectMode needs MinHeight"},
        {"SelectMode", {{"MinWidth", "wide"}, {"MinHeight", 1}}, "MinWidth", "takes a number"},
        {"SelectMode", {{"Width", 1}}, "Width", "has no argument 'Width'"},
        {"GetModeInfo", {{"null", {"Infoo"}}}, "null/0", "no pointer parameter \"Infoo\""},
        {"GetModeInfo", {{"in", {{"Heigth", 1}}}}, "in", "SENSOR_MODE_INFO has no field 'Heigth'"},
        {"QueryProperty", {{"in", {{"Id", 1}}}}, "in/Id", "QueryProperty has no output 'Id'"},
        {"AcceptEntryList", {{"Entries", {{{"Word9", 1}}}}}, "Entries/0", "SENSOR_ENTRY has no field 'Word9'"},
        {"AcceptNotice", {{"fill", 0}}, "fill", "has no argument 'fill'"},
    };
    for (auto& c : cases) {
        tool::ArgumentError error;
        EXPECT_FALSE(tool::prepare_call(c.name, c.args, error)) << c.name;
        EXPECT_EQ(error.field, c.field) << c.name << " " << c.args.dump();
        EXPECT_NE(error.message.find(c.message), std::string::npos) << error.message;
    }
}

// The trace as a trace-format tool prints it, and its two filters; an event
// no format names still shows where it came from and what it carried.
TEST_F(CallTest, TraceLinesCarryTimeLevelModuleAndNumber)
{
    sys.traces().enable(TRACE_INFO | TRACE_ERROR);
    open();
    int64_t origin = sys.clock().now();
    sys.traces().clear();
    sys.clock().advance_us(12500);
    EXPECT_EQ(call("SelectMode", {{"MinWidth", 9000}, {"MinHeight", 100}})["status"], "STATUS_UNSUCCESSFUL");
    auto events = sys.traces().events();

    auto all = tool::trace_entries(sys.traces(), events, {});
    tool::TraceOptions errors;
    errors.level = "error";
    auto failed = tool::trace_entries(sys.traces(), events, errors);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_GT(all.size(), failed.size());
    EXPECT_EQ(all[0].level, "INFO");
    EXPECT_EQ(sys.traces().decode(events[0]), "sensor: " + all[0].text);
    EXPECT_EQ(failed[0].module, "sensor");
    EXPECT_EQ(failed[0].number, events.back().number);
    EXPECT_EQ(tool::trace_line(failed[0], origin),
              "   12.5000 ms  ERROR  sensor         #" + std::to_string(failed[0].number) + "  " + failed[0].text);
    EXPECT_NE(failed[0].text.find("STATUS_UNSUCCESSFUL"), std::string::npos);

    tool::TraceOptions other_module;
    other_module.modules = {"REGISTRY"};
    EXPECT_TRUE(tool::trace_entries(sys.traces(), events, other_module).empty());
    other_module.modules.push_back("Sensor");
    EXPECT_EQ(tool::trace_entries(sys.traces(), events, other_module).size(), all.size());

    const GUID unknown = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
    uint32_t word = 0x0A0B0C0D;
    bench::Traces::Argument args[] = {{"KORVANEL", 9}, {&word, 4}};
    sys.traces().record(unknown, 42, 0, sys.clock().now(), args, 2);
    events = sys.traces().events();
    auto entries = tool::trace_entries(sys.traces(), {events.back()}, {});
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, "?");
    EXPECT_EQ(entries[0].module, "{12345678-9ABC-DEF0-0102-030405060708}");
    EXPECT_EQ(entries[0].number, 42);
    EXPECT_EQ(entries[0].text, "0d0c0b0a");
    EXPECT_EQ(sys.traces().decode(events.back()), "{12345678-9ABC-DEF0-0102-030405060708} #42: 0d0c0b0a");
}

}  // namespace
}  // namespace korvanel::test
