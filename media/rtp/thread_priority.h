// Raising a media thread's scheduling priority for the time it serves audio.
#pragma once

#include <cstdint>

namespace kelsip {

// Belongs to one thread: `raise` and `revert` (and the destructor, which
// reverts) run on the thread whose priority they change. Best effort: a
// system that refuses leaves the thread as it was.
class MediaThreadPriority {
public:
    MediaThreadPriority() = default;
    ~MediaThreadPriority() { revert(); }
    MediaThreadPriority(const MediaThreadPriority&) = delete;
    MediaThreadPriority& operator=(const MediaThreadPriority&) = delete;

    // True when the calling thread now runs in the system's audio class.
    [[nodiscard]] bool raise();
    // Gives the thread back the scheduling it had before `raise`.
    void revert();

private:
    // What `revert` needs; each platform uses its own fields.
    struct Saved {
        bool raised = false;
        intptr_t handle = 0;  // the multimedia class registration
        int policy = 0;       // the scheduling policy and priority before
        int priority = 0;
    };
    Saved saved_;
};

}  // namespace kelsip
