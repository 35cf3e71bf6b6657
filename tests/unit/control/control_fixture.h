#ifndef STAVIK_TESTS_UNIT_CONTROL_CONTROL_FIXTURE_H
#define STAVIK_TESTS_UNIT_CONTROL_CONTROL_FIXTURE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "client/owner_session.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "tests/support/daemon_process.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace ControlTest {

namespace Support = ::Stavik::Test;
using AppPtr = std::shared_ptr<App::GeneralAppInfo>;

// One daemon object whose request operations are called directly, over empty
// process-wide tables, with the log captured. An owner that must hear the
// answers gets a real pipe from an in-process owner session; the delivered
// entries then show in the report trace lines.
class ControlSteps : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("STAVIK_SYSROOT", sandbox_.Root().c_str(), 1);
        Support::MakeDirs(sandbox_.TubixDir());
        setenv("TUBIX_DIR", sandbox_.TubixDir().c_str(), 1);
        setenv("PROC_NAME", "STAVIK", 1);
        ClearTables();
        daemon_.reset(new StavikDaemon("unused.yaml"));
        LogCapture::Begin();
    }

    void TearDown() override
    {
        for (const auto& session : sessions_) {
            daemon_->UnRegServiceCallBack(session->Name());
            session->Stop();
        }
        sessions_.clear();
        KillLiveChildren();
        LogCapture::End();
        daemon_.reset();
        ClearTables();
        unsetenv("PROC_NAME");
        unsetenv("TUBIX_DIR");
        unsetenv("STAVIK_SYSROOT");
    }

    static void ClearTables()
    {
        std::lock_guard<std::mutex> generalLock(generalAppMutex_);
        generalAppMap_.clear();
        std::lock_guard<std::mutex> baseLock(baseAppMutex_);
        executedBaseApp_.clear();
    }

    // Made-up pids of records are no children of this process and are left alone.
    static void KillLiveChildren()
    {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        for (const auto& entry : generalAppMap_) {
            int32_t pid = entry.second->pid_;
            if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
                kill(pid, SIGKILL);
                EXPECT_TRUE(Support::WaitUntil([pid] { return waitpid(pid, nullptr, WNOHANG) == pid; }));
            }
        }
    }

    static ManifestData Probe(const std::string& name, const std::vector<std::string>& args = {})
    {
        ManifestData data;
        data.appName = name;
        data.binPath = Support::BuiltProgram("tests/probe_child");
        data.arguments = args;
        return data;
    }

    static ManifestData Broken(const std::string& name)
    {
        ManifestData data = Probe(name);
        data.binPath = "/nonexistent/stavik-control-bin";
        return data;
    }

    void Store(const std::vector<ManifestData>& entries)
    {
        std::vector<ApplicationManifest> manifests(entries.begin(), entries.end());
        daemon_->StoreManifests(manifests);
    }

    AppPtr Lookup(const std::string& name, const std::string& owner = "ownerA")
    {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        return daemon_->GetGeneralApp(name, owner);
    }

    // The record of a stored manifest, put into generalAppMap_ in this state.
    AppPtr Live(const std::string& name, ProcessState state, int32_t pid)
    {
        AppPtr app = Lookup(name);
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        app->state_ = state;
        app->pid_ = pid;
        generalAppMap_[name] = app;
        return app;
    }

    static bool IsLive(const std::string& name)
    {
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        return generalAppMap_.count(name) != 0;
    }

    // A pipe from the daemon to an owner played by this process.
    Client::OwnerSession& OpenPipe(const std::string& name)
    {
        sessions_.emplace_back(new Client::OwnerSession(name));
        Client::OwnerSession& session = *sessions_.back();
        EXPECT_TRUE(session.Start()) << session.LastError();
        EXPECT_TRUE(daemon_->RegisterService(name, 0));
        EXPECT_TRUE(session.WaitForDaemon(10000));
        return session;
    }

    // The trace line of one delivered report entry.
    static std::string Reported(const std::string& owner, const std::string& state, const std::string& name,
                                int32_t pid)
    {
        return "SK report appState to " + owner + ", appState=" + state + ", appName=" + name +
               ", pid=" + std::to_string(pid) + ", reason=0";
    }

    // Level of the first captured line holding text, or -1.
    static int LevelOf(const std::string& text)
    {
        for (const CapturedLine& line : LogCapture::Lines()) {
            if (line.text.find(text) != std::string::npos) {
                return line.level;
            }
        }
        return -1;
    }

    static size_t Count(const std::string& text) { return LogCapture::Count(text); }

    Support::Sandbox sandbox_;
    std::unique_ptr<StavikDaemon> daemon_;
    std::vector<std::unique_ptr<Client::OwnerSession>> sessions_;
};

} // namespace ControlTest
} // namespace Stavik

#endif
