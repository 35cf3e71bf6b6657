#ifndef STAVIK_TESTS_UNIT_SUPERVISION_SUPERVISION_FIXTURE_H
#define STAVIK_TESTS_UNIT_SUPERVISION_SUPERVISION_FIXTURE_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <string>

#include "core/boot_context.h"
#include "core/stavik_daemon.h"
#include "tests/support/sandbox.h"
#include "tests/unit/app/app_test_util.h"

namespace Stavik {
namespace SupervisionTest {

using AppTest::LevelOf;

// One daemon object, driven step by step without Run(), over empty
// process-wide tables, with the log captured and every fixed path inside a
// sandbox root.
class DaemonSteps : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("STAVIK_SYSROOT", sandbox_.Root().c_str(), 1);
        ::Stavik::Test::MakeDirs(sandbox_.TubixDir());
        setenv("TUBIX_DIR", sandbox_.TubixDir().c_str(), 1);
        setenv("PROC_NAME", "STAVIK", 1);
        ClearTables();
        daemon_.reset(new StavikDaemon("unused.yaml"));
        LogCapture::Begin();
    }

    void TearDown() override
    {
        LogCapture::End();
        daemon_.reset();
        ClearTables();
        for (const char* name : {"PROC_NAME", "TUBIX_DIR", "STAVIK_SYSROOT"}) {
            unsetenv(name);
        }
    }

    static void ClearTables()
    {
        std::lock_guard<std::mutex> generalLock(generalAppMutex_);
        std::lock_guard<std::mutex> baseLock(baseAppMutex_);
        executedBaseApp_.clear();
        generalAppMap_.clear();
        baseManifests_.clear();
        BootContext::Instance().enableFeatures_.clear();
    }

    static ManifestData Data(const std::string& name, const std::string& restart = "")
    {
        ManifestData data;
        data.appName = name;
        data.restart = restart;
        return data;
    }

    static App::BaseAppInfo Base(const ManifestData& data, int32_t pid, ProcessState state, uint64_t startTime = 1)
    {
        App::BaseAppInfo app{ApplicationManifest(data)};
        app.pid_ = pid;
        app.state_ = state;
        app.startTime_ = startTime;
        return app;
    }

    static void AddBase(const App::BaseAppInfo& app)
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        executedBaseApp_.push_back(app);
    }

    static std::shared_ptr<App::GeneralAppInfo> AddGeneral(const std::string& name, const std::string& owner,
                                                           int32_t pid, ProcessState state, uint64_t startTime = 1)
    {
        auto app = std::make_shared<App::GeneralAppInfo>(name, ApplicationManifest(Data(name)), owner);
        app->pid_ = pid;
        app->state_ = state;
        app->startTime_ = startTime;
        std::lock_guard<std::mutex> lock(generalAppMutex_);
        generalAppMap_[name] = app;
        return app;
    }

    // A copy of the base record of this name, or an empty one.
    static App::BaseAppInfo BaseCopy(const std::string& name)
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        auto found = std::find_if(executedBaseApp_.begin(), executedBaseApp_.end(),
                                  [&name](const App::BaseAppInfo& app) { return app.appName_ == name; });
        return found == executedBaseApp_.end() ? App::BaseAppInfo{ApplicationManifest()} : *found;
    }

    ::Stavik::Test::Sandbox sandbox_;
    std::unique_ptr<StavikDaemon> daemon_;
};

} // namespace SupervisionTest
} // namespace Stavik

#endif
