// The daemon's retries of busy IPC calls, counted where they reach the
// platform library: the link puts the stubs below in front of the library's
// calls (see tests/CMakeLists.txt); calls on other descriptors pass through.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <mutex>

#include "channel/tubix_wrappers.h"

namespace {

const int32_t SCRIPTED_FD = 1000000;

struct Script {
    std::mutex mutex;
    std::deque<int32_t> results;
    uint32_t calls = 0;
};

Script& Played()
{
    static Script script;
    return script;
}

// The next scripted result of a call on SCRIPTED_FD, 0 once the script is done.
bool Play(int32_t fd, int32_t& result)
{
    if (fd != SCRIPTED_FD) {
        return false;
    }
    std::lock_guard<std::mutex> guard(Played().mutex);
    ++Played().calls;
    result = Played().results.empty() ? 0 : Played().results.front();
    if (!Played().results.empty()) {
        Played().results.pop_front();
    }
    return true;
}

} // namespace

extern "C" {
int32_t __real__Z16TubixSendRequesti12TubixRequest(int32_t fd, TubixRequest req);
int32_t __real__Z14TubixClosePipei(int32_t fd);

int32_t __wrap__Z16TubixSendRequesti12TubixRequest(int32_t fd, TubixRequest req)
{
    int32_t result = 0;
    return Play(fd, result) ? result : __real__Z16TubixSendRequesti12TubixRequest(fd, req);
}

int32_t __wrap__Z14TubixClosePipei(int32_t fd)
{
    int32_t result = 0;
    return Play(fd, result) ? result : __real__Z14TubixClosePipei(fd);
}
}

namespace Stavik {
namespace {

TEST(TubixRetry, OnlyTryAgainIsRetriedForASendAndOnlyBusyForAClose)
{
    auto send = [] { return StavikTubixSendRequest(SCRIPTED_FD, TubixRequest{0, "x", 1}); };
    auto close = [] {
        StavikTubixClosePipe(SCRIPTED_FD);
        return 0;
    };
    struct Case {
        const char* name;
        std::function<int32_t()> call;
        std::deque<int32_t> results;
        uint32_t calls;
        int32_t result;
    };
    const Case cases[] = {
        {"send stays busy", send, std::deque<int32_t>(500, TUBIX_TRY_AGAIN), 401, TUBIX_TRY_AGAIN},
        {"send busy twice", send, {TUBIX_TRY_AGAIN, TUBIX_TRY_AGAIN}, 3, 0},
        {"send to a gone peer", send, {-32, 0}, 1, -32},
        {"send on a busy pipe", send, {TUBIX_BUSY, 0}, 1, TUBIX_BUSY},
        {"close stays busy", close, std::deque<int32_t>(20, TUBIX_BUSY), 10, 0},
        {"close busy once", close, {TUBIX_BUSY, -9, 0}, 2, 0},
        {"close told to try again", close, {TUBIX_TRY_AGAIN, 0}, 1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        {
            std::lock_guard<std::mutex> guard(Played().mutex);
            Played().results = c.results;
            Played().calls = 0;
        }
        EXPECT_EQ(c.call(), c.result);
        std::lock_guard<std::mutex> guard(Played().mutex);
        EXPECT_EQ(Played().calls, c.calls);
    }
}

} // namespace
} // namespace Stavik
