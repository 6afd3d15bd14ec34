// fault_rules.h - the one way a fault rule fires: the first rule that matches lets
// `skip` matching events through, then fires `times` times (0: every time
// after that) and is dropped when used up.
#pragma once

#include <optional>
#include <vector>

namespace korvanel::bench {

template <typename Rule, typename Match>
std::optional<Rule> take_due_rule(std::vector<Rule>& rules, Match matches)
{
    for (auto it = rules.begin(); it != rules.end(); ++it) {
        if (!matches(*it)) {
            continue;
        }
        if (it->skip > 0) {
            it->skip--;
            continue;
        }
        Rule fired = *it;
        if (it->times == 1) {
            rules.erase(it);
        } else if (it->times > 1) {
            it->times--;
        }
        return fired;
    }
    return std::nullopt;
}

}  // namespace korvanel::bench
