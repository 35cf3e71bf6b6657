#include "client/server_slots.h"

#include <array>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace Stavik {
namespace Client {
namespace {

// Distinct (runtime directory, name) servers one process can run.
constexpr size_t SLOT_COUNT = 64;

struct Slot {
    std::string key; // where the slot's server listens; empty while it has none
    ServerCallbacks* target = nullptr;
    uint64_t releasedAt = 0;
};

struct SlotTable {
    // Callbacks hold it shared while they run, so that unbinding waits for them.
    std::shared_mutex mutex;
    std::array<Slot, SLOT_COUNT> slots;
    uint64_t clock = 0;
};

// Library threads may still deliver while the process exits: never destroyed.
SlotTable& Table()
{
    static SlotTable* table = new SlotTable();
    return *table;
}

template <typename Call>
void Deliver(size_t slot, int32_t fd, Call call)
{
    std::shared_lock<std::shared_mutex> guard(Table().mutex);
    ServerCallbacks* target = Table().slots[slot].target;
    if (target == nullptr) {
        // Nobody plays this service any more: the peer should see it gone.
        TubixClosePipe(fd);
        return;
    }
    call(*target);
}

template <size_t N>
void ConnectAt(int32_t fd, const char* clientName, uint32_t nameLen)
{
    std::string name = clientName == nullptr ? std::string() : std::string(clientName, nameLen);
    Deliver(N, fd, [&](ServerCallbacks& target) { target.OnConnect(fd, name); });
}

template <size_t N>
void RequestAt(int32_t fd, const TubixRequest* req)
{
    Deliver(N, fd, [&](ServerCallbacks& target) { target.OnRequest(fd, req); });
}

template <size_t... N>
std::array<TubixServerParam, sizeof...(N)> MakeParams(std::index_sequence<N...>)
{
    return {{TubixServerParam{ConnectAt<N>, RequestAt<N>, 0, 1, 0}...}};
}

const std::array<TubixServerParam, SLOT_COUNT>& Params()
{
    static const std::array<TubixServerParam, SLOT_COUNT> params =
        MakeParams(std::make_index_sequence<SLOT_COUNT>{});
    return params;
}

std::string ServerKey(const std::string& name)
{
    const char* dir = getenv("TUBIX_DIR");
    return std::string(dir == nullptr ? "" : dir) + "/" + name;
}

int32_t CreateServerAs(const std::string& name, const TubixServerParam& param)
{
    const char* previous = getenv("PROC_NAME");
    std::string saved = previous == nullptr ? std::string() : std::string(previous);
    setenv("PROC_NAME", name.c_str(), 1);
    int32_t rc = TubixCreateServer(&param);
    if (previous == nullptr) {
        unsetenv("PROC_NAME");
    } else {
        setenv("PROC_NAME", saved.c_str(), 1);
    }
    return rc;
}

// A slot never used, else the one released longest ago; SLOT_COUNT when all are taken.
size_t PickFreeSlot(const SlotTable& table)
{
    size_t best = SLOT_COUNT;
    for (size_t i = 0; i < SLOT_COUNT; ++i) {
        const Slot& slot = table.slots[i];
        if (slot.target != nullptr) {
            continue;
        }
        if (slot.key.empty()) {
            return i;
        }
        if (best == SLOT_COUNT || slot.releasedAt < table.slots[best].releasedAt) {
            best = i;
        }
    }
    return best;
}

} // namespace

bool BindServer(const std::string& name, ServerCallbacks* target, std::string& error)
{
    if (name.empty() || target == nullptr) {
        error = "an owner service needs a name";
        return false;
    }
    std::string key = ServerKey(name);
    SlotTable& table = Table();
    std::unique_lock<std::shared_mutex> guard(table.mutex);
    for (Slot& slot : table.slots) {
        if (slot.key != key) {
            continue;
        }
        if (slot.target != nullptr) {
            error = "\"" + name + "\" is already played by another session of this process";
            return false;
        }
        slot.target = target;
        return true;
    }
    size_t index = PickFreeSlot(table);
    if (index == SLOT_COUNT) {
        error = "all " + std::to_string(SLOT_COUNT) + " owner servers of this process are in use";
        return false;
    }
    int32_t rc = CreateServerAs(name, Params()[index]);
    if (rc != 0) {
        error = "cannot serve as \"" + name + "\": TubixCreateServer returned " + std::to_string(rc);
        return false;
    }
    table.slots[index].key = key;
    table.slots[index].target = target;
    return true;
}

void UnbindServer(ServerCallbacks* target)
{
    SlotTable& table = Table();
    std::unique_lock<std::shared_mutex> guard(table.mutex);
    for (Slot& slot : table.slots) {
        if (slot.target == target) {
            slot.target = nullptr;
            slot.releasedAt = ++table.clock;
        }
    }
}

} // namespace Client
} // namespace Stavik
