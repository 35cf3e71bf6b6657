#ifndef STAVIK_PLATFORM_HOST_MANIFEST_CYCLE_BREAKER_H
#define STAVIK_PLATFORM_HOST_MANIFEST_CYCLE_BREAKER_H

#include <map>
#include <set>
#include <string>

// Each name with the names it waits for; a dependency that is no key is ignored.
using DependEdges = std::map<std::string, std::set<std::string>>;

// Removes one edge of each dependency cycle, with one error line per cycle,
// until every name can be started. The choice is fixed by the names alone:
// each cycle is found from the smallest name that can't start, by following
// from each name its smallest dependency that can't start either, until a
// name comes round again; the cycle's smallest member stops waiting for the
// member it depends on in the cycle. Then the next cycle is sought the same
// way. Time grows with the edges and the length of the lines written.
void BreakDependCycles(DependEdges& edges);

#endif
