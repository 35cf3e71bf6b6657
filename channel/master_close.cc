#include <utility>
#include <vector>

#include "channel/master.h"
#include "channel/tubix_wrappers.h"

namespace Stavik {

// The stop: no callback of an owner pipe may start once the daemon's members
// are going. Every entry is left at -1, as after UnRegServiceCallBack.
void Master::CloseAllPipes()
{
    std::vector<int32_t> open;
    {
        FdLockGuard guard(ownerFdLock_, FdLockGuard::Mode::WRITE);
        for (auto& entry : ownerFds_) {
            if (entry.second > 0) {
                open.push_back(entry.second);
            }
            entry.second = -1;
        }
    }
    for (int32_t fd : open) {
        StavikTubixClosePipe(fd);
    }
}

} // namespace Stavik
