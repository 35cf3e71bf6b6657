#ifndef STAVIK_PLATFORM_PARSE_AND_DEPEND_H
#define STAVIK_PLATFORM_PARSE_AND_DEPEND_H

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "application_manifest.h"
#include "depend_graph.h"

enum ParamType : uint32_t {
    PARAM_TYPE_APP_MANIFEST = 0,
};

// Reader of manifest files and builder of the start graph.
class ParseAndDepend {
public:
    // Reads the entries of a manifest file into out (appended). A non-empty
    // matchArgs keeps only the entries whose own match pairs all appear in it.
    // Returns 0 on success; on a fault a non-zero code and a log line, with the
    // entries read before the fault still delivered.
    int32_t ParseYaml(ParamType type, const std::string& path, std::vector<ApplicationManifest>& out,
                      const std::map<std::string, std::string>& matchArgs);
    // Builds the graph of the named applications from the manifests read so far.
    void GetStartGraph(const std::vector<std::string>& names, DependGraph& graph);
    // A value of the form ${GLOB} is a dynamic parameter.
    bool IsDynamicPara(const std::string& value) const;
    // True when value is an instance of the dynamic pattern ${GLOB}.
    bool IsDynamicParaMatch(const std::string& pattern, const std::string& value) const;

private:
    std::mutex mutex_;
    std::map<std::string, std::set<std::string>> knownDepends_;
};

#endif
