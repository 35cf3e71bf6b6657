#include <vector>

#include "kvs_type_yaml.h"
#include "manifest_fixture.h"

namespace {

using KvsTest = ManifestFixture;

TEST_F(KvsTest, GroupsAreWalkedWithTheirKeys)
{
    std::string path = Write("groups.yaml", R"(sharepool_groups:
  - GROUP_A:
      mem_size: 1024
  - GROUP_B:
      mem_size: big
  - GROUP_C
admin_pro_lists: [app1, app2]
by_map:
  G1: {mem_size: 18446744073709551615}
  G2: {mem_size: -1}
)");
    KvsTypeYaml root;
    ASSERT_TRUE(root.InitYamlNode(path));
    EXPECT_EQ(root.GetKey(), "");
    KvsTypeYaml groups;
    ASSERT_TRUE(root.GetSubKvs("sharepool_groups", groups));
    EXPECT_EQ(groups.GetKey(), "sharepool_groups");
    std::vector<KvsTypeYaml> items;
    ASSERT_TRUE(groups.GetArray(items));
    ASSERT_EQ(items.size(), 3u);
    std::vector<std::string> keys;
    std::vector<uint64_t> sizes;
    for (const KvsTypeYaml& item : items) {
        KvsTypeYaml size;
        keys.push_back(item.GetKey());
        sizes.push_back(item.GetSubKvs("mem_size", size) ? size.GetUint64() : 77);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"GROUP_A", "GROUP_B", "GROUP_C"}));
    EXPECT_EQ(sizes, (std::vector<uint64_t>{1024, 0, 77}));

    KvsTypeYaml byMap;
    ASSERT_TRUE(root.GetSubKvs("by_map", byMap));
    ASSERT_TRUE(byMap.GetArray(items));
    ASSERT_EQ(items.size(), 2u);
    KvsTypeYaml size;
    EXPECT_EQ(items[0].GetKey(), "G1");
    ASSERT_TRUE(items[0].GetSubKvs("mem_size", size));
    EXPECT_EQ(size.GetUint64(), UINT64_MAX);
    EXPECT_EQ(items[1].GetKey(), "G2");
    ASSERT_TRUE(items[1].GetSubKvs("mem_size", size));
    EXPECT_EQ(size.GetUint64(), 0u);

    KvsTypeYaml admins;
    ASSERT_TRUE(root.GetSubKvs("admin_pro_lists", admins));
    EXPECT_EQ(admins.GetSequenceString(), (std::vector<std::string>{"app1", "app2"}));
    KvsTypeYaml missing;
    EXPECT_FALSE(root.GetSubKvs("add_all_groups_white_lists", missing));
}

TEST_F(KvsTest, WrongTypesReadAsEmptyValues)
{
    std::string path = Write("cfg.yaml", R"(watch_dog:
  enable: false
  timeout: 12a
  action: 1
skupload:
  enable: yes
  mode: maybe
)");
    KvsTypeYaml root;
    ASSERT_TRUE(root.InitYamlNode(path));
    KvsTypeYaml watchDog;
    KvsTypeYaml value;
    ASSERT_TRUE(root.GetSubKvs("watch_dog", watchDog));
    ASSERT_TRUE(watchDog.GetSubKvs("enable", value));
    EXPECT_FALSE(value.GetBool());
    ASSERT_TRUE(watchDog.GetSubKvs("timeout", value));
    EXPECT_EQ(value.GetString(), "12a");
    EXPECT_EQ(value.GetUint64(), 0u);
    EXPECT_FALSE(value.GetSubKvs("anything", value));
    std::vector<KvsTypeYaml> items(2);
    EXPECT_FALSE(value.GetArray(items));
    EXPECT_TRUE(items.empty());
    ASSERT_TRUE(watchDog.GetSubKvs("action", value));
    EXPECT_EQ(value.GetString(), "1");
    EXPECT_EQ(value.GetUint64(), 1u);
    EXPECT_TRUE(value.GetSequenceString().empty());

    KvsTypeYaml upload;
    ASSERT_TRUE(root.GetSubKvs("skupload", upload));
    EXPECT_EQ(upload.GetString(), "");
    EXPECT_FALSE(upload.GetBool());
    EXPECT_EQ(upload.GetUint64(), 0u);
    ASSERT_TRUE(upload.GetSubKvs("enable", value));
    EXPECT_TRUE(value.GetBool());
    ASSERT_TRUE(upload.GetSubKvs("mode", value));
    EXPECT_FALSE(value.GetBool());
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
