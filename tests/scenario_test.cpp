// Scenario files: a malformed file is refused with its line and field before
// anything runs, every kind of step reaches the bench, every kind of
// expectation that fails says which step and why, and a long run stays fast
// on the virtual clock.
#include <gtest/gtest.h>

#include "long_scenario.h"

#include "sensor/description.h"
#include "tools/scenario.h"
#include "tools/scenario_reader.h"
#include "tools/scenario_report.h"

#include <fstream>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

namespace korvanel::test {
namespace {

// Each run loads the driver on its own bench; device add rewrites the
// driver-wide PDAF fields from the registry, so they are put back.
class ScenarioTest : public ::testing::Test {
protected:
    const PDAF_INFO savedPdaf = PdafInfoTemplate;
    const ULONG savedPdafType = SensorParameters.PdafType;
    std::string out, err;

    void TearDown() override
    {
        PdafInfoTemplate = savedPdaf;
        SensorParameters.PdafType = savedPdafType;
    }

    int run(const std::string& text, tool::ScenarioOptions options = {})
    {
        std::ostringstream o, e;
        int status = tool::run_scenario_text(text, "test.jsonc", "", options, o, e);
        out = o.str();
        err = e.str();
        return status;
    }
};

TEST_F(ScenarioTest, MalformedFilesNameTheLineAndTheField)
{
    struct Case {
        const char* text;
        const char* message;
    } cases[] = {
        {"{\n  \"device\": {}\n  \"steps\": []\n}", "test.jsonc:3: not valid JSON: "},
        // Comments hold braces, brackets and quotes that are not structure.
        {"{\n  // a \"quoted\" { comment [\n  /* a block\n     comment } ] */\n  \"device\": {},\n"
         "  \"steps\": [{\"call\": \"GetModeInfo\"},\n    {\"call\": \"SelectMode\", \"MinWidth\": 1,\n"
         "     \"MinHeight\": \"tall\"}]\n}",
         "test.jsonc:8: step 2: field \"MinHeight\": MinHeight takes a number"},
        {"{\"device\": {},\n \"step\": []}", "test.jsonc:2: field \"step\": unknown field 'step'"},
        {"{\"device\": {}, \"steps\": [\n {\"call\": \"PowerUp\",\n  \"advance_ms\": 5}]}",
         "test.jsonc:3: step 1: field \"advance_ms\": a step does one thing"},
        {"{\"device\": {}, \"steps\": [{\"call\": \"PowerUp\", \"device\": \"rear\"}]}",
         "step 1: field \"device\": no device is called 'rear'"},
        {"{\"device\": {}, \"steps\": [{\"call\": \"PowerUp\",\n \"expect\": {\n \"status\": \"STATUS_SUCESS\"}}]}",
         "test.jsonc:3: step 1: field \"expect.status\": takes a status name"},
        {"{\"device\": {}, \"steps\": [{\"vcm\": \"init\"}]}", "field \"vcm\": device 'device' has no \"vcm\""},
        {"{\"device\": {\"vcm\": {\"chip\": \"AD5823\", \"connection\": \"0x51\"},\n"
         "  \"nvm\": {\"type\": 6, \"connection\": \"0x50\"}}, \"steps\": []}",
         "test.jsonc:2: field \"device.nvm.connection\": connection 0x51 already has a part"},
        {"{\"device\": {\"registry\": {\"MipiLanes\": {\"word\": 4}}}, \"steps\": []}",
         "field \"device.registry.MipiLanes.word\": a registry value is"},
        {"{\"device\": {}, \"steps\": [{\"call\": \"PowerUp\", \"expect\": {\"bus\": [\"W 01\", \"X 01\"]}}]}",
         "step 1: field \"expect.bus[1]\": a transfer reads"},
        {"{\"device\": {}, \"steps\": [{\"fault\": \"fail\", \"transfer\": 1}]}",
         "step 1: field \"fault\": 'fail' needs the \"status\""},
        // Quotes, braces and slashes inside texts, and a key with a slash in it.
        {"{\"description\": \"a \\\"quoted\\\" // {text}\",\n \"device\": {\"registry\": {\n"
         "  \"Mipi/Lanes\": {\"word\": 1}}}, \"steps\": []}",
         "test.jsonc:3: field \"device.registry.Mipi/Lanes.word\": a registry value is"},
        {"{\"device\": {}, \"steps\": [\n  {\"call\": \"AcceptEntryList\", \"Entries\": [{}, {},\n"
         "   {\"Word5\": 1}]}]}",
         "test.jsonc:3: step 1: field \"Entries[2]\": SENSOR_ENTRY has no field 'Word5'"},
    };
    for (auto& c : cases) {
        EXPECT_EQ(run(c.text), 2) << c.text;
        EXPECT_NE(err.find(c.message), std::string::npos) << c.text << "\n" << err;
        EXPECT_EQ(out, "") << "nothing runs";
    }
}

// A part is "vcm" or "nvm" in a device and a step alike; the old spellings
// are refused with the one to use, never read as something else.
TEST_F(ScenarioTest, PartsHaveOneNameAndTheOldOnesAreRefusedWithIt)
{
    const std::string device = R"("device": {"vcm": {"chip": "DW9719"}, "nvm": {"type": 7}})";
    auto read = [&](const std::string& head, const std::string& step, std::string& error) {
        return tool::read_scenario("{" + head + ", \"steps\": [" + step + "]}", "a.jsonc", "", error);
    };
    std::string error;
    auto scenario = read(device, R"({"vcm": "setpos:300"}, {"nvm": "read:0:16"})", error);
    ASSERT_TRUE(scenario) << error;
    EXPECT_EQ(step_title(*scenario, scenario->steps[0]), "vcm setpos:300");
    const struct {
        std::string head, step, message;
    } refused[] = {
        {device, R"({"actuator": "init"})", "step 1: field \"actuator\": 'actuator' is now spelled 'vcm'"},
        {device, R"({"memory": "load"})", "step 1: field \"memory\": 'memory' is now spelled 'nvm'"},
        {R"("device": {"actuator": {"chip": "DW9719"}})", R"({"vcm": "init"})",
         "field \"device.actuator\": 'actuator' is now spelled 'vcm', as the --vcm options are"},
        {device, R"({"nvm": "read:65536:16"})", "step 1: field \"nvm\": 'read:65536:16': '65536' is not an address"},
        {device, R"({"vcm": "init,getpos"})", "step 1: field \"vcm\": one actuator operation a step"},
        {device, R"({"nvm": "load", "note": "x", "lens": 1})",
         "unknown field 'lens' (known here: nvm, device, expect, note, irql)"},
    };
    for (auto& r : refused) {
        EXPECT_FALSE(read(r.head, r.step, error)) << r.step;
        EXPECT_NE(error.find(r.message), std::string::npos) << error;
    }
}

// Every kind of step reaches the bench as the expectations inside say; the
// run passes only if they all hold.
TEST_F(ScenarioTest, StepsReachTheDriverAndTheBench)
{
    const char* text = R"({
      "bus_speed": "400k",
      "devices": [
        {"name": "text lanes", "registry": {"MipiLanes": {"sz": "4"}}},
        {"name": "cam", "registry": {"MipiLanes": {"dword": 4}, "MipiMBps": "0x5DC"},
         "vcm": {"chip": "DW9714", "connection": "0x0c"}, "nvm": {"type": 5, "connection": "0x50"}}
      ],
      "steps": [
        {"device": "text lanes", "call": "GetMipiConfig", "expect": {"values": {"Lanes": 2}}},
        {"device": "cam", "call": "QueryProperty", "expect": {"values": {"Value": 1500000000}}},

        {"fault": "timeout", "transfer": 2},
        {"device": "cam", "vcm": "setpos:100", "expect": {"status": "STATUS_SUCCESS", "transfers": 1}},
        {"device": "cam", "vcm": "setpos:200", "expect": {"status": "STATUS_IO_TIMEOUT", "lens": 100}},
        {"device": "cam", "vcm": "setpos:300", "expect": {"status": "STATUS_SUCCESS", "lens": 300}},

        {"fail_routine": "WdfIoTargetOpen", "status": "STATUS_INSUFFICIENT_RESOURCES"},
        {"device": "cam", "nvm": "read:0:2", "expect": {"status": "STATUS_INSUFFICIENT_RESOURCES", "transfers": 0}},
        {"fault": "complete", "status": "STATUS_NOTIFY_CLEANUP", "match": {"direction": "write", "prefix": "00 10"}},
        {"device": "cam", "nvm": "read:16:2",
         "expect": {"status": "STATUS_INVALID_PARAMETER", "bus": ["0x50 W 00 10  STATUS_NOTIFY_CLEANUP"]}},
        {"fault": "nack", "match": {"connection": "0x50"}, "times": 0},
        {"fault": "clear"},
        {"device": "cam", "nvm": "write:16:A1B2", "expect": {"status": "STATUS_SUCCESS", "memory": {"address": 16, "data": "A1 B2"}}},

        {"device": "cam", "pnp": "query_stop", "expect": {"status": "STATUS_INVALID_DEVICE_STATE"}},
        {"device": "cam", "interface": "take", "expect": {"status": "STATUS_SUCCESS"}},
        {"device": "cam", "interface": "release"},
        {"device": "cam", "interface": "release"},
        {"device": "cam", "pnp": "query_stop", "expect": {"status": "STATUS_SUCCESS"}},
        {"bus_speed": "100k"},
        {"device": "cam", "nvm": "read:16:2", "expect": {"values": {"data": "A1B2"}, "clock_ms": 8020.915}}
      ]
    })";
    EXPECT_EQ(run(text), 0) << out << err;
    EXPECT_NE(out.find("Passed: 20 steps, 19 expectations met"), std::string::npos) << out;
}

TEST_F(ScenarioTest, FailedExpectationsSayWhichStepAndWhy)
{
    const char* text = R"({
      "device": {"vcm": {"chip": "DW9719"}, "nvm": {"type": 7}},
      "steps": [
        {"call": "SelectMode", "MinWidth": 9000, "MinHeight": 100, "expect": {"status": "STATUS_SUCCESS"}},
        {"call": "GetModeInfo", "expect": {"values": {"Width": 640, "Height": 480, "Sizes": 1}}},
        {"vcm": "init", "expect": {"bus": ["W 00", "R F1"]}},
        {"vcm": "setpos:300", "expect": {"bus": ["W 03", "R 00", "W 03 01", "W 04 2D"], "lens": 301}},
        {"expect": {"power": {"state": "D3", "references": 1}, "clock_ms": 1}},
        {"call": "PowerUp", "expect": {"trace": ["PowerUp failed"]}},
        {"call": "PowerDown"},
        {"nvm": "write:4:0102", "expect": {"memory": {"address": 3, "data": "FF 01 03"}}},
        {"interface": "release"},
        {"interface": "release"}
      ]
    })";
    EXPECT_EQ(run(text), 1);
    const char* expected[] = {
        "  step 1 (line 4, SelectMode MinWidth=9000 MinHeight=100): status: expected STATUS_SUCCESS, got "
        "STATUS_UNSUCCESSFUL\n",
        "  step 2 (line 5, GetModeInfo): values.Height: expected 480, got 512\n",
        "  step 2 (line 5, GetModeInfo): values.Sizes: not returned (returned: Size, Signature, Width,",
        "  step 3 (line 6, vcm init): bus: expected 2 transfers, got 8:\n          W 00\n          R F1\n          W 02 01\n",
        "  step 4 (line 7, vcm setpos:300): bus: transfer 4: expected W 04 2D, got W 04 2C\n",
        "  step 4 (line 7, vcm setpos:300): lens: expected code 301, got 300\n",
        "  step 5 (line 8, check): power: expected D3, got D0\n",
        "  step 5 (line 8, check): power references: expected 1, got 0\n",
        "  step 5 (line 8, check): clock: expected 1.0000 ms, got 0.0000 ms\n",
        "  step 6 (line 9, PowerUp): trace: no event of the step contains \"PowerUp failed\"; it traced:\n"
        "          INFO sensor #",
        "  step 8 (line 11, nvm write:4:0102): memory at 0x0003 (3 bytes): from 0x0005 expected 03, got 02\n",
        "  step 10 (line 13, interface release): the scenario holds no reference on the interface to release\n",
    };
    for (auto* e : expected) {
        EXPECT_NE(out.find(e), std::string::npos) << e << "\n---\n" << out;
    }
    EXPECT_NE(out.find("FAILED: 12 failures in 10 steps\n"), std::string::npos) << out;

    // The same run as JSON: each step with its outcome.
    tool::ScenarioOptions json;
    json.json = true;
    EXPECT_EQ(run(text, json), 1);
    auto doc = nlohmann::json::parse(out);
    EXPECT_EQ(doc["steps"][0]["status"], "STATUS_UNSUCCESSFUL");
    EXPECT_EQ(doc["steps"][3]["values"]["recorded_position"], 300);
    EXPECT_EQ(doc["steps"][3]["transfers"].size(), 4u);
    EXPECT_TRUE(doc["steps"][6]["failures"].empty());
    EXPECT_EQ(doc["failures"].size(), 12u);
    EXPECT_EQ(doc["unload"], "clean");
}

// Registry values of every form reach the service key with their type and
// bytes; the driver takes a REG_DWORD of up to four bytes, low byte for lanes.
// (A text value is in the run above, null in the one below.)
TEST_F(ScenarioTest, RegistryValuesOfAnyType)
{
    struct Case {
        const char* value;
        int lanes;
    } cases[] = {
        {"4", 4},
        {"\"0x104\"", 4},
        {"{\"dword\": 3}", 3},
        {"{\"type\": 4, \"data\": \"05\"}", 5},
        {"{\"type\": 4, \"data\": \"05 00 00 00 00 00 00 00\"}", 2},
        {"{\"type\": 3, \"data\": \"04 00 00 00\"}", 2},
        {"{\"qword\": 4}", 2},
        {"{\"multi_sz\": [\"4\", \"4\"]}", 2},
    };
    for (auto& c : cases) {
        std::string text = "{\"device\": {\"registry\": {\"MipiLanes\": " + std::string(c.value) +
                           "}}, \"steps\": [{\"call\": \"GetMipiConfig\", \"expect\": {\"values\": "
                           "{\"Lanes\": " + std::to_string(c.lanes) + "}}}]}";
        EXPECT_EQ(run(text), 0) << c.value << "\n" << out << err;
    }
}

// Two modules: each is added with its own registry values in force, and
// has its own interface references and power.
TEST_F(ScenarioTest, EachDeviceHoldsItsOwnInterfaceAndPower)
{
    const char* text = R"({
      "devices": [{"name": "rear", "registry": {"MipiLanes": 4}},
                  {"name": "front", "hwid": "root\\KORVANEL\\rgbir", "registry": {"MipiLanes": null}}],
      "steps": [
        {"device": "rear", "call": "GetMipiConfig", "expect": {"values": {"Lanes": 4}}},
        {"device": "front", "call": "GetMipiConfig", "expect": {"values": {"Lanes": 2}}},
        {"device": "rear", "call": "PowerUp"},
        {"advance_ms": 15000},
        {"device": "rear", "expect": {"power": {"state": "D0", "references": 1}}},
        {"device": "front", "expect": {"power": {"state": "D3", "references": 0}}},
        {"device": "front", "call": "GetModuleInfo", "expect": {"values": {"SensorName": "RGBIR"}}},
        {"device": "front", "interface": "release"},
        {"device": "front", "pnp": "query_remove", "expect": {"status": "STATUS_SUCCESS"}},
        {"device": "rear", "pnp": "query_remove", "expect": {"status": "STATUS_INVALID_DEVICE_STATE"}},
        {"device": "rear", "call": "PowerDown"}
      ]
    })";
    EXPECT_EQ(run(text), 0) << out;
    EXPECT_NE(out.find("[front] interface release"), std::string::npos);
    EXPECT_NE(out.find(" ms  advance 15000 ms"), std::string::npos) << "the clock belongs to no device";
}

// Contents and data files are found beside the scenario; the chart and the
// saved memory are written where the scenario says.
TEST_F(ScenarioTest, FilesBesideTheScenarioAndFilesItWrites)
{
    std::string dir = ::testing::TempDir() + "scenario_files_" + std::to_string(getpid());
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    std::ofstream(dir + "/contents.bin", std::ios::binary) << "ABCDEFGH";
    std::ofstream(dir + "/data.bin", std::ios::binary) << "xyz";
    std::string text = R"({
      "device": {"nvm": {"type": 7, "contents": "contents.bin", "save": ")" + dir + R"(/saved.bin"},
                 "vcm": {"chip": "DW9714", "plot": ")" + dir + R"(/lens.svg"}},
      "steps": [
        {"nvm": "read:0:8", "expect": {"values": {"data": "41 42 43 44 45 46 47 48"}}},
        {"nvm": "writefile:2:data.bin", "expect": {"memory": {"address": 2, "file": "data.bin"}}},
        {"vcm": "setpos:100"}, {"vcm": "setpos:300"}, {"vcm": "setpos:200"}
      ]
    })";
    std::ostringstream o, e;
    EXPECT_EQ(tool::run_scenario_text(text, "files.jsonc", dir, {}, o, e), 0) << o.str() << e.str();
    std::ifstream saved(dir + "/saved.bin", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(saved)), std::istreambuf_iterator<char>());
    EXPECT_EQ(bytes.substr(0, 8), "ABxyzFGH");
    EXPECT_EQ(bytes.size(), 128u);
    std::ifstream chart(dir + "/lens.svg");
    std::string svg((std::istreambuf_iterator<char>(chart)), std::istreambuf_iterator<char>());
    size_t dots = 0;
    for (size_t at = svg.find("<circle"); at != std::string::npos; at = svg.find("<circle", at + 1)) {
        dots++;
    }
    EXPECT_EQ(dots, 3u) << "one dot per position the chip latched";
    for (auto* f : {"/contents.bin", "/data.bin", "/saved.bin", "/lens.svg"}) {
        unlink((dir + f).c_str());
    }
    rmdir(dir.c_str());
}

// Charts and saved memories: written only by a run that passes, listed in its
// summary, never over an existing file unless the scenario or the user says
// so, into the output folder when one is given.
TEST_F(ScenarioTest, OutputsAreWrittenOnlyByAPassingRunAndNeverOverAFile)
{
    std::string dir = ::testing::TempDir() + "scenario_outputs_" + std::to_string(getpid());
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    auto slurp = [](const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    };
    auto scenario = [](const std::string& head, const std::string& expect) {
        return "{" + head + R"("device": {"nvm": {"type": 7, "save": "m.bin"},
                              "vcm": {"chip": "DW9714", "plot": "lens.svg"}},
                   "steps": [{"nvm": "write:0:4B56", "expect": {"status": ")" + expect + R"("}}]})";
    };
    struct Case {
        std::string text;
        bool force;
        std::string output_dir;  // relative to dir
        int status;
        const char* said;     // in the output or the error
        const char* m_bin;    // what dir/m.bin then holds
    } cases[] = {
        // A failed run leaves no file that could pass for a good run's.
        {scenario("", "STATUS_UNSUCCESSFUL"), false, "", 1, "Not written, the run failed: " , ""},
        {scenario("", "STATUS_SUCCESS"), false, "", 0, "Wrote: ", "KV"},
        // Now m.bin exists: the run refuses before it starts, and keeps it.
        {scenario("", "STATUS_SUCCESS"), false, "", 2, "lens.svg: the file exists; --force", "KV"},
        {scenario(R"("overwrite": true, )", "STATUS_SUCCESS"), false, "", 0, "Wrote: ", "KV"},
        {scenario("", "STATUS_SUCCESS"), true, "", 0, "Wrote: ", "KV"},
        // The output folder takes the files; the scenario's folder is left alone.
        {scenario("", "STATUS_SUCCESS"), false, "out", 0, "/out/m.bin (memory contents, 128 bytes)\n", "KV"},
    };
    ASSERT_EQ(mkdir((dir + "/out").c_str(), 0700), 0);
    for (auto& c : cases) {
        tool::ScenarioOptions options;
        options.force = c.force;
        options.output_dir = c.output_dir.empty() ? "" : dir + "/" + c.output_dir;
        std::ostringstream o, e;
        EXPECT_EQ(tool::run_scenario_text(c.text, dir + "/s.jsonc", dir, options, o, e), c.status) << o.str() << e.str();
        EXPECT_NE((o.str() + e.str()).find(c.said), std::string::npos) << o.str() << e.str();
        EXPECT_EQ(slurp(dir + "/m.bin").substr(0, 2), c.m_bin) << c.text;
    }
    EXPECT_NE(slurp(dir + "/out/lens.svg").find("<svg"), std::string::npos);
    for (auto* f : {"/m.bin", "/lens.svg", "/out/m.bin", "/out/lens.svg"}) {
        unlink((dir + f).c_str());
    }
    rmdir((dir + "/out").c_str());
    rmdir(dir.c_str());
}

// Byte strings longer than a line show as a dump with offsets under -v, and
// by their first bytes and length on the step's line.
TEST_F(ScenarioTest, LongByteStringsPrintAsADump)
{
    const char* text = R"({"device": {"nvm": {"type": 10}},
      "steps": [{"nvm": "write:0:000102030405060708090A0B0C0D0E0F101112"},
                {"nvm": "read:0:19", "expect": {"values": {"data": "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12"}}}]})";
    tool::ScenarioOptions verbose;
    verbose.verbose = true;
    ASSERT_EQ(run(text, verbose), 0) << err;
    EXPECT_NE(out.find("data 00 01 02 03 04 05 06 07 ... (19 bytes)  ok\n"), std::string::npos) << out;
    EXPECT_NE(out.find("000000  00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n"), std::string::npos) << out;
    EXPECT_NE(out.find("000010  10 11 12\n"), std::string::npos) << out;
    // The write's 21 bytes on the bus: a head line, then the dump.
    EXPECT_NE(out.find("conn 0x50  W  21:  STATUS_SUCCESS\n"), std::string::npos) << out;
}

// -v shows each step's transfers and trace events; the trace options print
// the run's trace after the steps, filtered.
TEST_F(ScenarioTest, VerboseRunsAndTheRunsTrace)
{
    const char* text = R"({
      "device": {"vcm": {"chip": "AD5823"}},
      "steps": [
        {"vcm": "getpos"},
        {"call": "SelectMode", "MinWidth": 9000, "MinHeight": 1}
      ]
    })";
    tool::ScenarioOptions verbose;
    verbose.verbose = true;
    EXPECT_EQ(run(text, verbose), 0);
    auto step2 = out.find("     2  line");
    ASSERT_NE(step2, std::string::npos) << out;
    EXPECT_NE(out.substr(0, step2).find("ms  conn 0x1c  W   1: 04  STATUS_SUCCESS"), std::string::npos) << out;
    EXPECT_NE(out.substr(0, step2).find("INFO   vcm_access"), std::string::npos) << out;
    EXPECT_NE(out.find("ERROR  sensor"), std::string::npos) << out;

    tool::ScenarioOptions errors;
    errors.trace.level = "error";
    errors.trace.modules = {"sensor"};
    EXPECT_EQ(run(text, errors), 0);
    auto trace = out.substr(out.find("Trace:\n"));
    EXPECT_NE(trace.find("ERROR  sensor"), std::string::npos) << trace;
    EXPECT_EQ(trace.find("INFO"), std::string::npos) << trace;
    EXPECT_EQ(trace.find("registry"), std::string::npos) << trace;
}

// Ten thousand steps: mode selections, mode information, lens moves and clock
// advances, each with an expectation, all met and timed on the bench's clock
// (the wall time of a long scenario is measured by the benchmarks, not here).
TEST_F(ScenarioTest, TenThousandStepsAllRunAndMeetTheirExpectations)
{
    std::string text = ten_thousand_steps();
    ASSERT_EQ(run(text), 0) << err << out.substr(out.size() > 2000 ? out.size() - 2000 : 0);
    // Each step's time on the bench: instant bus, 1 ms a fourth step.
    EXPECT_NE(out.find("Passed: 10000 steps, 7500 expectations met, 2500.0000 ms on the bench's clock"),
              std::string::npos);
}

}  // namespace
}  // namespace korvanel::test
