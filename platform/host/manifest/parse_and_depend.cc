#include "parse_and_depend.h"

#include <syslog.h>

#include "core/log.h"
#include "manifest/cycle_breaker.h"
#include "manifest/manifest_reader.h"

int32_t ParseAndDepend::ParseYaml(ParamType type, const std::string& path, std::vector<ApplicationManifest>& out,
                                  const std::map<std::string, std::string>& matchArgs)
{
    if (type != PARAM_TYPE_APP_MANIFEST) {
        Stavik::Syslog(LOG_ERR, "Stavik: manifest %s: unknown manifest type %u", path.c_str(),
                       static_cast<unsigned>(type));
        return MANIFEST_BAD_TYPE;
    }
    size_t first = out.size();
    int32_t result = ReadManifestFile(path, matchArgs, out);
    // Later files win: the start graph uses what was read last for each name.
    // Within one file the first entry of a name wins.
    std::lock_guard<std::mutex> guard(mutex_);
    std::set<std::string> names;
    for (size_t index = first; index < out.size(); ++index) {
        const std::string& name = out[index].GetAppName();
        if (!name.empty() && names.insert(name).second) {
            knownDepends_[name] = out[index].GetDependList();
        }
    }
    return result;
}

void ParseAndDepend::GetStartGraph(const std::vector<std::string>& names, DependGraph& graph)
{
    std::set<std::string> vertices(names.begin(), names.end());
    DependEdges edges;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const std::string& name : vertices) {
            std::set<std::string>& depends = edges[name];
            auto known = knownDepends_.find(name);
            if (known == knownDepends_.end()) {
                continue;
            }
            // A dependency that is no vertex is not started here, so nothing can wait for it.
            for (const std::string& depend : known->second) {
                if (vertices.count(depend) != 0) {
                    depends.insert(depend);
                }
            }
        }
    }
    BreakDependCycles(edges);
    for (const auto& vertex : edges) {
        graph.AddVertex(vertex.first, vertex.second);
    }
}
