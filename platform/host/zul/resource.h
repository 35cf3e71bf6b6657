#ifndef STAVIK_PLATFORM_HOST_ZUL_RESOURCE_H
#define STAVIK_PLATFORM_HOST_ZUL_RESOURCE_H

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "tubix/pipe_sink.h"
#include "zul.h"

namespace Zul {

// One published resource. A client's hello opens it, each request is an ioctl
// (u32 cmd, u32 0, record) answered with (i32 result, u32 0, record as the
// entry left it), and the end of the connection closes it. Every open gets
// exactly one Close, after its last Ioctl.
class Resource : public Tubix::PipeSink {
public:
    Resource(std::string name, const ZulServiceOps& ops);
    void OnHello(int32_t fd, const std::string& clientName) override;
    void OnRequest(int32_t fd, const TubixRequest* req) override;
    void OnClosed(int32_t fd) override;
    // Refuses further opens and ioctls, waits (bounded) for the entries
    // running on other threads, and closes every open left. No entry of this
    // resource starts after it returns; the connections are the caller's to close.
    void Withdraw();

private:
    struct OpenFile {
        std::string clientName;
        ZulFile file;
    };

    // Counts an entry while it runs; false once the resource is withdrawn.
    bool EnterEntry();
    void LeaveEntry();
    ZulFile* FindFile(int32_t fd);
    std::vector<uint8_t> RunIoctl(ZulFile* file, const TubixRequest& req);
    void Answer(int32_t fd, uint32_t id, const std::vector<uint8_t>& reply);

    const std::string name_;
    const ZulServiceOps ops_;
    std::mutex mutex_;
    std::condition_variable idle_;
    bool withdrawn_ = false;
    uint32_t runningEntries_ = 0;
    std::unordered_map<int32_t, std::unique_ptr<OpenFile>> files_;
};

} // namespace Zul

#endif
