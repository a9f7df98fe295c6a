// The calling thread's signal mask, changed for a while.
#ifndef ZU_SUPPORT_SIGNAL_MASK_H_
#define ZU_SUPPORT_SIGNAL_MASK_H_

#include <pthread.h>
#include <csignal>

namespace zu {

// Restores the mask that it found.
class SignalMask {
 public:
  // Threads inherit their maker's mask: one of ours that is made under this
  // takes no signal that is meant for the host.
  static SignalMask AllBlocked() {
    sigset_t all;
    sigfillset(&all);
    return SignalMask(SIG_SETMASK, all);
  }
  static SignalMask Unblocked(int signal) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    return SignalMask(SIG_UNBLOCK, one);
  }
  ~SignalMask() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalMask(const SignalMask&) = delete;
  SignalMask& operator=(const SignalMask&) = delete;

 private:
  SignalMask(int how, const sigset_t& signals) {
    ::pthread_sigmask(how, &signals, &before_);
  }

  sigset_t before_;
};

}  // namespace zu

#endif  // ZU_SUPPORT_SIGNAL_MASK_H_
