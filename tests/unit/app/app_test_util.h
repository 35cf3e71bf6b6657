#ifndef STAVIK_TESTS_UNIT_APP_APP_TEST_UTIL_H
#define STAVIK_TESTS_UNIT_APP_APP_TEST_UTIL_H

#include <map>
#include <string>

#include "app/signals.h"
#include "core/log.h"
#include "tests/support/daemon_process.h"

namespace Stavik {
namespace AppTest {

using Test::WaitUntil;

// A process counts as gone once its status can't be read or it is a zombie.
inline bool IsGone(pid_t pid)
{
    std::map<std::string, std::string> status = {{"State", ""}};
    App::ReadProcStatus(pid, status);
    return status["State"].empty() || status["State"][0] == 'Z';
}

// Captures log lines for the life of one scope.
struct ScopedLogCapture {
    ScopedLogCapture() { LogCapture::Begin(); }
    ~ScopedLogCapture() { LogCapture::End(); }
};

// The level of the first captured line that contains text, or -1.
inline int LevelOf(const std::string& text)
{
    for (const CapturedLine& line : LogCapture::Lines()) {
        if (line.text.find(text) != std::string::npos) {
            return line.level;
        }
    }
    return -1;
}

} // namespace AppTest
} // namespace Stavik

#endif
