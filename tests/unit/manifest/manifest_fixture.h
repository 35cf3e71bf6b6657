#ifndef STAVIK_TESTS_UNIT_MANIFEST_MANIFEST_FIXTURE_H
#define STAVIK_TESTS_UNIT_MANIFEST_MANIFEST_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/log.h"
#include "tests/support/sandbox.h"

// A private temporary directory for the files of one test, and the log
// captured while the test runs.
class ManifestFixture : public ::testing::Test {
protected:
    void SetUp() override { Stavik::LogCapture::Begin(); }
    void TearDown() override { Stavik::LogCapture::End(); }

    std::string Write(const std::string& name, const std::string& text) const
    {
        return sandbox_.WriteFile("/" + name, text);
    }

    std::string Dir() const { return sandbox_.Root(); }

    static std::vector<std::string> LogTexts(int level)
    {
        std::vector<std::string> texts;
        for (const Stavik::CapturedLine& line : Stavik::LogCapture::Lines()) {
            if (line.level == level) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    // Number of captured lines at this level that hold the text.
    static size_t LogCount(int level, const std::string& text)
    {
        std::vector<std::string> texts = LogTexts(level);
        return std::count_if(texts.begin(), texts.end(),
                             [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }

private:
    Stavik::Test::Sandbox sandbox_;
};

#endif
