#ifndef STAVIK_TESTS_UNIT_IPC_IPC_TEST_ENV_H
#define STAVIK_TESTS_UNIT_IPC_IPC_TEST_ENV_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/helpers/ipc_shared.h"
#include "tests/support/daemon_process.h"

namespace IpcTest {

using IpcShared::SeqMessage;
using Peer = std::unique_ptr<Stavik::Test::DaemonProcess>;
using Stavik::Test::WaitUntil;

// Every test gets its own runtime directory as TUBIX_DIR, removed afterwards.
class TubixDirTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("TUBIX_DIR", dir_.c_str(), 1); }

    Stavik::Test::Sandbox sandbox_;
    const std::string dir_ = sandbox_.TubixDir();
};

// A run of tests/helpers/ipc_peer named procName; its process group is killed at the end.
inline Peer RunPeer(const std::string& procName, const std::vector<std::string>& args)
{
    return std::make_unique<Stavik::Test::DaemonProcess>(Stavik::Test::BuiltProgram("tests/ipc_peer"), args,
                                                         std::map<std::string, std::string>{{"PROC_NAME", procName}});
}

inline int32_t OpenService(const std::string& name, TubixRequestHandler handler)
{
    return IpcShared::OpenPipe(name, std::move(handler), -1);
}

// Sends text and returns the answer, or "rc=N" on failure.
inline std::string Rpc(int32_t fd, const std::string& text, uint32_t timeoutMs = 10000)
{
    char answer[256];
    TubixRequest req{0, text.data(), static_cast<uint32_t>(text.size())};
    TubixResponse resp{0, answer, sizeof(answer)};
    int32_t rc = TubixTimedRPCSync(fd, &req, &resp, timeoutMs);
    return rc != 0 ? "rc=" + std::to_string(rc) : std::string(answer, resp.size);
}

} // namespace IpcTest

#endif
