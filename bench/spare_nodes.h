// spare_nodes.h - the bench's bookkeeping maps keep their erased nodes for the
// next inserts.
#pragma once

#include <utility>
#include <vector>

namespace korvanel::bench {

// The nodes of a std::map's erased entries, kept for its next inserts. The
// bench's own bookkeeping (pool blocks, open handles) then allocates nothing
// once a run is under way, and a fuzzing run spends its allocations, and the
// sanitizer's checks on them, on the driver's memory. A kept node comes back
// with its old value: the caller assigns every field.
template <typename Map>
class SpareNodes {
public:
    // map[key], in a kept node when the key is new.
    typename Map::mapped_type& at(Map& map, const typename Map::key_type& key)
    {
        auto it = map.lower_bound(key);
        if (it != map.end() && !map.key_comp()(key, it->first)) {
            return it->second;
        }
        if (spare_.empty()) {
            return map.emplace_hint(it, key, typename Map::mapped_type{})->second;
        }
        auto node = std::move(spare_.back());
        spare_.pop_back();
        node.key() = key;
        return map.insert(it, std::move(node))->second;
    }
    void erase(Map& map, typename Map::iterator it) { spare_.push_back(map.extract(it)); }
    void clear(Map& map)
    {
        while (!map.empty()) {
            erase(map, map.begin());
        }
    }

private:
    std::vector<typename Map::node_type> spare_;
};

}  // namespace korvanel::bench
