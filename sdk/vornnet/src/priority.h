// Scheduling priority of the library's threads.
//
// The threads that move bytes (accepting, socket reads and writes) run above the rest of
// the process, so that a client's login is not kept waiting behind the work that other
// clients' messages cause (database round trips, callbacks). Their own work is bounded
// by that slower work: reading pauses while callbacks lag, and replies are written only
// as fast as callbacks make them. Raising needs privilege (or a nice limit that allows
// it); without it the threads keep the process's priority.
#pragma once

namespace vorn {

// Raises the calling thread; reports once per process when that is not permitted.
void RaiseNetworkPriority();
// Puts the calling thread back to the process's priority. A thread inherits the nice
// value of the thread that started it, so threads started from a raised one call this.
void KeepProcessPriority();

}  // namespace vorn
