#ifndef STAVIK_TESTS_UNIT_MANIFEST_MANIFEST_FIXTURE_H
#define STAVIK_TESTS_UNIT_MANIFEST_MANIFEST_FIXTURE_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/log.h"

// A private temporary directory for the files of one test, and the log
// captured while the test runs.
class ManifestFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string base = (std::filesystem::temp_directory_path() / "stavik-manifest-XXXXXX").string();
        ASSERT_NE(mkdtemp(&base[0]), nullptr);
        dir_ = base;
        Stavik::LogCapture::Begin();
    }

    void TearDown() override
    {
        Stavik::LogCapture::End();
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string Write(const std::string& name, const std::string& text) const
    {
        std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    std::string Dir() const { return dir_; }

    // Number of captured lines at this level that hold the text.
    static size_t LogCount(int level, const std::string& text)
    {
        size_t count = 0;
        for (const Stavik::CapturedLine& line : Stavik::LogCapture::Lines()) {
            count += (line.level == level && line.text.find(text) != std::string::npos) ? 1 : 0;
        }
        return count;
    }

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

private:
    std::string dir_;
};

#endif
