#include <gtest/gtest.h>

#include "parse_and_depend.h"

namespace {

TEST(DynamicParaTest, OnlyTheFullDollarBraceFormIsDynamic)
{
    ParseAndDepend parser;
    for (const char* yes : {"${a}", "${worker_*}", "${/opt/*/bin}", "${}}"}) {
        EXPECT_TRUE(parser.IsDynamicPara(yes)) << yes;
    }
    for (const char* no : {"", "${}", "${", "$a}", "{a}", "x${a}", "${a}x", "$(a)", "worker_*"}) {
        EXPECT_FALSE(parser.IsDynamicPara(no)) << no;
    }
}

TEST(DynamicParaTest, ValuesMatchTheGlobWithSlashesKeptApart)
{
    ParseAndDepend parser;
    EXPECT_TRUE(parser.IsDynamicParaMatch("${worker_*}", "worker_1"));
    EXPECT_TRUE(parser.IsDynamicParaMatch("${worker_*}", "worker_"));
    EXPECT_FALSE(parser.IsDynamicParaMatch("${worker_*}", "worker/1"));
    EXPECT_FALSE(parser.IsDynamicParaMatch("${worker_*}", "boss_1"));
    EXPECT_TRUE(parser.IsDynamicParaMatch("${/opt/*/bin/svc}", "/opt/v2/bin/svc"));
    EXPECT_FALSE(parser.IsDynamicParaMatch("${/opt/*/bin/svc}", "/opt/v2/extra/bin/svc"));
    EXPECT_TRUE(parser.IsDynamicParaMatch("${[0-9]}", "7"));
    EXPECT_FALSE(parser.IsDynamicParaMatch("${[0-9]}", "17"));
    EXPECT_TRUE(parser.IsDynamicParaMatch("${*}", "a..b"));
    EXPECT_TRUE(parser.IsDynamicParaMatch("${*/*}", "..a/b.."));
    EXPECT_TRUE(parser.IsDynamicParaMatch("${*}", "caf\xc3\xa9"));
    // The pattern must itself be dynamic; a plain glob matches nothing.
    EXPECT_FALSE(parser.IsDynamicParaMatch("worker_*", "worker_1"));
    EXPECT_FALSE(parser.IsDynamicParaMatch("worker_1", "worker_1"));
}

TEST(DynamicParaTest, ShellTokensControlCharactersAndParentDirectoriesAreRefused)
{
    ParseAndDepend parser;
    const std::string refused[] = {
        "a|b", "a||b", "a;b", "a>b", "a>>b", "a<b", "a`b`", "a&b", "a&&b", "a(b", "a)b", "a$b", "${HOME}",
        "a\nb", "a\tb", "\x1b[0m", "a\x7f", std::string("a\0b", 3), "..", "../etc", "a/../b", "a/..",
    };
    for (const std::string& value : refused) {
        EXPECT_FALSE(parser.IsDynamicParaMatch("${*}", value)) << value;
        EXPECT_FALSE(parser.IsDynamicParaMatch("${*/*}", value)) << value;
        EXPECT_FALSE(parser.IsDynamicParaMatch("${*/*/*}", value)) << value;
    }
}

} // namespace
