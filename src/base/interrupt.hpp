// interrupt_watch: SIGINT, SIGTERM and SIGHUP turned into a stop of the run.
// A signal that ended the process at once would leave the outputs half
// written; instead the run blocks these signals for its length and looks for
// one at its checkpoints (each row, each record of the matrix file, each new
// phase), so that the stop unwinds and every unfinished output is removed.
#pragma once

#include <csignal>
#include <string>
#include <string_view>

namespace quolvent {

class interrupt_watch {
 public:
  // On the thread that runs the run, before any worker thread starts (the
  // workers inherit the mask): blocks each of SIGINT, SIGTERM and SIGHUP that
  // is neither ignored (nohup, a background job of a script) nor blocked by
  // the caller already, and likewise SIGXFSZ, so that a write past the file
  // size limit fails with its error (reported) instead of ending the process.
  interrupt_watch();
  interrupt_watch(const interrupt_watch&) = delete;
  interrupt_watch& operator=(const interrupt_watch&) = delete;
  // Takes the SIGXFSZ that the run's own writes raised, and gives the thread
  // its mask back: an interrupt that came after the last checkpoint is
  // delivered then, as it would have been without the run.
  ~interrupt_watch();

  // check: from any thread of the run. Returns when no watched signal is
  // pending.
  // Fails: a pending signal N is taken and becomes a stop with exit status
  // 128 + N, its report naming the signal and the phase.
  void check(std::string_view phase) const;

 private:
  sigset_t watched_;  // the interrupts looked for
  sigset_t blocked_;  // what this watch added to the mask
  sigset_t saved_;    // the thread's mask before
  bool any_ = false;
};

// signal_name: "SIGINT", "SIGTERM", "SIGHUP", or "signal N" for another.
std::string signal_name(int sig);

}  // namespace quolvent
