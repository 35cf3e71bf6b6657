#ifndef STAVIK_TESTS_E2E_CONTROL_CONTROL_RUN_H
#define STAVIK_TESTS_E2E_CONTROL_CONTROL_RUN_H

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "app/process_state.h"
#include "tests/support/played_owners.h"

namespace Stavik {
namespace Test {

// One daemon for the whole suite, with three reporting base services played
// by the test: "owner_a", "owner_b" and "zulmgr", each with a start-up file.
// Every test works on applications of its own, so the order of tests doesn't matter.
class ControlRun : public ::testing::Test {
public:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override { ASSERT_EQ("", setupError_) << daemon_->Log(); }

    static OwnerSession& Owner(const std::string& name) { return (*owners_)[name]; }
    static const DaemonProcess& Daemon() { return *daemon_; }
    static const Sandbox& Box() { return *sandbox_; }
    static size_t Mark(const std::string& owner) { return Owner(owner).EventCount(); }
    // The first entry of app in `state` that reached owner at or after mark.
    static std::optional<Message::AppStateInfo> Await(const std::string& owner, const std::string& app,
                                                      ReportAppStateType state, size_t mark);
    static bool Start(const std::string& owner, const std::vector<std::string>& apps);
    static bool Restart(const std::string& owner, const std::vector<std::string>& apps);
    static bool Term(const std::string& owner, const std::vector<std::string>& apps);
    using Request = bool (*)(const std::string& owner, const std::vector<std::string>& apps);
    // Sends one request for app and waits for the entry in `state` that follows it.
    static std::optional<Message::AppStateInfo> Ask(Request request, const std::string& owner, const std::string& app,
                                                    ReportAppStateType state);
    static bool WaitForExact(const std::string& text) { return daemon_->WaitForExact(text); }
    // Lines whose text is exactly `text`, counted once every line the daemon
    // wrote before this call has been read.
    static size_t Count(const std::string& text);
    // Starts app for owner and returns the pid of its RUNNING report, 0 when none came.
    static pid_t StartRunning(const std::string& owner, const std::string& app);
    // The same for a process that ignores SIGTERM, once it has got that far:
    // a RUNNING report may come before the new program has set it up.
    static pid_t StartStubborn(const std::string& owner, const std::string& app);
    // The entries of app that reached owner since mark, once there are `count` of them or the wait is over.
    static std::vector<Message::AppStateInfo> AwaitEntries(const std::string& owner, const std::string& app,
                                                          size_t count, size_t mark);
    // Waits until app has left the live map `count` times.
    static bool WaitForRemovals(const std::string& app, size_t count);

    // What the owners' LOAD_STARTUP_CFG requests were answered, by owner.
    static std::map<std::string, std::string> loadAnswers_;
    static const std::string elsewherePath_;

private:
    static void WriteManifests();
    static void BootAndLoad();

    static Sandbox* sandbox_;
    static PlayedOwners* owners_;
    static DaemonProcess* daemon_;
    static std::string setupError_;
};

} // namespace Test
} // namespace Stavik

#endif
