// pool.cpp - pool allocation by tag with accounting of what is outstanding,
// so that a leak at driver unload fails the test, and injectable failure.
#include "system.h"
#include "irql_rules.h"

#include <cstdio>
#include <cstdlib>

namespace korvanel::host {

void* Pool::allocate(uint32_t pool_type, size_t size, uint32_t tag)
{
    void* p = malloc(size ? size : 1);
    if (p == nullptr) {
        return nullptr;
    }
    memset(p, kFill, size);
    std::lock_guard lock(mutex_);
    live_[p] = {tag, pool_type, size};
    made_++;
    return p;
}

void Pool::free(void* p, uint32_t tag)
{
    std::unique_lock lock(mutex_);
    auto it = live_.find(p);
    if (it == live_.end()) {
        lock.unlock();
        System::current().faults().note_error("ExFreePoolWithTag of memory the pool did not hand out");
        return;
    }
    if (tag != 0 && tag != it->second.tag) {
        char text[96];
        snprintf(text, sizeof text, "ExFreePoolWithTag with tag 0x%08X on an allocation tagged 0x%08X", tag,
                 it->second.tag);
        lock.unlock();
        System::current().faults().note_error(text);
        lock.lock();
    }
    live_.erase(it);
    lock.unlock();
    ::free(p);
}

uint32_t Pool::type_of(void* p) const
{
    std::lock_guard lock(mutex_);
    auto it = live_.find(p);
    return it == live_.end() ? 0 : it->second.pool_type;
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

}  // namespace korvanel::host

using korvanel::host::System;

namespace {
// Paged pool types are the odd ones (PagedPool, and the paged variants of
// the others); they may only be touched at APC_LEVEL or below.
bool paged(uint32_t pool_type) { return (pool_type & 1) != 0; }
}  // namespace

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    NTSTATUS injected = paged(PoolType) ? KORVANEL_ENTRY(korvanel::host::irql_rule("ExAllocatePoolWithTag", korvanel::host::Condition::PagedPool)) : KORVANEL_ENTRY(korvanel::host::irql_rule("ExAllocatePoolWithTag", korvanel::host::Condition::NonPagedPool));
    if (!NT_SUCCESS(injected)) {
        return nullptr;
    }
    return System::current().pool().allocate(uint32_t(PoolType), NumberOfBytes, Tag);
}

VOID ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    auto& pool = System::current().pool();
    if (paged(pool.type_of(P))) {
        KORVANEL_ENTRY(korvanel::host::irql_rule("ExFreePoolWithTag", korvanel::host::Condition::PagedPool));
    } else {
        KORVANEL_ENTRY(korvanel::host::irql_rule("ExFreePoolWithTag", korvanel::host::Condition::NonPagedPool));
    }
    pool.free(P, Tag);
}

VOID ExFreePool(PVOID P) { System::current().pool().free(P, 0); }
