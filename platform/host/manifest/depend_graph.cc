#include "depend_graph.h"

#include <syslog.h>

#include <cstdlib>
#include <stdexcept>

#include "core/log.h"
#include "manifest/cycle_breaker.h"

bool DependGraph::IsEmpty() const
{
    return depends_.empty();
}

std::set<std::string> DependGraph::GetNoDependVertices() const
{
    std::set<std::string> ready;
    for (const auto& vertex : depends_) {
        bool waits = false;
        for (const std::string& depend : vertex.second) {
            waits = waits || depends_.count(depend) != 0;
        }
        if (!waits) {
            ready.insert(vertex.first);
        }
    }
    if (ready.empty() && !depends_.empty()) {
        // Only a graph filled past the start-graph builder can hold a cycle;
        // its start loop must still move on, so the smallest name goes first.
        std::string blocked;
        for (const std::string& name : BlockedNames(depends_)) {
            blocked += blocked.empty() ? name : ", " + name;
        }
        Stavik::Syslog(LOG_ERR, "Stavik: dependency cycle among %s; %s is started first", blocked.c_str(),
                       depends_.begin()->first.c_str());
        ready.insert(depends_.begin()->first);
    }
    return ready;
}

// The closed library may throw; the host one throws on request, when the
// vertex named by HOST_MANIFEST_THROW_ON_POP is popped, so that what an
// exception does to the daemon can be tried for real.
void DependGraph::Pop(const std::string& name)
{
    const char* faultName = getenv("HOST_MANIFEST_THROW_ON_POP");
    if (faultName != nullptr && name == faultName) {
        throw std::runtime_error("manifest library fault at " + name);
    }
    depends_.erase(name);
    for (auto& vertex : depends_) {
        vertex.second.erase(name);
    }
}

void DependGraph::AddVertex(const std::string& name, const std::set<std::string>& depends)
{
    depends_[name].insert(depends.begin(), depends.end());
}
