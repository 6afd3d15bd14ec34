// pool.h - the bench's pool: allocations by tag, checked frees, leaks named at
// unload.
#pragma once

#include "spare_nodes.h"
#include "../wdk/wdm.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace korvanel::bench {

// Allocations by tag with the routine that made each, so that a leak at
// unload names it; frees are checked as Driver Verifier's pool tracking
// checks them (an address freed twice, one the pool never handed out, a
// tag that is not the allocation's) and stop at the faulting call.
class Pool {
public:
    struct Allocation {
        uint32_t tag;
        uint32_t pool_type;
        size_t size;
        const void* allocated_by = nullptr;  // a return address in the allocating routine
    };
    Pool() = default;
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;
    // What a driver left allocated was reported at its unload; the bench
    // releases it with itself.
    ~Pool() { reset(); }
    size_t outstanding() const;
    std::vector<Allocation> live() const;
    size_t allocations_made() const;
    uint32_t type_of(void* p) const;  // the pool type of a live allocation (0 for none)
    // Whether [p, p + size) lies in a live paged allocation.
    bool in_paged_pool(const void* p, size_t size) const;
    // Bytes the pool hands out start with this pattern, so code that reads
    // memory it never wrote is caught.
    static constexpr uint8_t kFill = 0xCD;

    void* allocate(uint32_t pool_type, size_t size, uint32_t tag, const void* allocated_by = nullptr);
    void reset();  // a new pool's state; what is still allocated is released
    enum class Freed { Ok, AlreadyFreed, NeverAllocated, WrongTag };
    // Frees a live allocation; tag 0 frees any. Anything else leaves the pool
    // as it was and says why.
    Freed free(void* p, uint32_t tag, Allocation* found = nullptr);
    // Frees as the platform routine `routine` called from `caller` would,
    // stopping at a bad free.
    void free_checked(void* p, uint32_t tag, const char* routine, const void* caller);

private:
    mutable std::mutex mutex_;
    std::map<void*, Allocation> live_;
    // Addresses freed lately, oldest first, so that a second free of one is
    // told from a free of an address the pool never handed out. Bounded:
    // kFreedKept addresses, each dropped when the address is handed out again.
    static constexpr size_t kFreedKept = 4096;
    std::vector<std::pair<void*, uint64_t>> freed_order_;  // a ring of (address, which free)
    size_t freed_oldest_ = 0;                              // its oldest, once full
    std::map<void*, uint64_t> freed_;                      // address -> its latest free
    SpareNodes<std::map<void*, Allocation>> spare_live_;
    SpareNodes<std::map<void*, uint64_t>> spare_freed_;
    uint64_t frees_ = 0;
    size_t made_ = 0;
};

}  // namespace korvanel::bench
