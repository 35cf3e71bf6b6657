#ifndef STAVIK_PLATFORM_DEPEND_GRAPH_H
#define STAVIK_PLATFORM_DEPEND_GRAPH_H

#include <map>
#include <set>
#include <string>

// Start graph of the base applications: a vertex per name, an edge from an
// application to each dependency that is itself a vertex.
class DependGraph {
public:
    bool IsEmpty() const;
    // Names whose dependencies have all been popped. Never empty while the
    // graph isn't: a cycle is broken when the graph is built.
    std::set<std::string> GetNoDependVertices() const;
    // Removes a vertex and the edges into it.
    void Pop(const std::string& name);
    // Adds a vertex with its dependencies; used by the manifest library.
    void AddVertex(const std::string& name, const std::set<std::string>& depends);

private:
    std::map<std::string, std::set<std::string>> depends_;
};

#endif
