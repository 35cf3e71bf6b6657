#ifndef STAVIK_CLIENT_ZUL_RESOURCE_CLIENT_H
#define STAVIK_CLIENT_ZUL_RESOURCE_CLIENT_H

#include <cstdint>
#include <string>

namespace Stavik {

// Uses a resource of the naming service from another process, like a device
// file: open it by name, issue ioctls with a command and a record that comes
// back as the service's handler left it, close it. Not for use from two
// threads at once.
class ZulResourceClient {
public:
    ZulResourceClient() = default;
    ~ZulResourceClient();
    ZulResourceClient(const ZulResourceClient&) = delete;
    ZulResourceClient& operator=(const ZulResourceClient&) = delete;

    // Connects to the resource (for example "/res/stavik/sys_server"), waiting
    // up to timeoutMs for it to appear; 0, -11 when it did not, another negative code.
    int32_t Open(const std::string& resName, int32_t timeoutMs);
    // Sends cmd with size bytes of record and writes the returned record over
    // it. 0 with the handler's return value in *result; -110 without an answer
    // in timeoutMs; -71 for an answer that doesn't match the request.
    int32_t Ioctl(uint32_t cmd, void* record, uint32_t size, int32_t* result, uint32_t timeoutMs);
    // 0, or a negative code; the client is closed in both cases.
    int32_t Close();
    bool IsOpen() const { return fd_ > 0; }

private:
    int32_t fd_ = -1;
};

} // namespace Stavik

#endif
