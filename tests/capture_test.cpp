// Captures as a run's expected bus: what the reader takes from the I2C
// decoder's text, how it refuses input it cannot use (naming the file and
// what is wrong), and how a difference is shown.
#include "wire/capture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace korvanel::test {
namespace {

using wire::WireTransfer;

std::string file(const std::string& name, const std::string& text)
{
    std::string path = testing::TempDir() + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

const char kMove[] =
    "100-120 i2c-1: Start\n"
    "120-300 i2c-1: Write\n"
    "120-300 i2c-1: Address write: 0C\n"
    "300-320 i2c-1: ACK\n"
    "320-500 i2c-1: Data write: 04\n"
    "500-520 i2c-1: ACK\n"
    "520-700 i2c-1: Data write: 2C\n"
    "700-720 i2c-1: ACK\n"
    "730-730 i2c-1: Stop\n"
    "900-900 i2c-1: Start\n"
    "920-1100 i2c-1: Address read: 0C\n"
    "1100-1120 i2c-1: ACK\n"
    "1120-1300 i2c-1: Data read: 01\n"
    "1300-1320 i2c-1: NACK\n"
    "1330-1330 i2c-1: Stop\n";

TEST(Capture, AnnotationTextGivesTransfersAndTheirSamples)
{
    std::string error;
    std::istringstream in(kMove);
    auto capture = wire::parse_annotations(in, "move.txt", error);
    ASSERT_TRUE(capture) << error;
    ASSERT_EQ(capture->transfers.size(), 2u);
    EXPECT_EQ(wire::wire_text(capture->transfers[0]), "S 0x0C W ACK: 04 ACK 2C ACK P");
    EXPECT_EQ(wire::wire_text(capture->transfers[1]), "S 0x0C R ACK: 01 NACK P");
    EXPECT_EQ(capture->samples, (std::vector<std::pair<int64_t, int64_t>>{{100, 730}, {900, 1330}}));

    // Without sample numbers, and with a repeated START joining two transfers.
    std::istringstream plain("i2c-1: Start\ni2c-1: Address write: 50\ni2c-1: ACK\ni2c-1: Data write: 00\n"
                             "i2c-1: ACK\ni2c-1: Start repeat\ni2c-1: Address read: 50\ni2c-1: ACK\n"
                             "i2c-1: Data read: FF\ni2c-1: NACK\ni2c-1: Stop\n");
    capture = wire::parse_annotations(plain, "plain.txt", error);
    ASSERT_TRUE(capture) << error;
    ASSERT_EQ(capture->transfers.size(), 2u);
    EXPECT_EQ(wire::wire_text(capture->transfers[0]), "S 0x50 W ACK: 00 ACK");
    EXPECT_EQ(wire::wire_text(capture->transfers[1]), "Sr 0x50 R ACK: FF NACK P");
}

TEST(Capture, UnusableInputIsRefusedWithTheFileAndWhy)
{
    std::string text = kMove;
    struct Case {
        std::string path;
        const char* message;
        wire::CaptureChannels channels = {};
    } cases[] = {
        {testing::TempDir() + "no-such-capture.txt", "no-such-capture.txt: no such file"},
        {file("notes.txt", "scope shots of the module\nsee bench log\n"), "notes.txt: not a capture"},
        {file("cut.txt", text.substr(0, text.find("520-700"))), "cut.txt: truncated: the capture ends inside a transfer (S 0x0C W ACK: 04 ACK ...)"},
        {file("stray.txt", "i2c-1: Data write: 04\n"), "stray.txt:1: a data byte outside a transfer"},
        {file("twice.txt", "i2c-1: Start\ni2c-1: Start\n"), "twice.txt:2: a START inside a transfer"},
        {file("cut.vcd", "$timescale 1 ns $end\n$scope module logic $end\n$var wire 1 ! D0 $end\n"),
         "cut.vcd: truncated: the VCD's definitions never end"},
    };
    for (auto& c : cases) {
        std::string error;
        EXPECT_FALSE(wire::read_capture(c.path, c.channels, error)) << c.path;
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
    }
}

const char kTwoChannels[] =
    "$timescale 1 ns $end\n$scope module logic $end\n$var wire 1 ! D0 $end\n$var wire 1 \" D1 $end\n"
    "$upscope $end\n$enddefinitions $end\n#0\n1!\n1\"\n#1000\n";

TEST(Capture, DecodingAFileNeedsSigrokAndItsChannels)
{
    std::string vcd = file("two.vcd", kTwoChannels);
    std::string error;
    setenv("KORVANEL_SIGROK_CLI", "/nonexistent/sigrok-cli", 1);
    EXPECT_FALSE(wire::read_capture(vcd, {}, error));
    unsetenv("KORVANEL_SIGROK_CLI");
    EXPECT_NE(error.find("two.vcd: decoding a VCD needs sigrok-cli, which is not installed (Debian package sigrok-cli)"),
              std::string::npos)
        << error;

    if (std::system("sigrok-cli --version >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "sigrok-cli is not installed";
    }
    EXPECT_FALSE(wire::read_capture(vcd, {}, error));
    EXPECT_NE(error.find("two.vcd: no channel 'scl' (it has D0, D1)"), std::string::npos) << error;
    // Mapped, the idle bus holds nothing to compare with.
    EXPECT_FALSE(wire::read_capture(vcd, {"D0", "D1"}, error));
    EXPECT_NE(error.find("two.vcd: holds no transfer the I2C decoder could read on SCL 'D0'"), std::string::npos)
        << error;
}

TEST(Capture, ADifferenceShowsBothSidesOfTheFirstDifferingTransfer)
{
    WireTransfer a{false, 0x50, models::Direction::Write, true, {0x00, 0x20, 0xDD}, {true, true, true}, true};
    WireTransfer b = a;
    b.bytes[2] = 0xDC;
    EXPECT_FALSE(wire::compare_wire({a, a}, {a, a}));
    EXPECT_EQ(wire::compare_wire({a, a}, {a, b}),
              "transfer 2 differs:\n  bench:   S 0x50 W ACK: 00 ACK 20 ACK DD ACK P\n"
              "  capture: S 0x50 W ACK: 00 ACK 20 ACK DC ACK P\n  first differing byte: 3 of 3 (bench DD, capture DC)");
    EXPECT_EQ(wire::compare_wire({a, a}, {a}),
              "the bench made 2 transfers, the capture holds 1; transfer 2 differs:\n"
              "  bench:   S 0x50 W ACK: 00 ACK 20 ACK DD ACK P\n  capture: (none)");
    WireTransfer nack = a;
    nack.acks[2] = false;
    EXPECT_TRUE(wire::compare_wire({a}, {nack}));
}

}  // namespace
}  // namespace korvanel::test
