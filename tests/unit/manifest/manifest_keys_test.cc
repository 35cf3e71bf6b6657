#include <vector>

#include "manifest_fixture.h"
#include "parse_and_depend.h"

namespace {

using KeysTest = ManifestFixture;

const char FULL_ENTRY[] = R"(apps:
  - name: svc_full
    bin_path: /usr/bin/svc_full
    args: [--mode, fast, "010"]
    env:
      LANG: C
      LEVEL: "3"
      EMPTY:
    cfg_path: /etc/svc/full.yaml
    colour: blue
    uid: 999
    uid: 1000
    gid: "1001"
    restart: on-failure
    reporting: true
    depends: [svc_b, svc_a, svc_b]
    startup_entry_path: /etc/svc/startup.yaml
    startup_priority: 0
    dynamic_para: yes
    force_term: true
    term_timeout_ms: 250
    nice: -20
    rt_prio: 50
    rt_policy: SCHED_FIFO
    core_affinity: [255, 1, 010]
    delay_core_affinity: on
    heartbeat:
      enable: true
      interval: 300
      count: 4294967295
      jitter: 5
    node_type: 7
    numa_type: 2
    process_type: 1
    security_context: "u:r:svc:s0"
    vf_id: -2147483648
    vf_id_pattern: "${[0-9]*}"
owner: someone
)";

// The group, cgroup, sharepool and match keys are proven by the daemon's runs
// that place, share and select applications by them.
TEST_F(KeysTest, FullEntryFillsEveryAccessor)
{
    ParseAndDepend parser;
    std::vector<ApplicationManifest> out;
    ASSERT_EQ(parser.ParseYaml(PARAM_TYPE_APP_MANIFEST, Write("full.yaml", FULL_ENTRY), out, {}), 0);
    ASSERT_EQ(out.size(), 1u);
    const ApplicationManifest& m = out[0];
    EXPECT_EQ(m.GetAppName(), "svc_full");
    EXPECT_EQ(m.GetBinPath(), "/usr/bin/svc_full");
    EXPECT_EQ(m.GetArguments(), (std::vector<std::string>{"--mode", "fast", "010"}));
    EXPECT_EQ(m.GetEnvArgv(), (std::map<std::string, std::string>{{"EMPTY", ""}, {"LANG", "C"}, {"LEVEL", "3"}}));
    EXPECT_EQ(m.GetCfgPath(), "/etc/svc/full.yaml");
    EXPECT_EQ(m.GetUid(), 1000u);
    EXPECT_EQ(m.GetGid(), 1001u);
    EXPECT_EQ(m.GetRestart(), "on-failure");
    EXPECT_TRUE(m.GetIsReporting());
    EXPECT_EQ(m.GetDependList(), (std::set<std::string>{"svc_a", "svc_b"}));
    EXPECT_EQ(m.GetStartupEntryPath(), "/etc/svc/startup.yaml");
    EXPECT_EQ(m.GetStartupPriority(), 0);
    EXPECT_TRUE(m.GetIsDynamicPara());
    EXPECT_TRUE(m.GetIsForceTerm());
    EXPECT_EQ(m.GetTermTimeOut(), 250u);
    EXPECT_EQ(m.GetNice(), -20);
    EXPECT_EQ(m.GetSetRtPrio(), "50");
    EXPECT_EQ(m.GetSetRtType(), "SCHED_FIFO");
    // Numbers are decimal: a leading zero does not make 010 octal.
    EXPECT_EQ(m.GetCoreAffinity(), (std::vector<uint32_t>{255, 1, 10}));
    EXPECT_TRUE(m.GetIsDelayCoreAffinity());
    EXPECT_TRUE(m.GetHeartBeatSwitch());
    EXPECT_EQ(m.GetHeartBeatInterval(), 300u);
    EXPECT_EQ(m.GetHeartBeatCount(), 4294967295u);
    EXPECT_EQ(m.GetNodeType(), 7u);
    EXPECT_EQ(m.GetNumaType(), 2u);
    EXPECT_EQ(m.GetProcessType(), 1);
    EXPECT_EQ(m.GetSecurityCon(), "u:r:svc:s0");
    EXPECT_EQ(m.GetVfId(), -2147483647 - 1);
    EXPECT_EQ(m.GetVfIdPattern(), "${[0-9]*}");
    // Unknown and repeated keys each get a warning; the last value is used.
    EXPECT_EQ(LogTexts(LOG_WARNING).size(), 4u);
    EXPECT_EQ(LogCount(LOG_WARNING, "line 12, entry 'svc_full': key 'uid' given again, the last value is used"), 1u);
    EXPECT_EQ(LogCount(LOG_WARNING, "line 31, entry 'svc_full', key 'heartbeat': unknown key 'jitter' ignored"), 1u);
    EXPECT_EQ(LogTexts(LOG_ERR).size(), 0u);
}

TEST_F(KeysTest, MinimalAndEmptyEntriesTakeDefaults)
{
    // The second entry writes every key with an empty value, which keeps the default;
    // the third has no name at all.
    std::string text = "apps:\n  - name: svc_min\n  - name: svc_empty\n";
    for (const char* key : {"bin_path", "args", "env", "uid", "reporting", "depends", "startup_priority",
                            "term_timeout_ms", "core_affinity", "cgroup_path", "sharepool_groups", "heartbeat",
                            "vf_id", "match"}) {
        text += std::string("    ") + key + ":\n";
    }
    text += "  - restart: on-forever\n";
    std::string path = Write("min.yaml", text);
    ParseAndDepend parser;
    std::vector<ApplicationManifest> out;
    ASSERT_EQ(parser.ParseYaml(PARAM_TYPE_APP_MANIFEST, path, out, {}), 0);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].GetAppName(), "svc_min");
    EXPECT_EQ(out[1].GetAppName(), "svc_empty");
    EXPECT_EQ(out[2].GetAppName(), "");
    EXPECT_EQ(out[2].GetRestart(), "on-forever");
    EXPECT_EQ(LogCount(LOG_WARNING, "manifest " + path + " line 18: entry has no name"), 1u);
    // The keys written empty keep their defaults; those that are not zero or empty get a line each.
    for (size_t index = 0; index < 2; ++index) {
        SCOPED_TRACE(out[index].GetAppName());
        const ApplicationManifest& m = out[index];
        EXPECT_TRUE(m.GetBinPath().empty() && m.GetArguments().empty() && m.GetEnvArgv().empty());
        EXPECT_TRUE(m.GetDependList().empty() && m.GetCoreAffinity().empty() && m.GetCGroupPath().empty());
        EXPECT_TRUE(m.GetSharepoolGroups().empty() && !m.GetHeartBeatSwitch() && !m.GetIsReporting());
        EXPECT_EQ(m.GetUid(), 0u);
        EXPECT_EQ(m.GetStartupPriority(), -1);
        EXPECT_EQ(m.GetTermTimeOut(), 5000u);
        EXPECT_EQ(m.GetVfId(), -1);
    }
}

TEST_F(KeysTest, MatchPairsMustAllAppearWithEqualValues)
{
    std::string path = Write("match.yaml", R"(apps:
  - name: common
  - name: evb_only
    match: {board: evb}
  - name: evb_rev2
    match: {board: evb, rev: 2}
  - name: other
    match: {board: other}
)");
    struct Selection {
        std::map<std::string, std::string> matchArgs;
        std::vector<std::string> kept;
    };
    const Selection selections[] = {
        {{}, {"common", "evb_only", "evb_rev2", "other"}},
        {{{"board", "evb"}}, {"common", "evb_only"}},
        {{{"board", "evb"}, {"rev", "2"}, {"extra", "x"}}, {"common", "evb_only", "evb_rev2"}},
        {{{"board", "EVB"}}, {"common"}},
        {{{"rev", "2"}}, {"common"}},
    };
    ParseAndDepend parser;
    for (const Selection& selection : selections) {
        std::vector<ApplicationManifest> out;
        ASSERT_EQ(parser.ParseYaml(PARAM_TYPE_APP_MANIFEST, path, out, selection.matchArgs), 0);
        std::vector<std::string> names;
        for (const ApplicationManifest& manifest : out) {
            names.push_back(manifest.GetAppName());
        }
        EXPECT_EQ(names, selection.kept);
    }
}

} // namespace
