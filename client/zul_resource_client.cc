#include "client/zul_resource_client.h"

#include <errno.h>
#include <time.h>

#include <cstring>
#include <vector>

#include "core/log.h"
#include "tubix.h"

namespace Stavik {
namespace {

constexpr uint32_t IOCTL_HEADER_SIZE = 8;
constexpr uint32_t MAX_RECORD_SIZE = 65536 - IOCTL_HEADER_SIZE;
// A close meets a running callback only while the disconnect is being told.
constexpr int CLOSE_ATTEMPTS = 1000;

void PutLe32(uint8_t* out, uint32_t value)
{
    for (int i = 0; i < 4; ++i) {
        out[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint32_t GetLe32(const uint8_t* in)
{
    return static_cast<uint32_t>(in[0]) | (static_cast<uint32_t>(in[1]) << 8) |
           (static_cast<uint32_t>(in[2]) << 16) | (static_cast<uint32_t>(in[3]) << 24);
}

void SleepOneMs()
{
    struct timespec left = {0, 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace

ZulResourceClient::~ZulResourceClient()
{
    Close();
}

int32_t ZulResourceClient::Open(const std::string& resName, int32_t timeoutMs)
{
    if (IsOpen()) {
        Syslog(LOG_ERR, "ZUL client: %s: already open", resName.c_str());
        return -EISCONN;
    }
    std::string service = "res" + resName;
    TubixOpenParam param{};
    param.procName = service.c_str();
    // The resource only answers; the pipe's end shows up as failed ioctls.
    param.handler = [](int32_t, const TubixRequest*) {};
    param.priority = -1;
    param.msgMode = 1;
    param.retryOnMissing = 1;
    param.timeoutMs = timeoutMs;
    int32_t fd = TubixOpen(&param);
    if (fd <= 0) {
        Syslog(LOG_ERR, "ZUL client: open %s failed, ret=%d", resName.c_str(), fd);
        return fd < 0 ? fd : -EIO;
    }
    fd_ = fd;
    return 0;
}

int32_t ZulResourceClient::Ioctl(uint32_t cmd, void* record, uint32_t size, int32_t* result, uint32_t timeoutMs)
{
    if (!IsOpen() || result == nullptr || (record == nullptr && size > 0) || size > MAX_RECORD_SIZE) {
        Syslog(LOG_ERR, "ZUL client: ioctl %u refused: not open, or a bad record of %u bytes", cmd, size);
        return IsOpen() ? -EINVAL : -EBADF;
    }
    std::vector<uint8_t> request(IOCTL_HEADER_SIZE + size, 0);
    PutLe32(request.data(), cmd);
    if (size > 0) {
        memcpy(request.data() + IOCTL_HEADER_SIZE, record, size);
    }
    std::vector<uint8_t> reply(IOCTL_HEADER_SIZE + size, 0);
    TubixRequest req{0, request.data(), static_cast<uint32_t>(request.size())};
    TubixResponse resp{0, reply.data(), static_cast<uint32_t>(reply.size())};
    int32_t rc = TubixTimedRPCSync(fd_, &req, &resp, timeoutMs);
    if (rc != 0) {
        return rc;
    }
    if (resp.size != reply.size()) {
        Syslog(LOG_ERR, "ZUL client: ioctl %u answered with %u bytes for a record of %u", cmd, resp.size, size);
        return -EPROTO;
    }
    *result = static_cast<int32_t>(GetLe32(reply.data()));
    if (size > 0) {
        memcpy(record, reply.data() + IOCTL_HEADER_SIZE, size);
    }
    return 0;
}

int32_t ZulResourceClient::Close()
{
    if (!IsOpen()) {
        return 0;
    }
    int32_t rc = -EBUSY;
    for (int attempt = 0; attempt < CLOSE_ATTEMPTS && rc == -EBUSY; ++attempt) {
        rc = TubixClosePipe(fd_);
        if (rc == -EBUSY) {
            SleepOneMs();
        }
    }
    fd_ = -1;
    return rc;
}

} // namespace Stavik
