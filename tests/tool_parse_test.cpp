// The text korvanel-sim's options and scenario files are written in: lists,
// numbers, hex bytes and status names, each accepted whole or refused.
#include <gtest/gtest.h>

#include "tools/actuator_cli.h"
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

}  // namespace
}  // namespace korvanel::test
