// Media thread priority on Windows: the multimedia class scheduler's
// "Pro Audio" task, the class the system's own audio engine threads use.
#include <windows.h>
#include <avrt.h>

#include "media/rtp/thread_priority.h"

namespace kelsip {

bool MediaThreadPriority::raise() {
    if (saved_.raised) return true;
    DWORD taskIndex = 0;
    const HANDLE task = ::AvSetMmThreadCharacteristicsW(L"Pro Audio", &taskIndex);
    if (task == nullptr) return false;
    saved_.handle = reinterpret_cast<intptr_t>(task);
    saved_.raised = true;
    return true;
}

void MediaThreadPriority::revert() {
    if (!saved_.raised) return;
    (void)::AvRevertMmThreadCharacteristics(reinterpret_cast<HANDLE>(saved_.handle));
    saved_ = Saved{};
}

}  // namespace kelsip
