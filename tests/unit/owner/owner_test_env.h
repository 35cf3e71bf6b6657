#ifndef STAVIK_TESTS_UNIT_OWNER_OWNER_TEST_ENV_H
#define STAVIK_TESTS_UNIT_OWNER_OWNER_TEST_ENV_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "channel/message.h"
#include "tests/support/daemon_process.h"
#include "tests/support/sandbox.h"
#include "tubix.h"

namespace OwnerTest {

using json = nlohmann::json;
constexpr int TIMEOUT_MS = 10000;

// Each test gets its own TUBIX_DIR; the test process speaks as the daemon ("STAVIK").
class OwnerTestBase : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::unique_ptr<Stavik::Test::Sandbox> sandbox_;
};

// The daemon's end of an owner pipe: opens it as the daemon does and keeps
// every message that arrives.
class FakeDaemon {
public:
    ~FakeDaemon();
    bool Open(const std::string& owner);
    void Close();

    // Polled, bounded.
    bool WaitForMessages(size_t count) const;
    std::vector<std::string> Messages() const;
    // Message i read as a record.
    Stavik::Message::RequestMsg Record(size_t index) const;

    bool SendReport(const std::vector<Stavik::Message::AppStateInfo>& apps);
    bool SendDetail(const Stavik::Message::AppDetailStatusMap& statusMap);
    bool SendRecord(uint32_t type, const std::string& body);
    bool SendBytes(const std::string& bytes);

private:
    // Shared with the pipe's callback, which may still run after the close.
    struct State {
        std::mutex mutex;
        std::vector<std::string> messages;
    };

    static void OnMessage(State& state, const TubixRequest* req);
    bool Send(const Stavik::Message::RequestMsg& record);

    int32_t fd_ = -1;
    const std::shared_ptr<State> state_ = std::make_shared<State>();
};

// stavik-owner with these arguments, its standard output collected.
std::unique_ptr<Stavik::Test::DaemonProcess> RunTool(const Stavik::Test::Sandbox& sandbox,
                                                     const std::vector<std::string>& args);
// The JSON lines of the tool so far.
std::vector<json> ToolEvents(const Stavik::Test::DaemonProcess& tool);
// The nth (from 0) event of this kind, waiting for it; null when it didn't come.
json WaitForEvent(const Stavik::Test::DaemonProcess& tool, const std::string& event, size_t nth = 0);

} // namespace OwnerTest

#endif
