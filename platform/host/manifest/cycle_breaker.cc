#include "manifest/cycle_breaker.h"

#include <syslog.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "core/log.h"

namespace {

const size_t NOT_ON_PATH = std::numeric_limits<size_t>::max();

// The cut is the one a fresh search per cycle would make, without the fresh
// search. Names are numbered in byte order, so that comparing numbers compares
// names. A name is blocked while it waits, directly or through others, on a
// cycle: it keeps a count of its uncut edges to blocked names and is released
// when that count drops to zero, once for good, as edges are only ever cut.
// The walk to a cycle is kept between cuts: a name on it still follows the
// same smallest blocked dependency as long as that one stays blocked, so only
// the part past the cut or past a released name is walked again.
class CycleCutter {
public:
    explicit CycleCutter(DependEdges& edges);
    void CutAll();

private:
    struct Edge {
        size_t from;
        size_t to;
        bool cut;
    };

    size_t NextOnWalk(size_t from);
    void Push(size_t vertex);
    void Truncate(size_t length);
    void CutCycle(size_t start);
    void Release(std::vector<size_t> released);
    std::string CycleText(size_t start) const;

    std::vector<DependEdges::iterator> vertices_;
    std::vector<Edge> edgeList_;          // by the name it leaves, then the name it reaches
    std::vector<size_t> nextEdge_;        // first edge of a name the walk may still follow
    std::vector<size_t> endEdge_;
    std::vector<std::vector<size_t>> into_;
    std::vector<size_t> blockedWaits_;    // uncut edges to blocked names; zero once released
    std::vector<size_t> pathAt_;
    std::vector<size_t> path_;
    size_t firstBlocked_ = 0;
    size_t releasedFrom_ = NOT_ON_PATH;   // smallest walk position released by the last cut
};

CycleCutter::CycleCutter(DependEdges& edges)
{
    std::map<std::string, size_t> number;
    for (auto vertex = edges.begin(); vertex != edges.end(); ++vertex) {
        number.emplace_hint(number.end(), vertex->first, vertices_.size());
        vertices_.push_back(vertex);
    }
    into_.resize(vertices_.size());
    for (size_t from = 0; from < vertices_.size(); ++from) {
        nextEdge_.push_back(edgeList_.size());
        for (const std::string& depend : vertices_[from]->second) {
            auto to = number.find(depend);
            if (to != number.end()) {
                into_[to->second].push_back(edgeList_.size());
                edgeList_.push_back(Edge{from, to->second, false});
            }
        }
        endEdge_.push_back(edgeList_.size());
        blockedWaits_.push_back(endEdge_.back() - nextEdge_.back());
    }
    pathAt_.assign(vertices_.size(), NOT_ON_PATH);
}

void CycleCutter::CutAll()
{
    std::vector<size_t> unblocked;
    for (size_t vertex = 0; vertex < vertices_.size(); ++vertex) {
        if (blockedWaits_[vertex] == 0) {
            unblocked.push_back(vertex);
        }
    }
    Release(unblocked);
    while (true) {
        if (path_.empty()) {
            while (firstBlocked_ < vertices_.size() && blockedWaits_[firstBlocked_] == 0) {
                ++firstBlocked_;
            }
            if (firstBlocked_ == vertices_.size()) {
                return;
            }
            Push(firstBlocked_);
        }
        size_t next = NextOnWalk(path_.back());
        if (pathAt_[next] == NOT_ON_PATH) {
            Push(next);
        } else {
            CutCycle(pathAt_[next]);
        }
    }
}

// A blocked name always has an uncut edge to a blocked name at or after its
// mark: the edges passed lead to released names or were cut.
size_t CycleCutter::NextOnWalk(size_t from)
{
    size_t& edge = nextEdge_[from];
    while (edge < endEdge_[from] && blockedWaits_[edgeList_[edge].to] == 0) {
        ++edge;
    }
    return edgeList_[edge].to;
}

void CycleCutter::Push(size_t vertex)
{
    pathAt_[vertex] = path_.size();
    path_.push_back(vertex);
}

void CycleCutter::Truncate(size_t length)
{
    while (path_.size() > length) {
        pathAt_[path_.back()] = NOT_ON_PATH;
        path_.pop_back();
    }
}

void CycleCutter::CutCycle(size_t start)
{
    auto first = path_.begin() + static_cast<std::ptrdiff_t>(start);
    size_t least = static_cast<size_t>(std::min_element(first, path_.end()) - path_.begin());
    size_t from = path_[least];
    Edge& edge = edgeList_[nextEdge_[from]];
    Stavik::Syslog(LOG_ERR, "Stavik: manifest dependency cycle %s; %s is started without waiting for %s",
                   CycleText(start).c_str(), vertices_[from]->first.c_str(), vertices_[edge.to]->first.c_str());
    vertices_[from]->second.erase(vertices_[edge.to]->first);
    edge.cut = true;
    ++nextEdge_[from];
    Truncate(least + 1);
    releasedFrom_ = NOT_ON_PATH;
    if (--blockedWaits_[from] == 0) {
        Release({from});
    }
    Truncate(std::min(releasedFrom_, path_.size()));
}

// Releases the names given, whose counts are zero, and every name that then
// waits on no blocked name any more.
void CycleCutter::Release(std::vector<size_t> released)
{
    while (!released.empty()) {
        size_t vertex = released.back();
        released.pop_back();
        releasedFrom_ = std::min(releasedFrom_, pathAt_[vertex]);
        for (size_t edge : into_[vertex]) {
            if (!edgeList_[edge].cut && --blockedWaits_[edgeList_[edge].from] == 0) {
                released.push_back(edgeList_[edge].from);
            }
        }
    }
}

std::string CycleCutter::CycleText(size_t start) const
{
    std::string text;
    for (size_t at = start; at < path_.size(); ++at) {
        text += vertices_[path_[at]]->first + " -> ";
    }
    return text + vertices_[path_[start]]->first;
}

} // namespace

void BreakDependCycles(DependEdges& edges)
{
    CycleCutter(edges).CutAll();
}
