#include "manifest/cycle_breaker.h"

#include <syslog.h>

#include <algorithm>
#include <deque>

#include "core/log.h"

namespace {

// Follows the smallest blocked dependency from the smallest blocked name until
// a name comes round again; the names from its first visit on are a cycle.
std::vector<std::string> FindCycle(const DependEdges& edges, const std::set<std::string>& blocked)
{
    std::vector<std::string> path;
    std::map<std::string, size_t> position;
    std::string current = *blocked.begin();
    while (position.find(current) == position.end()) {
        position[current] = path.size();
        path.push_back(current);
        const std::set<std::string>& depends = edges.at(current);
        current = *std::find_if(depends.begin(), depends.end(),
                                [&blocked](const std::string& name) { return blocked.count(name) != 0; });
    }
    return std::vector<std::string>(path.begin() + static_cast<std::ptrdiff_t>(position[current]), path.end());
}

std::string CycleText(const std::vector<std::string>& cycle)
{
    std::string text;
    for (const std::string& name : cycle) {
        text += name + " -> ";
    }
    return text + cycle.front();
}

} // namespace

std::set<std::string> BlockedNames(const DependEdges& edges)
{
    std::map<std::string, size_t> waiting;
    std::map<std::string, std::vector<std::string>> dependants;
    std::deque<std::string> ready;
    for (const auto& vertex : edges) {
        size_t& count = waiting[vertex.first];
        for (const std::string& depend : vertex.second) {
            if (edges.count(depend) != 0) {
                dependants[depend].push_back(vertex.first);
                ++count;
            }
        }
        if (count == 0) {
            ready.push_back(vertex.first);
        }
    }
    while (!ready.empty()) {
        std::string name = ready.front();
        ready.pop_front();
        for (const std::string& dependant : dependants[name]) {
            if (--waiting[dependant] == 0) {
                ready.push_back(dependant);
            }
        }
    }
    std::set<std::string> blocked;
    for (const auto& count : waiting) {
        if (count.second != 0) {
            blocked.insert(count.first);
        }
    }
    return blocked;
}

void BreakDependCycles(DependEdges& edges)
{
    for (std::set<std::string> blocked = BlockedNames(edges); !blocked.empty(); blocked = BlockedNames(edges)) {
        std::vector<std::string> cycle = FindCycle(edges, blocked);
        auto first = std::min_element(cycle.begin(), cycle.end());
        auto next = std::next(first) == cycle.end() ? cycle.begin() : std::next(first);
        Stavik::Syslog(LOG_ERR, "Stavik: manifest dependency cycle %s; %s is started without waiting for %s",
                       CycleText(cycle).c_str(), first->c_str(), next->c_str());
        edges[*first].erase(*next);
    }
}
