// Sharepool groups through the real daemon: two declaration files, children
// of both kinds, the groups and joins in the host state, and the environment
// of each child.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {
namespace {

const int CHILD_WAIT_MS = 10000;

std::string SharepoolEnv(pid_t pid)
{
    std::map<std::string, std::string> env = ProcessEnviron(pid);
    if (env.count("SHAREGROUP_PRECONFIG") == 0 && env.count("SHAREPOOL_GROUP_NAME") == 0) {
        return "none";
    }
    return env["SHAREGROUP_PRECONFIG"] + "|" + env["SHAREPOOL_GROUP_NAME"];
}

TEST(SharepoolRun, GroupsAreCreatedOnceAndChosenChildrenJoinAndCarryThem)
{
    Sandbox box;
    box.WriteFile("/etc/sharepool/a.yaml", "sharepool_groups:\n  - G_VIDEO:\n      mem_size: 1024\n"
                                           "  - G_AUDIO:\n      mem_size: 256\nadmin_pro_lists: [EM, EM, G_NET]\n");
    box.WriteFile("/etc/sharepool/b.yaml", "sharepool_groups:\n  - G_VIDEO:\n      mem_size: 4096\n"
                                           "  - G_NET:\n      mem_size: 64\n"
                                           "add_all_groups_white_lists: [uploader]\n");
    box.WriteFile("/etc/sharepool/c.yaml", "other: 1\n");
    box.WriteFile("/etc/sharepool/sub/d.yaml", "sharepool_groups:\n  - G_HIDDEN:\n      mem_size: 1\n");
    AppEntry data = ProbeApp("g_data").With(
        "sharepool_groups", R"([{group: G_AUDIO, permission: "rw"}, {group: G_UNDECL, permission: "ro"}, )"
                            R"({group: G_NET, permission: "ro"}])");
    AppEntry last = ProbeApp("g_last").With(
        "sharepool_groups", R"([{group: G_VIDEO, permission: "alloc"}, {group: G_NET, permission: "weird"}, )"
                            R"({group: G_AUDIO, permission: "bogus"}])");
    std::string startup = box.WriteFile("/etc/startup/brellan.yaml", AppsText({data, last}));
    std::string manifest = box.WriteFile(
        "/etc/base.yaml", AppsText({DummyOwner("brellan", startup), ProbeApp("EM"), ProbeApp("plain")}));
    PlayedOwners owners(box, {"brellan"});
    ASSERT_EQ("", owners.Error());
    DaemonProcess daemon(box, {manifest});
    OwnerSession& brellan = owners["brellan"];
    ASSERT_TRUE(ReportRunning(brellan)) << daemon.Log();
    ASSERT_NE("", daemon.WaitForLine("InitBaseApplication end", OWNER_WAIT_MS)) << daemon.Log();
    ASSERT_TRUE(LoadStartup(brellan)) << brellan.LastError();
    ASSERT_TRUE(brellan.SendStart({{"g_data", {}, {}}, {"g_last", {}, {}}})) << brellan.LastError();
    ASSERT_NE("", daemon.WaitForLine("Start generalApp success appName=g_last", CHILD_WAIT_MS)) << daemon.Log();

    // Load order decides: the first file read gives G_VIDEO its size, the
    // default group comes last, the file without keys warns three times.
    std::vector<std::string> order;
    for (const std::string& line : daemon.Lines()) {
        std::string text = LogText(line);
        if (text.rfind("sharepoolCfg has ", 0) == 0) {
            order.push_back(text.substr(17, text.find(' ', 17) - 17));
        }
    }
    ASSERT_EQ(4u, order.size()) << daemon.Log();
    EXPECT_EQ("DEFAULT_MEM_GROUP", order.back());
    long small = daemon.IndexOf("LoadSharepoolGroupCfg groupName=G_VIDEO, memSize=1024 KB");
    long large = daemon.IndexOf("LoadSharepoolGroupCfg groupName=G_VIDEO, memSize=4096 KB");
    ASSERT_TRUE(small >= 0 && large >= 0) << daemon.Log();
    const std::string groups = box.TubixDir() + "/hal/groups/";
    EXPECT_NE(std::string::npos,
              ReadWholeFile(groups + "G_VIDEO").find(small < large ? "max_mem_size=1024\n" : "max_mem_size=4096\n"));
    for (const std::string name : {"G_AUDIO", "G_NET", "DEFAULT_MEM_GROUP"}) {
        EXPECT_NE("", ReadWholeFile(groups + name)) << name;
    }
    EXPECT_EQ("", ReadWholeFile(groups + "G_HIDDEN"));
    EXPECT_GE(daemon.IndexOf("LoadSharepoolGroupCfg not exist sharepool_groups key"), 0);
    EXPECT_GE(daemon.IndexOf("LoadAdminProLists not exist admin_pro_lists key"), 0);
    EXPECT_GE(daemon.IndexOf("not exist add_all_groups_white_lists key"), 0);
    EXPECT_EQ(1u, daemon.CountLines("sharepoolCfg app EM is admin"));
    EXPECT_EQ(1u, daemon.CountLines("sharepoolCfg app=uploader is in while lists"));
    EXPECT_EQ(4u, daemon.CountLines("CreateSharepoolGroup group="));

    // Joins: an administrator everywhere, a base service on the default
    // group, general applications with their declared groups only.
    const pid_t em = daemon.StartedPids("EM").at(0);
    const pid_t owner = daemon.StartedPids("brellan").at(0);
    const pid_t plain = daemon.StartedPids("plain").at(0);
    std::map<std::string, pid_t> general;
    for (const StartLine& start : daemon.Starts("Start generalApp success")) {
        general[start.name] = start.pid;
    }
    const pid_t gData = general.at("g_data");
    const pid_t gLast = general.at("g_last");
    EXPECT_EQ((std::map<int32_t, uint32_t>{{em, 7}, {gLast, 14}}), GroupMembers(box, "G_VIDEO"));
    EXPECT_EQ((std::map<int32_t, uint32_t>{{em, 7}, {gData, 6}}), GroupMembers(box, "G_AUDIO"));
    // A group whose name stands on the administrator list takes any permission text.
    EXPECT_EQ((std::map<int32_t, uint32_t>{{em, 7}, {gData, 2}, {gLast, 0}}), GroupMembers(box, "G_NET"));
    EXPECT_EQ((std::map<int32_t, uint32_t>{{em, 15}, {owner, 14}}), GroupMembers(box, "DEFAULT_MEM_GROUP"));
    EXPECT_GE(daemon.IndexOf("AddSharepoolGroup CheckGroupCfg fail: pid=" + std::to_string(gData) +
                             ", appName=g_data, group=G_UNDECL, permission=ro, err=CheckSharepoolGroupCfg failed "
                             "groupName=G_UNDECL is not legal;"),
              0)
        << daemon.Log();
    EXPECT_GE(daemon.IndexOf("err=CheckSharepoolGroupCfg failed permission=bogus is not legal;"), 0);

    // Environment: the usable groups in order, no separator left behind.
    std::string all;
    for (const std::string& name : order) {
        all += (all.empty() ? "" : "#") + name;
    }
    EXPECT_EQ("1|" + all, SharepoolEnv(em));
    EXPECT_EQ("1|DEFAULT_MEM_GROUP", SharepoolEnv(owner));
    EXPECT_EQ("none", SharepoolEnv(plain));
    // Read once the children have reached exec; before it they still carry the daemon's environment.
    EXPECT_TRUE(WaitUntil([&] { return SharepoolEnv(gData) == "1|G_AUDIO#G_NET"; })) << SharepoolEnv(gData);
    EXPECT_TRUE(WaitUntil([&] { return SharepoolEnv(gLast) == "1|G_VIDEO#G_NET"; })) << SharepoolEnv(gLast);
    EXPECT_FALSE(daemon.WaitForLine("app=g_data,pid=" + std::to_string(gData) +
                                        ",CheckSharepoolGroupCfg failed groupName=G_UNDECL is not legal;",
                                    CHILD_WAIT_MS)
                     .empty())
        << daemon.Log();
}

} // namespace
} // namespace Test
} // namespace Stavik
