// For tests only.
#pragma once

namespace VellService {

// Makes the process's device center as new: no socket, no clients, no observers, nothing queued. The calling
// thread becomes the center's. No other thread may use the center meanwhile.
void resetCenterForTesting();

} // namespace VellService
