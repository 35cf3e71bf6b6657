// The naming-service calls: which resources this process publishes.
#include <errno.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "core/log.h"
#include "tubix/engine.h"
#include "tubix/runtime_dir.h"
#include "zul.h"
#include "zul/resource.h"

namespace {

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
    auto resource = std::make_shared<Zul::Resource>(name, *param->ops);
    std::string path = ResourcePath(name);
    int32_t id = Tubix::Engine::Instance().Listen(path, 0, resource, false);
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
            Tubix::Engine::Instance().Close(fd);
        }
        Stavik::Syslog(LOG_INFO, "ZUL: %s withdrawn", entry.first.c_str());
    }
    return 0;
}
