#ifndef STAVIK_TESTS_UNIT_CONTROL_CONTROL_FIXTURE_H
#define STAVIK_TESTS_UNIT_CONTROL_CONTROL_FIXTURE_H

#include <signal.h>
#include <sys/wait.h>

#include <vector>

#include "client/owner_session.h"
#include "tests/unit/supervision/supervision_fixture.h"

namespace Stavik {
namespace ControlTest {

namespace Support = ::Stavik::Test;
using AppPtr = std::shared_ptr<App::GeneralAppInfo>;
using AppTest::LevelOf;

// The daemon's request operations called directly. An owner that must hear
// the answers gets a real pipe from an in-process owner session; the
// delivered entries then show in the report trace lines.
class ControlSteps : public SupervisionTest::DaemonSteps {
protected:
    void TearDown() override
    {
        for (const auto& session : sessions_) {
            daemon_->UnRegServiceCallBack(session->Name());
            session->Stop();
        }
        // Made-up pids of records are no children of this process and are left alone.
        std::unique_lock<std::mutex> lock(generalAppMutex_);
        for (const auto& entry : generalAppMap_) {
            int32_t pid = entry.second->pid_;
            if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
                kill(pid, SIGKILL);
                EXPECT_TRUE(Support::WaitUntil([pid] { return waitpid(pid, nullptr, WNOHANG) == pid; }));
            }
        }
        lock.unlock();
        DaemonSteps::TearDown();
    }

    static ManifestData Probe(const std::string& name, const std::vector<std::string>& args = {},
                              const std::string& binPath = Support::BuiltProgram("tests/probe_child"))
    {
        ManifestData data = Data(name);
        data.binPath = binPath;
        data.arguments = args;
        return data;
    }

    static ManifestData Broken(const std::string& name) { return Probe(name, {}, "/nonexistent/stavik-bin"); }

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

    static size_t Count(const std::string& text) { return LogCapture::Count(text); }

    std::vector<std::unique_ptr<Client::OwnerSession>> sessions_;
};

} // namespace ControlTest
} // namespace Stavik

#endif
