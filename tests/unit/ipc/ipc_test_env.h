#ifndef STAVIK_TESTS_UNIT_IPC_IPC_TEST_ENV_H
#define STAVIK_TESTS_UNIT_IPC_IPC_TEST_ENV_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tubix.h"

namespace IpcTest {

// Every test gets its own runtime directory as TUBIX_DIR, removed afterwards.
class TubixDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string dir_;
};

// A run of tests/helpers/ipc_peer named procName; killed when it goes out of scope.
class Peer {
public:
    Peer(const std::string& procName, const std::vector<std::string>& args);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void Kill();
    // The exit status, or -1 when it didn't end within timeoutMs.
    int Wait(int timeoutMs);

private:
    pid_t pid_ = -1;
};

bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 10000);
int32_t OpenService(const std::string& name, TubixRequestHandler handler, int32_t timeoutMs = -1);
// Sends text and returns the answer, or "rc=N" on failure.
std::string Rpc(int32_t fd, const std::string& text, uint32_t timeoutMs = 10000);
// A sequence message as the peer checks it.
std::vector<uint8_t> SeqMessage(uint32_t seq);
int32_t SendPatiently(int32_t fd, const std::vector<uint8_t>& message);
size_t CountEntries(const char* dir);

} // namespace IpcTest

#endif
