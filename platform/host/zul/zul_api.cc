// The naming-service calls: which resources this process publishes.
#include <errno.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "core/log.h"
#include "tubix/engine.h"
#include "tubix/runtime_dir.h"
#include "tubix/sleep_util.h"
#include "zul.h"
#include "zul/resource.h"

namespace {

// How long a withdrawal waits for an ioctl in progress on a connection.
constexpr uint32_t WITHDRAW_WAIT_MS = 2000;

struct Registration {
    int32_t listenerId;
    std::shared_ptr<Zul::Resource> resource;
};

struct Registry {
    std::mutex mutex;
    std::map<std::string, Registration> resources;
};

Registry& Resources()
{
    static Registry registry;
    return registry;
}

// A resource named N is served at $TUBIX_DIR/res followed by N.
std::string ResourcePath(const std::string& name)
{
    return Tubix::RuntimeDir() + "/res" + name;
}

void CloseConnection(const std::string& name, int32_t fd)
{
    int32_t rc = -EBUSY;
    for (uint32_t waited = 0; rc == -EBUSY && waited <= WITHDRAW_WAIT_MS; ++waited) {
        rc = Tubix::Engine::Instance().Close(fd);
        if (rc == -EBUSY) {
            Tubix::SleepMs(1);
        }
    }
    if (rc == -EBUSY) {
        Stavik::Syslog(LOG_ERR, "ZUL: %s connection fd=%d still busy, left open", name.c_str(), fd);
    }
}

} // namespace

int32_t ZULRegisterService(const ZulServiceParam* param)
{
    if (param == nullptr || param->resName == nullptr || param->ops == nullptr) {
        Stavik::Syslog(LOG_ERR, "ZUL: register without a resource name or entries");
        return -EINVAL;
    }
    std::string name = param->resName;
    if (!Tubix::IsSafeServiceName("res" + name)) {
        return -EINVAL;
    }
    Registry& registry = Resources();
    std::lock_guard<std::mutex> guard(registry.mutex);
    if (registry.resources.count(name) != 0) {
        Stavik::Syslog(LOG_ERR, "ZUL: %s is already registered by this process", name.c_str());
        return -EEXIST;
    }
    auto resource = std::make_shared<Zul::Resource>(name, *param->ops, param->timeoutMs);
    std::string path = ResourcePath(name);
    int32_t id = Tubix::Engine::Instance().Listen(path, 0, resource);
    if (id < 0) {
        Stavik::Syslog(LOG_ERR, "ZUL: register %s at %s failed, ret=%d", name.c_str(), path.c_str(), id);
        return id;
    }
    registry.resources[name] = Registration{id, resource};
    Stavik::Syslog(LOG_INFO, "ZUL: %s is served at %s", name.c_str(), path.c_str());
    return 0;
}

int32_t ZULRetrieveService()
{
    std::map<std::string, Registration> withdrawn;
    {
        Registry& registry = Resources();
        std::lock_guard<std::mutex> guard(registry.mutex);
        withdrawn.swap(registry.resources);
    }
    for (auto& entry : withdrawn) {
        entry.second.resource->Withdraw();
        for (int32_t fd : Tubix::Engine::Instance().StopListening(entry.second.listenerId)) {
            CloseConnection(entry.first, fd);
        }
        Stavik::Syslog(LOG_INFO, "ZUL: %s withdrawn", entry.first.c_str());
    }
    return 0;
}
