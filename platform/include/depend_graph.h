#ifndef STAVIK_PLATFORM_DEPEND_GRAPH_H
#define STAVIK_PLATFORM_DEPEND_GRAPH_H

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

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
    // Every name seen, as a vertex or only as a dependency. A name that is no
    // vertex has no dependencies of its own.
    struct Name {
        std::string text;
        bool isVertex;
        size_t waits;                // dependencies that are vertices now
        std::set<size_t> depends;
        std::set<size_t> dependants; // names whose depends hold this one
    };

    size_t NumberOf(const std::string& name);

    std::map<std::string, size_t> numbers_;
    std::vector<Name> names_;
    std::set<std::string> ready_;
    size_t vertexCount_ = 0;
};

#endif
