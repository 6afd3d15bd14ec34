// The text korvanel-sim's options and scenario files are written in: lists,
// numbers, hex bytes and status names, each accepted whole or refused.
#include <gtest/gtest.h>

#include "tools/actuator_cli.h"
#include "tools/lens_chart.h"
#include "tools/operations.h"
#include "tools/parse.h"

namespace korvanel::test {
namespace {

TEST(ToolParseTest, UserTextIsShownEscapedAndBounded)
{
    // UTF-8 as it is; control bytes, stray bytes, overlong forms and surrogates as \xNN.
    EXPECT_EQ(tool::printable("r\\K \xC3\xA9"), "r\\K \xC3\xA9");
    EXPECT_EQ(tool::printable("a\x01\n\xFF\xC0\xAF\xED\xA0\x80"), "a\\x01\\x0A\\xFF\\xC0\\xAF\\xED\\xA0\\x80");
    EXPECT_EQ(tool::excerpt(std::string(80, 'x')), std::string(80, 'x'));
    EXPECT_EQ(tool::excerpt(std::string(71, 'x') + "\xC3\xA9" + std::string(1000, 'y')),
              std::string(71, 'x') + "... (1073 bytes)");
    EXPECT_EQ(tool::json_dump(nlohmann::ordered_json("a\xFF")), "\"a\xEF\xBF\xBD\"");
    // The chart is XML, which no control byte may enter even as a reference.
    std::string svg = tool::trajectory_svg({{"module", "a\x01<\xFF"}});
    EXPECT_NE(svg.find("module a\\x01&lt;\\xFF,"), std::string::npos) << svg;
}

TEST(ToolParseTest, NumbersAreTakenWholeAndWithinRange)
{
    struct Case {
        const char* text;
        long long low, high;
        std::optional<long long> value;
    } cases[] = {
        {"300", 0, 1023, 300},   {"0x1C", 0, 255, 28},      {"-32768", -32768, 65535, -32768},
        {"65536", 0, 65535, {}}, {"-1", 0, 65535, {}},       {"12ms", 0, 100, {}},
        {"", 0, 1, {}},          {" 5", 0, 10, {}},         {"0xFFFFFFFF", 0, 0xFFFFFFFFll, 0xFFFFFFFFll},
        // a leading zero is decimal; nothing past 64 bits wraps
        {"010", 0, 100, 10},     {"08", 0, 100, 8},         {"0x", 0, 100, {}},
        {"-0x10", -100, 0, -16}, {"18446744073709551616", 0, 1, {}},
    };
    for (auto& c : cases) {
        EXPECT_EQ(tool::parse_integer(c.text, c.low, c.high), c.value) << c.text;
    }
    // An unsigned text never wraps a minus sign into a huge number.
    EXPECT_EQ(tool::parse_unsigned("-1"), std::nullopt);
    EXPECT_EQ(tool::parse_unsigned("0x50"), 0x50u);
    EXPECT_EQ(tool::parse_unsigned("80x"), std::nullopt);
    EXPECT_EQ(tool::parse_unsigned("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(tool::parse_unsigned("+1"), std::nullopt);
    // JSON numbers and numeric texts alike.
    EXPECT_EQ(tool::json_integer(nlohmann::ordered_json(4), 0, 7), 4);
    EXPECT_EQ(tool::json_integer(nlohmann::ordered_json("0x7"), 0, 7), 7);
    EXPECT_EQ(tool::json_integer(nlohmann::ordered_json(8), 0, 7), std::nullopt);
    EXPECT_EQ(tool::json_integer(nlohmann::ordered_json(1.5), 0, 7), std::nullopt);
    EXPECT_EQ(tool::json_integer(nlohmann::ordered_json(18446744073709551615ull), 0, 7), std::nullopt);
}

TEST(ToolParseTest, HexBytesListsAndStatuses)
{
    EXPECT_EQ(tool::parse_hex_bytes("0102fF"), (std::vector<uint8_t>{0x01, 0x02, 0xFF}));
    EXPECT_EQ(tool::parse_hex_bytes("01 02  FF"), (std::vector<uint8_t>{0x01, 0x02, 0xFF}));
    for (const char* bad : {"", "   ", "010", "0 1", "0G", "0x01"}) {
        EXPECT_EQ(tool::parse_hex_bytes(bad), std::nullopt) << bad;
    }
    // A stray separator at the end is an empty last item, so it can be refused.
    EXPECT_EQ(tool::split("init,setpos:3,", ','), (std::vector<std::string>{"init", "setpos:3", ""}));
    EXPECT_EQ(tool::split("", ','), std::vector<std::string>{});

    EXPECT_EQ(tool::parse_status("STATUS_NO_SUCH_DEVICE"), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(tool::parse_status("0xC000000D"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(tool::parse_status("STATUS_SUCESS"), std::nullopt);
    EXPECT_EQ(tool::parse_status("0x1C000000D"), std::nullopt);

    EXPECT_EQ(tool::milliseconds(123456), "12.3456");
    EXPECT_EQ(tool::milliseconds(-5), "-0.0005");
}

// Both operation languages refuse the first bad operation with one message
// form: the list, the operation's place when the list has more than one, a
// bounded excerpt of it (left out where the message is about a file the
// operation names) and what is wrong.
TEST(ToolParseTest, OperationListsNameTheirFirstMistake)
{
    const struct {
        bool memory;
        std::string list, what;
    } cases[] = {
        {false, "init,setpos", "--ops: operation 2 'setpos': needs a position, as setpos:300"},
        {false, "getpos:1", "--ops: 'getpos:1': takes no argument"},
        {false, "init,,getpos", "--ops: operation 2: an empty operation"},
        {false, "setpos:65536", "--ops: 'setpos:65536': takes one 16-bit position (-32768 to 65535)"},
        {false, "setconfig:1:2", "--ops: 'setconfig:1:2': gives a count of 1, which needs 2 values after it, not 1"},
        {false, "init," + std::string(200, 'z'), "--ops: operation 2 '" + tool::excerpt(std::string(200, 'z')) + "': unknown"},
        {true, "load,read:0x10000:1", "--ops: operation 2 'read:0x10000:1': '0x10000' is not an address from 0 to 65535"},
        {true, "write:0:0G", "--ops: 'write:0:0G': '0G' is not a list of hex bytes"},
        {true, "load,writefile:0:/nonexistent/x", "--ops: operation 2: writefile: /nonexistent/x: no such file"},
    };
    for (auto& c : cases) {
        tool::OpError error;
        std::vector<tool::ActuatorOp> lens;
        std::vector<tool::MemoryOp> memory;
        bool parsed = c.memory ? tool::parse_memory_ops(c.list, "--ops", 64, memory, error)
                               : tool::parse_actuator_ops(c.list, "--ops", lens, error);
        EXPECT_FALSE(parsed) << c.list;
        EXPECT_EQ(error.what().rfind(c.what, 0), 0u) << error.what();
    }
    // A range past the memory is the driver's to refuse: a note, not an error.
    tool::OpError error;
    std::vector<tool::MemoryOp> ops;
    std::vector<std::string> notes;
    ASSERT_TRUE(tool::parse_memory_ops("read:60:8,load,write:0:01", "", 64, ops, error, &notes));
    EXPECT_EQ(ops.size(), 3u);
    EXPECT_EQ(notes, std::vector<std::string>{
                         "read:60:8: the range 60 + 8 lies outside the memory's 64 bytes; it goes to the driver as written"});
}

}  // namespace
}  // namespace korvanel::test
