#include <gtest/gtest.h>

#include <tuple>

#include "parse_and_depend.h"

namespace {

TEST(DynamicParaTest, OnlyTheFullDollarBraceFormIsDynamicAndValuesMatchItsGlob)
{
    ParseAndDepend parser;
    for (const char* yes : {"${a}", "${worker_*}", "${/opt/*/bin}", "${}}"}) {
        EXPECT_TRUE(parser.IsDynamicPara(yes)) << yes;
    }
    for (const char* no : {"", "${}", "${", "$a}", "{a}", "x${a}", "${a}x", "$(a)", "worker_*"}) {
        EXPECT_FALSE(parser.IsDynamicPara(no)) << no;
    }

    // The pattern must itself be dynamic; a plain glob matches nothing.
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"${worker_*}", "worker_1", true}, {"${worker_*}", "worker_", true}, {"${worker_*}", "worker/1", false},
        {"${worker_*}", "boss_1", false}, {"${/opt/*/bin/svc}", "/opt/v2/bin/svc", true},
        {"${/opt/*/bin/svc}", "/opt/v2/extra/bin/svc", false}, {"${[0-9]}", "7", true}, {"${[0-9]}", "17", false},
        {"${*}", "a..b", true}, {"${*/*}", "..a/b..", true}, {"${*}", "caf\xc3\xa9", true},
        {"worker_*", "worker_1", false}, {"worker_1", "worker_1", false},
    };
    for (const auto& [pattern, value, matches] : cases) {
        EXPECT_EQ(parser.IsDynamicParaMatch(pattern, value), matches) << pattern << " " << value;
    }

    // Shell tokens, control characters and parent directories are refused.
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
