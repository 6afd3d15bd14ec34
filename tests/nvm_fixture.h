// nvm_fixture.h - a device with a module memory selected as a platform
// would, its part on the bus at 400 kHz, and readable views of what the
// driver did: its memory texts, the bus transfers and the waits between them.
#pragma once

#include "driver_fixture.h"

#include "bench/spb_controller.h"
#include "nvm/nvm.h"
#include "models/eeprom.h"
#include "platform/memory.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace korvanel::test {

constexpr uint64_t kNvmConnection = 0x50;  // slot 2; block b of a block part on 0x50 + b

inline std::vector<uint8_t> pattern(size_t n, uint8_t seed = 0x10)
{
    std::vector<uint8_t> out(n);
    for (size_t i = 0; i < n; i++) {
        out[i] = uint8_t(seed + i * 7);
    }
    return out;
}

class NvmTest : public DriverTest {
protected:
    PDEVICE_CONTEXT ctx = nullptr;
    std::shared_ptr<models::Eeprom> part;
    const NVM_DRIVER* row = nullptr;

    void SetUp() override
    {
        DriverTest::SetUp();
        ctx = add();
        sys.traces().enable(TRACE_INFO | TRACE_ERROR);
        sys.bus().set_speed(bench::BusSpeed::Fast);
    }

    void select(unsigned type, uint32_t cache_length = NVM_CACHE_SIZE)
    {
        part = platform::select_memory(sys, ctx, {type, kNvmConnection, cache_length});
        row = &platform::memory_table()[type];
        if (part == nullptr) {  // types without a part: the selection alone
            ctx->NvmType = type;
            ctx->NvmCacheLength = cache_length;
            ctx->NvmAvailable = 1;
        }
    }

    void forget()
    {
        sys.bus().clear_transcript();
        sys.clock().clear_delays();
        sys.traces().clear();
    }

    // Transfers ("w50 00 3C 11 18" with the connection's low byte, "r50 4"
    // with the length read; a failure's status appended) and the waits
    // between them ("sleep 20", "spin 5", in ms), in clock order.
    std::vector<std::string> timeline()
    {
        auto transfers = sys.bus().transcript();
        auto delays = sys.clock().delays();
        std::vector<std::string> out;
        size_t d = 0;
        auto flush_delays = [&](int64_t until) {
            while (d < delays.size() && delays[d].at < until) {
                char text[32];
                if (delays[d].kind == bench::Clock::Delay::Kind::Sleep) {
                    snprintf(text, sizeof text, "sleep %lld", (long long)(-delays[d].amount / 10000));
                    d++;
                } else {
                    int64_t us = 0;
                    for (; d < delays.size() && delays[d].at < until &&
                           delays[d].kind == bench::Clock::Delay::Kind::Stall;
                         d++) {
                        us += delays[d].amount;
                    }
                    snprintf(text, sizeof text, "spin %lld", (long long)(us / 1000));
                }
                out.push_back(text);
            }
        };
        for (auto& t : transfers) {
            flush_delays(t.time);
            char head[16];
            snprintf(head, sizeof head, "%c%02llx", t.direction == bench::Direction::Write ? 'w' : 'r',
                     (unsigned long long)(t.connection & 0xFF));
            std::string line = head;
            if (t.direction == bench::Direction::Write) {
                line += " " + hex_bytes(t.bytes.data(), t.bytes.size());
            } else {
                line += " " + std::to_string(t.length);
            }
            if (t.status != STATUS_SUCCESS) {
                line += " " + bench::status_name(t.status);
            }
            out.push_back(line);
        }
        flush_delays(INT64_MAX);
        return out;
    }

    bool lock_free() { return KeReadStateEvent(&ctx->BusLock) == 1; }

    // No slot marked open and no target left open. (A target whose open
    // failed stays created in its slot until the device goes.)
    bool slots_closed()
    {
        for (auto& slot : ctx->I2cConnections) {
            if (slot.Opened) {
                return false;
            }
        }
        for (auto& t : sys.bus().targets()) {
            if (t.state == bench::TargetRecord::State::Open) {
                return false;
            }
        }
        return true;
    }
};

}  // namespace korvanel::test
