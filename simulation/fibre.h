#ifndef MEDIAD_SIMULATION_FIBRE_H
#define MEDIAD_SIMULATION_FIBRE_H

#include <ucontext.h>

#include <cstddef>
#include <functional>

namespace simulation {

// A thread of the daemon without a thread of the process: a stack of its own that runs until it pauses. Only the world's
// stack resumes fibres; a fibre never resumes another one. The sanitizers are told of every change of stacks.
class Fibre {
public:
    explicit Fibre(std::function<void()> body);
    // Only one that has ended, or that was never resumed.
    ~Fibre();
    Fibre(const Fibre&) = delete;
    Fibre& operator=(const Fibre&) = delete;

    // On the world's stack: runs the fibre until it pauses or ends.
    void resume();
    // On the fibre's own stack: goes back to the world.
    void pause();
    bool isDone() const { return _done; }

private:
    static void enter(unsigned int high, unsigned int low);
    void run();

    std::function<void()> _body;
    bool _done = false;
    char* _stack;
    ucontext_t _own;
    ucontext_t _world;
    // What the sanitizers want to know.
    [[maybe_unused]] void* _ownFake = nullptr;
    [[maybe_unused]] void* _worldFake = nullptr;
    [[maybe_unused]] const void* _worldBottom = nullptr;
    [[maybe_unused]] std::size_t _worldSize = 0;
    [[maybe_unused]] void* _ownThread = nullptr;
    [[maybe_unused]] void* _worldThread = nullptr;
};

} // namespace simulation

#endif
