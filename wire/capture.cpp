// capture.cpp - reading a capture's I2C transfers: the decoder's annotation
// text directly, VCD and session files through sigrok-cli.
#include "capture.h"

#include "files/files.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <sys/wait.h>

namespace korvanel::wire {

using files::kCaptureFileLimit;
using files::read_input;

namespace {

std::string quoted(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

// Runs a shell command; its output (both streams) and exit status.
int run(const std::string& command, std::string& output)
{
    output.clear();
    std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return -1;
    }
    char chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) {
        output.append(chunk, n);
    }
    int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// "12-34 i2c-1: Data write: 0C" or "i2c-1: Data write: 0C": the sample
// range when there is one, and the annotation text; false for lines of other
// decoders.
bool annotation(const std::string& line, int64_t& first, int64_t& last, std::string& text)
{
    size_t at = 0;
    first = last = -1;
    if (!line.empty() && std::isdigit(static_cast<unsigned char>(line[0]))) {
        long long a = 0, b = 0;
        int used = 0;
        if (std::sscanf(line.c_str(), "%lld-%lld %n", &a, &b, &used) < 2 || used == 0) {
            return false;
        }
        first = a;
        last = b;
        at = size_t(used);
    }
    if (line.compare(at, 4, "i2c-") != 0) {
        return false;
    }
    size_t colon = line.find(": ", at);
    if (colon == std::string::npos) {
        return false;
    }
    text = line.substr(colon + 2);
    while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    return true;
}

// A capture with no transfer in it would match a run that made none and
// hide a file that was not what the user meant: refused.
std::optional<Capture> with_transfers(std::optional<Capture> capture, const std::string& path,
                                      const std::string& where, std::string& error)
{
    if (capture && capture->transfers.empty()) {
        error = path + ": holds no transfer the I2C decoder could read" + where;
        return std::nullopt;
    }
    return capture;
}

}  // namespace

std::string sigrok_cli()
{
    const char* given = std::getenv("KORVANEL_SIGROK_CLI");
    return given != nullptr && *given != '\0' ? given : "sigrok-cli";
}

std::optional<Capture> parse_annotations(std::istream& in, const std::string& name, std::string& error,
                                         bool decoded)
{
    Capture capture;
    std::optional<WireTransfer> open;  // the transfer being read
    int64_t open_first = -1;
    enum class Expect { Nothing, AddressAck, DataAck } expect = Expect::Nothing;
    std::string line, text;
    size_t number = 0, annotations = 0;
    auto fail = [&](const std::string& what) {
        error = name + ":" + std::to_string(number) + ": " + what;
        return std::nullopt;
    };
    auto close = [&](bool stop, int64_t last) {
        open->stop = stop;
        capture.transfers.push_back(std::move(*open));
        capture.samples.emplace_back(open_first, last);
        open.reset();
    };
    while (std::getline(in, line)) {
        number++;
        int64_t first, last;
        if (!annotation(line, first, last, text)) {
            continue;
        }
        annotations++;
        unsigned value = 0;
        if (text == "Start" || text == "Start repeat") {
            bool repeated = text != "Start";
            if (open && !repeated) {
                return fail("a START inside a transfer that has not stopped");
            }
            if (open) {
                close(false, first);
            }
            open = WireTransfer{};
            open->repeated_start = repeated;
            open->address_ack = false;
            open_first = first;
            expect = Expect::Nothing;
        } else if (text == "Stop") {
            if (!open) {
                return fail("a STOP outside a transfer");
            }
            close(true, last);
        } else if (text == "ACK" || text == "NACK") {
            if (!open || expect == Expect::Nothing) {
                return fail("an acknowledge that follows no address or byte");
            }
            if (expect == Expect::AddressAck) {
                open->address_ack = text == "ACK";
            } else {
                open->acks.back() = text == "ACK";
            }
            expect = Expect::Nothing;
        } else if (std::sscanf(text.c_str(), "Address %*[a-z]: %x", &value) == 1) {
            if (!open) {
                return fail("an address outside a transfer");
            }
            open->address = uint8_t(value);
            open->direction = text.compare(8, 4, "read") == 0 ? Direction::Read : Direction::Write;
            expect = Expect::AddressAck;
        } else if (std::sscanf(text.c_str(), "Data %*[a-z]: %x", &value) == 1) {
            if (!open) {
                return fail("a data byte outside a transfer");
            }
            open->bytes.push_back(uint8_t(value));
            open->acks.push_back(false);
            expect = Expect::DataAck;
        }
        // Bits, the R/W bit's own annotation and warnings say nothing more.
    }
    if (annotations == 0 && !decoded) {
        error = name + ": not a capture: neither a VCD, a sigrok session nor I2C decoder annotations (sigrok-cli -A i2c)";
        return std::nullopt;
    }
    if (open) {
        open->stop = false;
        error = name + ": truncated: the capture ends inside a transfer (" + wire_text(*open) + " ...)";
        return std::nullopt;
    }
    return capture;
}

std::optional<Capture> read_capture(const std::string& path, const CaptureChannels& channels, std::string& error)
{
    // Read whole under the one rule for input files, before sigrok-cli sees it.
    auto data = read_input(path, "a capture", kCaptureFileLimit, false, error);
    if (!data) {
        return std::nullopt;
    }
    std::string bytes(data->begin(), data->end());
    std::string head = bytes.substr(0, 4096);
    bool session = head.rfind("PK\x03\x04", 0) == 0;
    size_t text_start = head.find_first_not_of(" \t\r\n");
    bool vcd = !session && text_start != std::string::npos && head[text_start] == '$';
    if (!session && !vcd) {
        std::istringstream in(bytes);
        return with_transfers(parse_annotations(in, path, error), path, "", error);
    }
    // A VCD cut before its definitions end holds no signal changes at all.
    if (vcd && bytes.find("$enddefinitions") == std::string::npos) {
        error = path + ": truncated: the VCD's definitions never end ($enddefinitions missing)";
        return std::nullopt;
    }

    std::string input = "-i " + quoted(path) + (vcd ? " -I vcd" : "");
    std::string output;
    int status = run(quoted(sigrok_cli()) + " " + input + " --show", output);
    if (status == 127) {
        error = path + ": decoding a " + (vcd ? "VCD" : "session file") +
                " needs sigrok-cli, which is not installed (Debian package sigrok-cli)";
        return std::nullopt;
    }
    if (status != 0 || output.find("Channels:") == std::string::npos) {
        error = path + ": sigrok-cli cannot read it as a " + (vcd ? "VCD" : "session file") + ": " + output;
        return std::nullopt;
    }
    // "- NAME: logic" lines name the channels.
    std::vector<std::string> names;
    Capture capture;
    std::istringstream show(output);
    std::string line;
    while (std::getline(show, line)) {
        if (line.rfind("- ", 0) == 0 && line.find(": ") != std::string::npos) {
            names.push_back(line.substr(2, line.rfind(": ") - 2));
        } else if (line.rfind("Samplerate: ", 0) == 0) {
            capture.samplerate = std::atof(line.c_str() + 12);
        }
    }
    for (const std::string* wanted : {&channels.scl, &channels.sda}) {
        if (std::find(names.begin(), names.end(), *wanted) == names.end()) {
            std::string list;
            for (auto& n : names) {
                list += (list.empty() ? "" : ", ") + n;
            }
            error = path + ": no channel '" + *wanted + "' (it has " + (list.empty() ? "none" : list) +
                    "); name the capture's SCL and SDA channels";
            return std::nullopt;
        }
    }
    status = run(quoted(sigrok_cli()) + " " + input + " -P " + quoted("i2c:scl=" + channels.scl + ":sda=" + channels.sda) +
                     " -A i2c --protocol-decoder-samplenum",
                 output);
    if (status != 0) {
        error = path + ": sigrok-cli failed to decode it: " + output;
        return std::nullopt;
    }
    std::istringstream decoded(output);
    auto transfers = parse_annotations(decoded, path, error, true);
    if (transfers) {
        transfers->samplerate = capture.samplerate;
    }
    return with_transfers(std::move(transfers), path,
                          " on SCL '" + channels.scl + "' and SDA '" + channels.sda +
                              "' (a bus that stayed idle, or other channels)",
                          error);
}

std::optional<std::string> compare_wire(const std::vector<WireTransfer>& bench,
                                        const std::vector<WireTransfer>& capture)
{
    size_t n = std::max(bench.size(), capture.size());
    for (size_t i = 0; i < n; i++) {
        if (i < bench.size() && i < capture.size() && bench[i] == capture[i]) {
            continue;
        }
        std::string out;
        if (bench.size() != capture.size()) {
            out = "the bench made " + std::to_string(bench.size()) + " transfers, the capture holds " +
                  std::to_string(capture.size()) + "; ";
        }
        out += "transfer " + std::to_string(i + 1) + " differs:\n  bench:   " +
               (i < bench.size() ? wire_text(bench[i]) : "(none)") + "\n  capture: " +
               (i < capture.size() ? wire_text(capture[i]) : "(none)");
        // In a long transfer, the byte that differs.
        if (i < bench.size() && i < capture.size()) {
            auto& a = bench[i].bytes;
            auto& b = capture[i].bytes;
            auto [x, y] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
            if (x != a.end() && y != b.end()) {
                char text[80];
                std::snprintf(text, sizeof text, "\n  first differing byte: %zu of %zu (bench %02X, capture %02X)",
                              size_t(x - a.begin()) + 1, a.size(), *x, *y);
                out += text;
            }
        }
        return out;
    }
    return std::nullopt;
}

}  // namespace korvanel::wire
