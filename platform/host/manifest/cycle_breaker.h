#ifndef STAVIK_PLATFORM_HOST_MANIFEST_CYCLE_BREAKER_H
#define STAVIK_PLATFORM_HOST_MANIFEST_CYCLE_BREAKER_H

#include <map>
#include <set>
#include <string>
#include <vector>

// Each name with the names it waits for; a dependency that is no key is ignored.
using DependEdges = std::map<std::string, std::set<std::string>>;

// Names that can never be started: each waits, directly or through others, on a cycle.
std::set<std::string> BlockedNames(const DependEdges& edges);

// Removes one edge of each dependency cycle, with one error line per cycle,
// until every name can be started. The choice is fixed by the names alone:
// the first cycle is found from the smallest blocked name, and its smallest
// member stops waiting for the member it depends on in the cycle.
void BreakDependCycles(DependEdges& edges);

#endif
