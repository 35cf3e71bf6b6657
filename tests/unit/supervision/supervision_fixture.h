#ifndef STAVIK_TESTS_UNIT_SUPERVISION_SUPERVISION_FIXTURE_H
#define STAVIK_TESTS_UNIT_SUPERVISION_SUPERVISION_FIXTURE_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "core/boot_context.h"
#include "core/log.h"
#include "core/stavik_daemon.h"
#include "tests/support/daemon_process.h"
#include "tests/support/sandbox.h"

namespace Stavik {
namespace SupervisionTest {

// One daemon object, driven step by step without Run(), over empty
// process-wide tables, with the log captured and every fixed path inside a
// sandbox root.
class DaemonSteps : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("STAVIK_SYSROOT", sandbox_.Root().c_str(), 1);
        setenv("TUBIX_DIR", sandbox_.TubixDir().c_str(), 1);
        ClearTables();
        BootContext::Instance().enableFeatures_.clear();
        daemon_.reset(new StavikDaemon("unused.yaml"));
        LogCapture::Begin();
    }

    void TearDown() override
    {
        LogCapture::End();
        daemon_.reset();
        ClearTables();
        BootContext::Instance().enableFeatures_.clear();
        unsetenv("STAVIK_SYSROOT");
    }

    static void ClearTables()
    {
        {
            std::lock_guard<std::mutex> lock(baseAppMutex_);
            executedBaseApp_.clear();
        }
        {
            std::lock_guard<std::mutex> lock(generalAppMutex_);
            generalAppMap_.clear();
        }
        baseManifests_.clear();
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

    // A copy of the base record of this name, or an empty one with pid -1.
    static App::BaseAppInfo BaseCopy(const std::string& name)
    {
        std::lock_guard<std::mutex> lock(baseAppMutex_);
        for (const App::BaseAppInfo& app : executedBaseApp_) {
            if (app.appName_ == name) {
                return app;
            }
        }
        App::BaseAppInfo none{ApplicationManifest()};
        none.pid_ = -1;
        return none;
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

    ::Stavik::Test::Sandbox sandbox_;
    std::unique_ptr<StavikDaemon> daemon_;
};

} // namespace SupervisionTest
} // namespace Stavik

#endif
