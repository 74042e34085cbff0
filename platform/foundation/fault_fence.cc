#include "platform/foundation/fault_fence.h"

#include <csetjmp>
#include <csignal>

#include <atomic>
#include <mutex>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KWQ_LEAK_CHECKED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KWQ_LEAK_CHECKED 1
#endif
#ifdef KWQ_LEAK_CHECKED
#include <sanitizer/lsan_interface.h>
#endif

namespace kwq::platform {
namespace {

// Where the faulting thread jumps back to; null outside a fence. Initial-exec TLS: the handler
// also reads it on threads that never entered a fence (a fault elsewhere), and must not make
// the dynamic loader allocate there, as it would for a dlopen'ed library's TLS.
__attribute__((tls_model("initial-exec"))) thread_local sigjmp_buf* tFence = nullptr;

struct sigaction gPreviousSegv, gPreviousBus;
std::atomic<uint64_t> gFaults{0};

void passOn(int signal, siginfo_t* info, void* context) {
  const struct sigaction& previous = signal == SIGSEGV ? gPreviousSegv : gPreviousBus;
  if (previous.sa_flags & SA_SIGINFO) {
    if (previous.sa_sigaction) {
      previous.sa_sigaction(signal, info, context);
      return;
    }
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(signal);
    return;
  }
  // The default action: put it back and return, so the faulting instruction runs again and
  // the process ends as it would have without the fence (with its core dump).
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  sigaction(signal, &fallback, nullptr);
}

void onFault(int signal, siginfo_t* info, void* context) {
  if (sigjmp_buf* fence = tFence) {
    tFence = nullptr;
    gFaults.fetch_add(1, std::memory_order_relaxed);
    siglongjmp(*fence, 1);
  }
  passOn(signal, info, context);
}

void install() {
  struct sigaction action {};
  action.sa_sigaction = onFault;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSEGV, &action, &gPreviousSegv);
  sigaction(SIGBUS, &action, &gPreviousBus);
}

// Under the leak checker, what a fenced call allocates is not counted as leaked: a fault
// leaves it unfreed by design, and the fenced code is a third party's.
struct LeaksIgnored {
#ifdef KWQ_LEAK_CHECKED
  LeaksIgnored() {
    __lsan_disable();
  }
  ~LeaksIgnored() {
    __lsan_enable();
  }
#endif
};

}  // namespace

bool runFenced(const std::function<void()>& work) {
  static std::once_flag installed;
  std::call_once(installed, install);
  sigjmp_buf* const outer = tFence;  // a fence may run inside another
  [[maybe_unused]] const LeaksIgnored leaksIgnored{};
  sigjmp_buf fence;
  // The signal mask is saved so that leaving by the handler unblocks the fault signal again.
  if (sigsetjmp(fence, 1) != 0) {
    tFence = outer;
    return false;
  }
  tFence = &fence;
  work();
  tFence = outer;
  return true;
}

uint64_t fencedFaultCount() {
  return gFaults.load(std::memory_order_relaxed);
}

}  // namespace kwq::platform
