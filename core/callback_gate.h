#ifndef STAVIK_CORE_CALLBACK_GATE_H
#define STAVIK_CORE_CALLBACK_GATE_H

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Stavik {

// Lets the callbacks of a library's threads into an object only while it
// lives. The callbacks hold the gate by shared pointer, so it outlives the
// object; the stop closes it and waits for the callbacks already inside.
class CallbackGate {
public:
    // Runs call unless the gate is closed.
    template <typename Call>
    void Pass(Call&& call)
    {
        if (!Enter()) {
            return;
        }
        Inside inside(*this);
        call();
    }
    // No callback enters from now on; returns once none is inside.
    void Close();

private:
    class Inside {
    public:
        explicit Inside(CallbackGate& gate) : gate_(gate) {}
        ~Inside() { gate_.Leave(); }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

    private:
        CallbackGate& gate_;
    };

    bool Enter();
    void Leave();

    std::mutex mutex_;
    std::condition_variable idle_;
    bool isOpen_ = true;
    uint32_t inside_ = 0;
};

} // namespace Stavik

#endif
