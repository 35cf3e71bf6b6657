#include <vector>

#include "kvs_type_yaml.h"
#include "manifest_fixture.h"

namespace {

using KvsTest = ManifestFixture;

// Groups and lists as the sharepool settings have them, and values of the wrong
// type, which read as empty values.
TEST_F(KvsTest, GroupsListsAndWrongTypes)
{
    std::string path = Write("groups.yaml", R"(sharepool_groups:
  - GROUP_A:
      mem_size: 1024
  - GROUP_B:
      mem_size: big
  - GROUP_C
by_map:
  G1: {mem_size: 18446744073709551615}
  G2: {mem_size: -1}
watch_dog: {enable: yes, timeout: 12a}
)");
    KvsTypeYaml root;
    ASSERT_TRUE(root.InitYamlNode(path));
    std::vector<std::string> keys;
    std::vector<uint64_t> sizes;
    for (const char* groupsKey : {"sharepool_groups", "by_map"}) {
        KvsTypeYaml groups;
        std::vector<KvsTypeYaml> items;
        ASSERT_TRUE(root.GetSubKvs(groupsKey, groups) && groups.GetArray(items));
        EXPECT_EQ(groups.GetKey(), groupsKey);
        for (const KvsTypeYaml& item : items) {
            KvsTypeYaml size;
            keys.push_back(item.GetKey());
            sizes.push_back(item.GetSubKvs("mem_size", size) ? size.GetUint64() : 77);
        }
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"GROUP_A", "GROUP_B", "GROUP_C", "G1", "G2"}));
    EXPECT_EQ(sizes, (std::vector<uint64_t>{1024, 0, 77, UINT64_MAX, 0}));
    KvsTypeYaml value;
    EXPECT_FALSE(root.GetSubKvs("add_all_groups_white_lists", value));

    KvsTypeYaml watchDog;
    ASSERT_TRUE(root.GetSubKvs("watch_dog", watchDog));
    EXPECT_TRUE(watchDog.GetString().empty() && !watchDog.GetBool() && watchDog.GetUint64() == 0);
    ASSERT_TRUE(watchDog.GetSubKvs("enable", value));
    EXPECT_TRUE(value.GetBool());
    ASSERT_TRUE(watchDog.GetSubKvs("timeout", value));
    EXPECT_EQ(value.GetString(), "12a");
    EXPECT_EQ(value.GetUint64(), 0u);
}

TEST_F(KvsTest, BadFilesFailAndViewsOutliveTheirRoot)
{
    KvsTypeYaml root;
    EXPECT_FALSE(root.InitYamlNode(Dir() + "/missing.yaml"));
    EXPECT_FALSE(root.InitYamlNode(Write("bad.yaml", "watch_dog: {enable: [\n")));
    KvsTypeYaml value;
    EXPECT_FALSE(root.GetSubKvs("watch_dog", value));
    EXPECT_TRUE(root.InitYamlNode(Write("empty.yaml", "")));
    EXPECT_FALSE(root.GetSubKvs("watch_dog", value));

    KvsTypeYaml kept;
    {
        KvsTypeYaml scoped;
        ASSERT_TRUE(scoped.InitYamlNode(Write("list.yaml", "names: [a, b]\n")));
        ASSERT_TRUE(scoped.GetSubKvs("names", kept));
        // Reloading the view it came from must not pull the tree from under it.
        ASSERT_TRUE(scoped.InitYamlNode(Write("other.yaml", "names: [c]\n")));
    }
    KvsTypeYaml copy(kept);
    EXPECT_EQ(copy.GetSequenceString(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(copy.GetKey(), "names");
}

} // namespace
