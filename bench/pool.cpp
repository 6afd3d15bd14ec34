// pool.cpp - pool allocation by tag, as Driver Verifier's pool tracking sees
// it: each allocation remembers the routine that made it, a bad free (twice,
// of an address the pool never handed out, with another tag, at a level the
// pool type forbids) stops at the call, and what is left at unload is a leak
// (system.cpp). Allocation can be made to fail.
#include "bench.h"
#include "irql_rules.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace korvanel::bench {

void* Pool::allocate(uint32_t pool_type, size_t size, uint32_t tag, const void* allocated_by)
{
    void* p = malloc(size ? size : 1);
    if (p == nullptr) {
        return nullptr;
    }
    memset(p, kFill, size);
    std::lock_guard lock(mutex_);
    spare_live_.at(live_, p) = {tag, pool_type, size, allocated_by};
    if (auto f = freed_.find(p); f != freed_.end()) {
        spare_freed_.erase(freed_, f);  // handed out again: a free of it is a first free
    }
    made_++;
    return p;
}

Pool::Freed Pool::free(void* p, uint32_t tag, Allocation* found)
{
    std::unique_lock lock(mutex_);
    auto it = live_.find(p);
    if (it == live_.end()) {
        return freed_.count(p) != 0 ? Freed::AlreadyFreed : Freed::NeverAllocated;
    }
    if (found != nullptr) {
        *found = it->second;
    }
    if (tag != 0 && tag != it->second.tag) {
        return Freed::WrongTag;
    }
    spare_live_.erase(live_, it);
    uint64_t n = ++frees_;
    spare_freed_.at(freed_, p) = n;
    if (freed_order_.size() < kFreedKept) {
        freed_order_.emplace_back(p, n);
    } else {
        auto [oldest, which] = std::exchange(freed_order_[freed_oldest_], {p, n});
        freed_oldest_ = (freed_oldest_ + 1) % kFreedKept;
        auto f = freed_.find(oldest);
        if (f != freed_.end() && f->second == which) {
            spare_freed_.erase(freed_, f);
        }
    }
    lock.unlock();
    ::free(p);
    return Freed::Ok;
}

void Pool::free_checked(void* p, uint32_t tag, const char* routine, const void* caller)
{
    Allocation a{};
    Freed result = free(p, tag, &a);
    if (result == Freed::Ok) {
        return;
    }
    char text[160];
    Violation v;
    v.routine = routine;
    v.caller = verifier::symbol(caller);
    switch (result) {
    case Freed::AlreadyFreed:
        v.stop = stops::kFreeAlreadyFreed;
        snprintf(text, sizeof text, "%s of %p, which was freed already", routine, p);
        break;
    case Freed::NeverAllocated:
        v.stop = stops::kFreeNeverAllocated;
        snprintf(text, sizeof text, "%s of %p, which the pool never handed out", routine, p);
        break;
    default:
        v.stop = stops::kFreeWrongTag;
        snprintf(text, sizeof text, "%s of %p with tag 0x%08X; it was allocated with tag 0x%08X", routine, p, tag,
                 a.tag);
        break;
    }
    v.what = text;
    verifier::violate(std::move(v));
}

void Pool::reset()
{
    std::lock_guard lock(mutex_);
    for (auto& [p, a] : live_) {
        ::free(p);
    }
    spare_live_.clear(live_);
    spare_freed_.clear(freed_);
    freed_order_.clear();
    freed_oldest_ = 0;
    frees_ = 0;
    made_ = 0;
}

uint32_t Pool::type_of(void* p) const
{
    std::lock_guard lock(mutex_);
    auto it = live_.find(p);
    return it == live_.end() ? 0 : it->second.pool_type;
}

bool Pool::in_paged_pool(const void* p, size_t size) const
{
    std::lock_guard lock(mutex_);
    auto it = live_.upper_bound(const_cast<void*>(p));
    if (it == live_.begin()) {
        return false;
    }
    --it;
    auto* start = static_cast<const uint8_t*>(it->first);
    auto* at = static_cast<const uint8_t*>(p);
    return (it->second.pool_type & 1) != 0 && at < start + it->second.size && at + size > start;
}

size_t Pool::outstanding() const
{
    std::lock_guard lock(mutex_);
    return live_.size();
}

std::vector<Pool::Allocation> Pool::live() const
{
    std::lock_guard lock(mutex_);
    std::vector<Allocation> out;
    for (auto& [p, a] : live_) {
        out.push_back(a);
    }
    return out;
}

size_t Pool::allocations_made() const
{
    std::lock_guard lock(mutex_);
    return made_;
}

}  // namespace korvanel::bench

using korvanel::bench::Condition;
using korvanel::bench::irql_rule;
using korvanel::bench::Bench;

namespace {
// Paged pool types are the odd ones (PagedPool, and the paged variants of
// the others); they may only be touched at APC_LEVEL or below.
bool paged(uint32_t pool_type) { return (pool_type & 1) != 0; }
}  // namespace

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    NTSTATUS injected = paged(PoolType) ? KORVANEL_ENTRY(irql_rule("ExAllocatePoolWithTag", Condition::PagedPool))
                                        : KORVANEL_ENTRY(irql_rule("ExAllocatePoolWithTag", Condition::NonPagedPool));
    if (!NT_SUCCESS(injected)) {
        return nullptr;
    }
    return Bench::current().pool().allocate(uint32_t(PoolType), NumberOfBytes, Tag, __builtin_return_address(0));
}

PVOID ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag)
{
    bool paged_pool = (Flags & POOL_FLAG_PAGED) != 0;
    NTSTATUS injected = paged_pool ? KORVANEL_ENTRY(irql_rule("ExAllocatePool2", Condition::PagedPool))
                                   : KORVANEL_ENTRY(irql_rule("ExAllocatePool2", Condition::NonPagedPool));
    // "Tag is set to 0 or invalid POOL_FLAGS are specified": NULL, as for no
    // memory. Exactly one of the pool kinds must be asked for.
    const POOL_FLAGS kinds = POOL_FLAG_PAGED | POOL_FLAG_NON_PAGED | POOL_FLAG_NON_PAGED_EXECUTABLE;
    POOL_FLAGS kind = Flags & kinds;
    if (!NT_SUCCESS(injected) || Tag == 0 || kind == 0 || (kind & (kind - 1)) != 0) {
        return nullptr;
    }
    void* p = Bench::current().pool().allocate(paged_pool ? PagedPool : NonPagedPoolNx, NumberOfBytes, Tag,
                                                __builtin_return_address(0));
    if (p != nullptr && (Flags & POOL_FLAG_UNINITIALIZED) == 0) {
        memset(p, 0, NumberOfBytes);
    }
    return p;
}

namespace {
// The level rule of a free depends on the pool the block came from; a block
// the pool does not know is judged as non-paged, the laxer rule, before the
// free itself stops for it.
void checked_free(PVOID P, ULONG Tag, const korvanel::bench::IrqlRule& paged_rule,
                  const korvanel::bench::IrqlRule& nonpaged_rule, const void* caller)
{
    auto& pool = Bench::current().pool();
    korvanel::bench::verifier::enter(paged(pool.type_of(P)) ? paged_rule : nonpaged_rule, caller);
    pool.free_checked(P, Tag, paged_rule.routine, caller);
}
}  // namespace

VOID ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    checked_free(P, Tag, irql_rule("ExFreePoolWithTag", Condition::PagedPool),
                 irql_rule("ExFreePoolWithTag", Condition::NonPagedPool), __builtin_return_address(0));
}

VOID ExFreePool(PVOID P)
{
    checked_free(P, 0, irql_rule("ExFreePool", Condition::PagedPool), irql_rule("ExFreePool", Condition::NonPagedPool),
                 __builtin_return_address(0));
}
