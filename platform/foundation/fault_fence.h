#pragma once

// A fence around third-party decoders that are known to read out of bounds on some malformed
// input. Debian 12's zxing-cpp (1.4) is one: a PDF417 symbol whose row indicators promise fewer
// codewords than its error correction takes leads its Reed-Solomon step to index its tables
// with a negative value, which reads a wild address and ends the process on a camera frame
// that merely looks like a damaged symbol. Newer zxing releases check this; until Debian ships
// one, the code reader runs zxing inside this fence.
//
// Only reads of unmapped memory are caught (SIGSEGV, SIGBUS on the calling thread while it is
// inside the fence). The interrupted call's heap allocations are leaked, and nothing that
// holds a lock may run inside. Faults anywhere else go to the handler that was installed
// before the fence's (a crash reporter, a sanitizer, or the default: the process ends).

#include <cstdint>
#include <functional>

namespace kwq::platform {

/// Runs `work` on the calling thread. Returns false, without finishing `work`, when it faults;
/// true otherwise. `work` must not throw out, must not take locks and must keep everything it
/// builds in objects it owns (whatever it built is dropped unfreed on a fault). The first call
/// installs the process's SIGSEGV/SIGBUS handler; a host that installs its own afterwards
/// takes faults back from the fence. Thread: any; fences on different threads are independent.
bool runFenced(const std::function<void()>& work);

/// How many fenced calls have faulted in this process.
uint64_t fencedFaultCount();

}  // namespace kwq::platform
