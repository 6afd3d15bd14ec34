// Scenario files: a malformed file is refused with its line and field before
// anything runs, every kind of step reaches the bench, every kind of
// expectation that fails says which step and why, and a long run stays fast
// on the virtual clock.
#include <gtest/gtest.h>

#include "sensor/description.h"
#include "tools/scenario.h"

#include <chrono>
#include <sstream>

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
        {"{\"device\": {}, \"steps\": [{\"vcm\": \"init\"}]}", "field \"vcm\": device 'device' has no \"actuator\""},
        {"{\"device\": {\"memory\": {\"type\": 7}}, \"steps\": [{\"nvm\": \"read:120:16\"}]}",
         "not within the memory's 128 bytes"},
        {"{\"device\": {\"actuator\": {\"chip\": \"AD5823\", \"connection\": \"0x51\"},\n"
         "  \"memory\": {\"type\": 6, \"connection\": \"0x50\"}}, \"steps\": []}",
         "test.jsonc:2: field \"device.memory.connection\": connection 0x51 already has a part"},
        {"{\"device\": {\"registry\": {\"MipiLanes\": {\"word\": 4}}}, \"steps\": []}",
         "field \"device.registry.MipiLanes.word\": a registry value is"},
        {"{\"device\": {}, \"steps\": [{\"call\": \"PowerUp\", \"expect\": {\"bus\": [\"W 01\", \"X 01\"]}}]}",
         "step 1: field \"expect.bus[1]\": a transfer reads"},
        {"{\"device\": {\"actuator\": {\"chip\": \"DW9999\"}}, \"steps\": []}",
         "field \"device.actuator.chip\": unknown actuator chip \"DW9999\""},
        {"{\"device\": {}, \"steps\": [{\"fault\": \"fail\", \"transfer\": 1}]}",
         "step 1: field \"fault\": 'fail' needs the \"status\""},
        {"{\"device\": {}, \"steps\": [{\"advance_ms\": -1}]}", "field \"advance_ms\": takes milliseconds"},
    };
    for (auto& c : cases) {
        EXPECT_EQ(run(c.text), 2) << c.text;
        EXPECT_NE(err.find(c.message), std::string::npos) << c.text << "\n" << err;
        EXPECT_EQ(out, "") << "nothing runs";
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
         "actuator": {"chip": "DW9714", "connection": "0x0c"}, "memory": {"type": 5, "connection": "0x50"}}
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
      "device": {"actuator": {"chip": "DW9719"}, "memory": {"type": 7}},
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

// Ten thousand steps: mode selections, mode information, lens moves and clock
// advances, each with an expectation.
TEST_F(ScenarioTest, TenThousandStepsRunWellUnderASecond)
{
    std::string text = "{\"device\": {\"actuator\": {\"chip\": \"DW9719\"}}, \"steps\": [\n";
    for (int i = 0; i < 2500; i++) {
        int code = i % 1024;
        text += std::string(i ? ",\n" : "") +
                "{\"call\": \"SelectMode\", \"MinWidth\": 1920, \"MinHeight\": " + std::to_string(1000 + i % 100) +
                ", \"expect\": {\"status\": \"STATUS_SUCCESS\"}},\n"
                "{\"call\": \"GetModeInfo\", \"expect\": {\"values\": {\"Width\": 1920, \"Height\": 1120}}},\n"
                "{\"vcm\": \"setpos:" + std::to_string(code) + "\", \"expect\": {\"lens\": " + std::to_string(code) +
                "}},\n{\"advance_ms\": 1}";
    }
    text += "]}";
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(run(text), 0) << err << out.substr(out.size() > 2000 ? out.size() - 2000 : 0);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // Each step's time on the bench: instant bus, 1 ms a fourth step.
    EXPECT_NE(out.find("Passed: 10000 steps, 7500 expectations met, 2500.0000 ms on the bench's clock"),
              std::string::npos);
    RecordProperty("wall_seconds", std::to_string(seconds));
    std::cout << "10000 scenario steps (2.5 s on the bench's clock) in " << seconds << " s\n";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    EXPECT_LT(seconds, 10.0);  // instrumented builds are several times slower
#else
    EXPECT_LT(seconds, 0.5);
#endif
}

}  // namespace
}  // namespace korvanel::test
