// korvanel-sim's bad inputs, run as a user runs them: the built program in a
// folder of its own, each case with the exit status and the message it must
// give. Grouped by what is wrong: paths, sizes, names, numbers, modes,
// duplicates. A handful of cases at the end are inputs that look wrong but
// must go through (to the driver, with a note).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Case {
    const char* group;
    std::string args;      // shell words; @ is the case's folder
    std::string scenario;  // written to @/s.jsonc first, when given
    int status;
    std::string message;   // in stderr, or in stdout for a run that goes ahead
};

// A tiny scenario around one device or one step.
std::string with_device(const std::string& device, const std::string& steps = "")
{
    return "{\"device\": " + device + ",\n \"steps\": [" + steps + "]}";
}
std::string with_step(const std::string& step) { return with_device("{}", step); }

const std::string kMemory = R"({"nvm": {"type": 7}})";  // 128 bytes
// An argument of 100000 bytes, and a byte that is no UTF-8 after a control byte.
const std::string kHuge = "\"$(head -c 100000 /dev/zero | tr '\\0' x)\"";
const std::string kBytes = "\"$(printf 'a\\001\\377')\"";
const std::string kStopped = R"({"call": "PowerUp", "irql": "DISPATCH_LEVEL", "expect": {"violation": "IRQL_NOT_LESS_OR_EQUAL"}})";

const std::vector<Case>& cases()
{
    static const std::vector<Case> table = {
        // ---- paths: only regular files are read; writes never lose a file ----
        {"paths", "--nvm 7 --nvm-file @", "", 2, "--nvm-file @: it is a directory"},
        {"paths", "--nvm 7 --nvm-file /dev/zero", "", 2, "/dev/zero: it is a character device, not a regular file"},
        {"paths", "--nvm 7 --nvm-file @/missing.bin", "", 2, "@/missing.bin: no such file"},
        {"paths", "--nvm 7 --nvm-ops writefile:0:@", "", 2, "writefile: @: it is a directory"},
        {"paths", "--nvm 7 --nvm-ops writefile:0:/dev/zero", "", 2, "/dev/zero: it is a character device"},
        {"paths", "--nvm 7 --nvm-ops writefile:0:@/empty.bin", "", 2, "@/empty.bin: the file is empty"},
        {"paths", "run @", "", 2, "cannot read the scenario @: it is a directory"},
        {"paths", "run /dev/zero", "", 2, "cannot read the scenario /dev/zero: it is a character device"},
        {"paths", "run @/missing.jsonc", "", 2, "@/missing.jsonc: no such file"},
        {"paths", "run @/s.jsonc", with_device(R"({"nvm": {"type": 7, "contents": "."}})"), 2,
         "field \"device.nvm.contents\": cannot read @/.: it is a directory"},
        {"paths", "run @/s.jsonc", with_device(R"({"nvm": {"type": 7, "contents": "/dev/zero"}})"), 2,
         "cannot read /dev/zero: it is a character device"},
        {"paths", "run @/s.jsonc", with_device(kMemory, R"({"nvm": "writefile:0:."})"), 2,
         "field \"nvm\": writefile: @/.: it is a directory"},
        {"paths", "--vcm DW9719 --svg @/none/lens.svg", "", 2, "--svg @/none/lens.svg: the folder @/none does not exist"},
        {"paths", "--vcm DW9719 --svg @/exists.bin", "", 2, "--svg @/exists.bin: the file exists; --force replaces it"},
        {"paths", "--vcm DW9719 --svg @ --force", "", 2, "--svg @: it is a directory"},
        {"paths", "--nvm 7 --nvm-save @/exists.bin", "", 2, "--nvm-save @/exists.bin: the file exists; --force"},
        {"paths", "--nvm 7 --nvm-save /dev/null --force", "", 2, "/dev/null: it is a character device"},
        // an input or another output by another name: a link, a hard link, another spelling
        {"paths", "--vcm DW9719 --svg @/same --nvm 7 --nvm-save @/./same", "", 2, "--svg and --nvm-save both name @/same"},
        {"paths", "--vcm DW9719 --svg @/link --nvm 7 --nvm-file @/image.bin --force", "", 2,
         "--svg @/link: it is @/image.bin, a file this run reads"},
        {"paths", "--nvm 7 --nvm-file @/hard.bin --bus-speed 400k --vcd @/./image.bin --force", "", 2,
         "--vcd @/./image.bin: it is @/hard.bin, a file this run reads"},
        {"paths", "run @/s.jsonc",
         "{\"bus_speed\": \"400k\", \"vcd\": \"link\", \"overwrite\": true, " +
             with_device(R"({"nvm": {"type": 7, "contents": "image.bin"}})").substr(1),
         2, "\"vcd\" @/link: it is @/image.bin, a file this run reads"},
        {"paths", "run @/s.jsonc",
         with_device(R"({"nvm": {"type": 7, "save": "p.out"}, "vcm": {"chip": "DW9714", "plot": "./p.out"}})"), 2,
         "\"save\" @/p.out: another output of this run is written there"},
        {"paths", "run @/s.jsonc", "{\"overwrite\": true, " + with_device(R"({"nvm": {"type": 7, "save": "s.jsonc"}})").substr(1), 2,
         "\"save\" @/s.jsonc: it is a file this run reads; a run never writes over it"},
        {"paths", "run @/s.jsonc", with_device(R"({"nvm": {"type": 7, "save": "exists.bin"}})"), 2,
         "\"save\" @/exists.bin: the file exists; --force (or \"overwrite\": true in the scenario) replaces it"},
        {"paths", "run @/s.jsonc", with_device(R"({"nvm": {"type": 7, "save": "none/m.bin"}})"), 2,
         "\"save\" @/none/m.bin: the folder @/none does not exist"},
        {"paths", "run @/s.jsonc",
         with_device(R"({"nvm": {"type": 7, "save": "x.out"}, "vcm": {"chip": "DW9714", "plot": "x.out"}})"), 2,
         "\"save\" @/x.out: another output of this run is written there"},
        {"paths", "run --output-dir @/none @/s.jsonc", with_step(""), 2, "--output-dir @/none: not a folder"},
        // waveforms and captures follow the same rule
        {"paths", "--vcm DW9719 --bus-speed 400k --vcd @/exists.bin", "", 2,
         "--vcd @/exists.bin: the file exists; --force replaces it"},
        {"paths", "--vcm DW9719 --bus-speed 400k --vcd @/none/w.vcd", "", 2,
         "--vcd @/none/w.vcd: the folder @/none does not exist"},
        {"paths", "run @/s.jsonc",
         "{\"bus_speed\": \"400k\", \"vcd\": \"exists.bin\", " + with_device(kMemory).substr(1), 2,
         "\"vcd\" @/exists.bin: the file exists; --force (or \"overwrite\": true in the scenario) replaces it"},
        {"paths", "--vcm DW9719 --bus-speed 400k --bus-capture @", "", 2, "--bus-capture @: it is a directory"},
        {"paths", "--vcm DW9719 --bus-speed 400k --bus-capture /dev/zero", "", 2,
         "/dev/zero: it is a character device, not a regular file"},
        {"paths", "--vcm DW9719 --vcd @/w.vcd", "", 2, "--vcd: a waveform needs wire time"},
        {"paths", "--vcd @/w.vcd", "", 2, "--vcd has no effect without --vcm or --nvm"},
        {"paths", "--vcm DW9719 --capture-channels D0,D1", "", 2,
         "--capture-channels has no effect without --bus-capture"},
        {"paths", "--vcm-address 0x30", "", 2, "--vcm-address has no effect without --vcm"},
        {"paths", "--nvm-address 0x54", "", 2, "--nvm-address has no effect without --nvm"},

        // ---- sizes: stated in bytes, refused before a byte is used ----
        {"sizes", "--nvm 7 --nvm-file @/129.bin", "", 2,
         "--nvm-file @/129.bin: it holds 129 bytes, more than the 128 bytes a memory image of type 7 may hold"},
        {"sizes", "run @/s.jsonc", with_device(R"({"nvm": {"type": 7, "contents": "129.bin"}})"), 2,
         "it holds 129 bytes, more than the 128 bytes a memory image of type 7 may hold"},
        {"sizes", "--nvm 10 --nvm-ops writefile:0:@/1M+1.bin", "", 2,
         "it holds 1048577 bytes, more than the 1048576 bytes the data of a write may hold"},
        {"sizes", "run @/s.jsonc", with_device(kMemory, R"({"expect": {"memory": {"address": 0, "file": "129.bin"}}})"), 2,
         "it holds 129 bytes, more than the 128 bytes the memory may hold"},
        {"sizes", "run @/16M+1.jsonc", "", 2, "it holds 16777217 bytes, more than the 16777216 bytes a scenario may hold"},

        // ---- names: checked against what exists, the valid ones listed ----
        {"names", "run @/s.jsonc", with_step(R"({"fail_routine": "WdfIoTargetOpne", "status": "STATUS_UNSUCCESSFUL"})"),
         2, "field \"fail_routine\": the bench has no routine 'WdfIoTargetOpne' to fail (ExAllocatePoolWithTag, "},
        {"names", "--trace-module nosuch", "", 2, "--trace-module: the driver has no trace module 'nosuch' (context, "},
        {"names", "run --trace-module vcm_nosuch @/s.jsonc", with_step(""), 2, "no trace module 'vcm_nosuch'"},
        {"names", "--select Previw:1920:1080:0", "", 2,
         "--select: TABLE 'Previw' is not a mode table: Still (0), Video (1), Preview (2), Raw (3), or a number"},
        {"names", "run @/s.jsonc", with_step(R"({"call": "SelectMode", "TableIndex": "Previw", "MinWidth": 1, "MinHeight": 1})"),
         2, "field \"TableIndex\": TableIndex \"Previw\" is not a mode table: Still (0)"},
        {"names", "--vcm XYZ", "", 2, "unknown actuator chip 'XYZ' (AD5823, "},
        {"names", "run @/s.jsonc", with_device(R"({"vcm": {"chip": "XYZ"}})"), 2, "unknown actuator chip \"XYZ\""},
        {"names", "--nvm 13", "", 2, "--nvm: unknown memory type '13' (types 5 to 12 have a memory)"},
        {"names", "--bus-speed 300k --nvm 7", "", 2, "--bus-speed takes 100k, 400k or 1m, not '300k'"},
        {"names", "--trace-level warn", "", 2, "--trace-level: warn not in {info,error}"},
        {"names", "run @/s.jsonc", with_step(R"({"pnp": "query_rmove"})"), 2, "takes query_remove or query_stop"},

        // ---- numbers: out of range refused with the range ----
        {"numbers", "--vcm DW9719 --vcm-connection -1", "", 2,
         "--vcm-connection: '-1' is not a connection id (0 to 0xFFFFFFFFFFFFFFFF)"},
        {"numbers", "--vcm DW9719 --vcm-connection 18446744073709551616", "", 2, "is not a connection id (0 to "},
        {"numbers", "--nvm 7 --nvm-connection -1", "", 2, "--nvm-connection: '-1' is not a connection id (0 to "},
        {"numbers", "--nvm 7 --nvm-cache-length 4294967296", "", 2,
         "--nvm-cache-length: '4294967296' is not a length from 0 to 4294967295"},
        {"numbers", "--nvm 7 --nvm-ops read:65536:1", "", 2, "'65536' is not an address from 0 to 65535 (0xFFFF)"},
        {"numbers", "--nvm 7 --nvm-ops read:0:2147483648", "", 2,
         "'2147483648' is not a length from -2147483648 to 2147483647"},
        {"numbers", "--vcm DW9719 --vcm-low 70000", "", 2, "--vcm-low: Value 70000 not in range 0 to 65535"},
        {"numbers", "--vcm DW9719 --vcm-ops setpos:65536", "", 2, "takes one 16-bit position (-32768 to 65535)"},
        {"numbers", "--reg MipiLanes=4294967296", "", 2, "--reg takes NAME=VALUE with a number from 0 to 4294967295"},
        {"numbers", "--select 2:2147483648:1080:0", "", 2, "--select: WIDTH '2147483648' is not a number from"},
        {"numbers", "--select 2:1920", "", 2, "--select takes TABLE:WIDTH:HEIGHT:FPS, four parts, not 2 in '2:1920'"},
        {"numbers", "run @/s.jsonc", with_step(R"({"advance_ms": -1})"), 2, "takes milliseconds, a number from 0 to"},
        {"numbers", "run @/s.jsonc", with_device(kMemory, R"({"nvm": "read:0x10000:1"})"), 2,
         "'0x10000' is not an address from 0 to 65535"},
        {"numbers", "run @/s.jsonc", with_step(R"({"advance_ms": 1e400})"), 2,
         "s.jsonc:2: step 1: field \"advance_ms\": the number 1e400 is beyond any number a field takes"},
        {"numbers", "run @/s.jsonc", with_device(R"({"registry": {"MipiLanes": -1e999}})"), 2,
         "field \"device.registry.MipiLanes\": the number -1e999 is beyond any number"},
        {"numbers", "run @/s.jsonc", with_device(R"({"registry": {"MipiLanes": 99999999999999999999}})"), 2,
         "field \"device.registry.MipiLanes\": takes a number from 0 to 4294967295, not 1e+20"},
        {"numbers", "run @/s.jsonc", with_step("{\"call\": \"PowerUp\", \"expect\": {\"values\": " +
                                               std::string(100000, '[') + std::string(100000, ']') + "}}"),
         2, "s.jsonc:2: values nested deeper than 64 levels"},
        // a leading zero is decimal, everywhere
        {"numbers", "--reg MipiLanes=010", "", 0, "MIPI link: port 0, 10 lanes"},
        {"numbers", "--nvm 7 --nvm-ops read:010:1", "", 0, "read 0x000a, 1 bytes"},
        {"numbers", "--vcm DW9719 --vcm-low 08 --vcm-ops setpos:010,getpos", "", 0, "low 8, high 1023"},
        {"numbers", "--vcm DW9719 --vcm-ops setpos:010,getpos", "", 0, "recorded 10  position 10"},

        // ---- modes: an option that would do nothing is refused ----
        {"modes", "--hwid root\\\\KORVANEL run @/s.jsonc", with_step(""), 2,
         "--hwid has no effect before run: the scenario describes the devices"},
        {"modes", "--json run @/s.jsonc", with_step(""), 2, "--json has no effect before run"},
        {"modes", "--vcm-low 5", "", 2, "--vcm-low has no effect without --vcm"},
        {"modes", "--svg @/lens.svg", "", 2, "--svg has no effect without --vcm"},
        {"modes", "--nvm-save @/m.bin", "", 2, "--nvm-save has no effect without --nvm"},
        {"modes", "--nvm-cache-length 4", "", 2, "--nvm-cache-length has no effect without --nvm"},
        {"modes", "--bus-speed 400k", "", 2, "--bus-speed has no effect without --vcm or --nvm"},
        {"modes", "--force", "", 2, "--force has no effect without --svg or --nvm-save"},
        {"modes", "--nvm ''", "", 2, "--nvm: an empty value"},
        {"modes", "--nvm 7 --bus-speed ''", "", 2, "--bus-speed: an empty value"},
        {"modes", "--hwid ''", "", 2, "--hwid: an empty value"},
        {"modes", "run --output-dir '' @/s.jsonc", with_step(""), 2, "--output-dir: an empty value"},
        {"modes", "run @/s.jsonc", with_device(R"({"vcm": {"chip": ""}})"), 2,
         "field \"device.vcm.chip\": takes a text, not an empty one"},
        {"modes", "--no-such-option", "", 2, "The following argument was not expected: --no-such-option\n"
                                           "Run 'korvanel-sim --help' for the options.\n"},

        // ---- duplicates: a key or an option given twice ----
        {"duplicates", "run @/s.jsonc", "{\"bus_speed\": \"400k\",\n \"bus_speed\": \"100k\",\n \"device\": {}, \"steps\": []}", 2,
         "s.jsonc:2: field \"bus_speed\": given twice, on lines 1 and 2"},
        {"duplicates", "run @/s.jsonc", with_step("{\"call\": \"PowerUp\",\n \"call\": \"PowerDown\"}"), 2,
         "s.jsonc:3: step 1: field \"call\": given twice, on lines 2 and 3"},
        {"duplicates", "run @/s.jsonc",
         with_step("{\"call\": \"PowerUp\", \"expect\": {\"status\": \"STATUS_SUCCESS\",\n \"status\": \"STATUS_UNSUCCESSFUL\"}}"),
         2, "s.jsonc:3: step 1: field \"expect.status\": given twice, on lines 2 and 3"},
        {"duplicates", "run @/s.jsonc", with_device("{\"registry\": {\"MipiLanes\": 2,\n \"MipiLanes\": 4}}"), 2,
         "field \"device.registry.MipiLanes\": given twice, on lines 1 and 2"},
        {"duplicates", "--hwid a --hwid b", "", 2, "--hwid: At Most 1 required but received 2"},
        {"duplicates", "--json --json", "", 2, "--json is given 2 times; give it once"},
        {"duplicates", "run -v -v @/s.jsonc", with_step(""), 2, "--verbose is given 2 times; give it once"},
        {"duplicates", "--reg MipiLanes=2 --reg mipilanes=4", "", 2, "--reg mipilanes is given twice"},
        {"duplicates", "--vcm DW9719 --vcm-connection 0x50 --nvm 7", "", 2,
         "--nvm-connection: connection 0x50 already has a part"},
        {"duplicates", "--vcm DW9719 --vcm-address 0x51 --nvm 6", "", 2,
         "--nvm-address: bus address 0x51 is the actuator's; the memory answers on 0x50 and the addresses after it"},

        // ---- sizes of a quoted argument, bytes of any kind: bounded, escaped ----
        {"quoted", "--select " + kHuge, "", 2, "in 'xxxxxxxx"},
        {"quoted", kHuge, "", 2, "not expected: xxxxxxxx"},
        {"quoted", "run @/s.jsonc", with_step("{\"call\": \"" + std::string(100000, 'x') + "\"}"), 2,
         "xxxxxxxxx... (100000 bytes)' is not an operation"},
        {"quoted", "--hwid " + kBytes, "", 0, "device with hardware identifier a\\x01\\xFF"},
        {"quoted", "--json --hwid " + kBytes, "", 0, "\"hardware_id\": \"a\\u0001\xEF\xBF\xBD\""},
        {"quoted", "--json --vcm DW9719 --module " + kBytes, "", 0, "\"module\": \"a\\u0001\xEF\xBF\xBD\""},
        {"quoted", "--vcm DW9719 --module " + kBytes, "", 0, "module \"a\\x01\\xFF\""},

        // ---- not refused: the driver judges, the report notes ----
        {"passes", "--nvm 7 --nvm-ops read:120:16", "", 0,
         "Note: read:120:16: the range 120 + 16 lies outside the memory's 128 bytes; it goes to the driver as written"},
        {"passes", "--hwid root\\\\KORVANEL\\\\nosuch", "", 0,
         "Note: 'root\\KORVANEL\\nosuch' matches no variant; the driver chose its default identity, SensorName \"HAPS\""},
        {"passes", "run @/s.jsonc", "{\"device\": {\"hwid\": \"x\"}, \"steps\": []}", 0,
         "Note: hardware identifier 'x' matches no variant: the driver chooses its default identity"},
        {"passes", "run @/s.jsonc",
         with_device(kMemory, R"({"nvm": "read:120:16", "expect": {"status": "STATUS_INVALID_PARAMETER", "transfers": 0}},
                                 {"nvm": "read:0:-1", "expect": {"status": "STATUS_INVALID_PARAMETER", "transfers": 0}})"),
         0, "Passed: 2 steps, 4 expectations met"},
        {"passes", "--reg MipiLane=4", "", 0,
         "Note: registry value 'MipiLane' is never read by the driver (did you mean 'MipiLanes'?)"},
        {"passes", "run @/s.jsonc", with_device(R"({"registry": {"PDAF_Typ": 1}})"), 0,
         "Note: registry value 'PDAF_Typ' is never read by the driver (did you mean 'PDAF_Type'?)"},
        {"passes", "run -v --trace-module sensor @/s.jsonc", with_step(""), 0, "Passed: 0 steps"},
        // a stop the step expects: its code and routine on the step's line
        {"passes", "run @/s.jsonc", with_step(kStopped), 0,
         "PowerUp  STOP 0xA IRQL_NOT_LESS_OR_EQUAL in WdfDeviceStopIdle (called by PowerUp)  ok"},
        {"passes", "run -v @/s.jsonc", with_step(kStopped), 0, "STOP 0xA IRQL_NOT_LESS_OR_EQUAL in WdfDeviceStopIdle"},
        {"passes", "run --json @/s.jsonc", with_step(kStopped), 0, "\"code\": 10,\n        \"routine\": \"WdfDeviceStopIdle\""},
    };
    return table;
}

std::string replace_all(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

TEST(ToolBadInputTest, EachBadInputGetsItsStatusAndMessage)
{
    std::map<std::string, int> per_group;
    int n = 0;
    for (auto& c : cases()) {
        // A fresh folder a case, with the files the cases name.
        std::string dir = ::testing::TempDir() + "tool_bad_input_" + std::to_string(getpid()) + "_" + std::to_string(n++);
        ASSERT_EQ(system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str()), 0);
        std::ofstream(dir + "/exists.bin") << "keep me";
        std::ofstream(dir + "/image.bin") << "ABCD";
        std::ofstream(dir + "/empty.bin").flush();
        std::ofstream(dir + "/129.bin") << std::string(129, 'x');
        ASSERT_EQ(symlink("image.bin", (dir + "/link").c_str()) | link((dir + "/image.bin").c_str(), (dir + "/hard.bin").c_str()), 0);
        // One byte over each limit, as sparse files.
        for (auto [name, size] : {std::pair{"/1M+1.bin", (1 << 20) + 1}, std::pair{"/16M+1.jsonc", (16 << 20) + 1}}) {
            std::ofstream(dir + name).flush();
            ASSERT_EQ(truncate((dir + name).c_str(), size), 0);
        }
        if (!c.scenario.empty()) {
            std::ofstream(dir + "/s.jsonc") << c.scenario;
        }
        std::string command = "cd '" + dir + "' && timeout 60 '" KORVANEL_SIM_PATH "' " + replace_all(c.args, "@", dir) +
                              " </dev/null >'" + dir + "/out' 2>'" + dir + "/err'";
        int raw = system(command.c_str());
        int status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        std::string out = slurp(dir + "/out"), err = slurp(dir + "/err");
        std::string message = replace_all(c.message, "@", dir);
        SCOPED_TRACE(std::string(c.group) + ": korvanel-sim " + c.args);
        EXPECT_EQ(status, c.status) << err << out.substr(0, 2000);
        EXPECT_NE((c.status == 0 ? out : err).find(message), std::string::npos)
            << "expected: " << message << "\nstderr: " << err << "\nstdout: " << out.substr(0, 2000);
        if (c.status == 2) {
            EXPECT_LE(std::count(err.begin(), err.end(), '\n'), 2) << "a message and a hint, not the help:\n" << err;
            EXPECT_LT(err.size(), 1000u) << "a message quotes at most an excerpt of what it was given";
        }
        // Nothing the user had is lost, whatever the case did.
        EXPECT_EQ(slurp(dir + "/exists.bin"), "keep me");
        EXPECT_EQ(slurp(dir + "/image.bin"), "ABCD");
        if (!c.scenario.empty()) {
            EXPECT_EQ(slurp(dir + "/s.jsonc"), c.scenario);
        }
        per_group[c.group]++;
        ASSERT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0);
    }
    std::ostringstream counts;
    for (auto& [group, count] : per_group) {
        counts << " " << group << " " << count;
    }
    std::cout << cases().size() << " bad-input cases:" << counts.str() << "\n";
    RecordProperty("cases", int(cases().size()));
}

}  // namespace
