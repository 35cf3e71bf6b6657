#include "depend_graph.h"

#include <syslog.h>

#include <cstdlib>
#include <stdexcept>

#include "core/log.h"

// Each vertex counts its dependencies that are vertices, so that a pop only
// touches the edges into the popped vertex and a level is the set of counts
// at zero, kept as the pops go.

bool DependGraph::IsEmpty() const
{
    return vertexCount_ == 0;
}

std::set<std::string> DependGraph::GetNoDependVertices() const
{
    if (!ready_.empty() || vertexCount_ == 0) {
        return ready_;
    }
    // Only a graph filled past the start-graph builder can hold a cycle; its
    // start loop must still move on, so the smallest name goes first. With no
    // vertex ready, every vertex waits on the cycle.
    std::string blocked;
    const std::string* first = nullptr;
    for (const auto& number : numbers_) {
        if (names_[number.second].isVertex) {
            blocked += blocked.empty() ? number.first : ", " + number.first;
            first = first == nullptr ? &number.first : first;
        }
    }
    Stavik::Syslog(LOG_ERR, "Stavik: dependency cycle among %s; %s is started first", blocked.c_str(),
                   first->c_str());
    return std::set<std::string>{*first};
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
    auto found = numbers_.find(name);
    if (found == numbers_.end()) {
        return;
    }
    size_t number = found->second;
    bool wasVertex = names_[number].isVertex;
    if (wasVertex) {
        names_[number].isVertex = false;
        --vertexCount_;
        ready_.erase(name);
        for (size_t depend : names_[number].depends) {
            names_[depend].dependants.erase(number);
        }
        names_[number].depends.clear();
        names_[number].waits = 0;
    }
    // Nobody waits for the name any more, even if it is added again later.
    for (size_t dependant : names_[number].dependants) {
        Name& waiting = names_[dependant];
        waiting.depends.erase(number);
        if (wasVertex && --waiting.waits == 0) {
            ready_.insert(waiting.text);
        }
    }
    names_[number].dependants.clear();
}

void DependGraph::AddVertex(const std::string& name, const std::set<std::string>& depends)
{
    size_t number = NumberOf(name);
    std::vector<size_t> dependNumbers;
    for (const std::string& depend : depends) {
        dependNumbers.push_back(NumberOf(depend));
    }
    Name& vertex = names_[number];
    if (!vertex.isVertex) {
        // Names that already wait for this one now have to wait for it.
        vertex.isVertex = true;
        ++vertexCount_;
        for (size_t dependant : vertex.dependants) {
            if (names_[dependant].waits++ == 0) {
                ready_.erase(names_[dependant].text);
            }
        }
    }
    for (size_t depend : dependNumbers) {
        if (vertex.depends.insert(depend).second) {
            names_[depend].dependants.insert(number);
            vertex.waits += names_[depend].isVertex ? 1 : 0;
        }
    }
    if (vertex.waits == 0) {
        ready_.insert(name);
    } else {
        ready_.erase(name);
    }
}

size_t DependGraph::NumberOf(const std::string& name)
{
    auto found = numbers_.emplace(name, names_.size());
    if (found.second) {
        names_.push_back(Name{name, false, 0, {}, {}});
    }
    return found.first->second;
}
