// run_hook: what a run shared by several processes adds to the checkpoints
// and the progress lines of each of them; the plain program has none. The
// layers that compute know only this, never how the processes talk.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>

namespace quolvent {

class run_hook {
 public:
  virtual ~run_hook() = default;
  // checkpoint: at each checkpoint of the run, from any thread.
  // Fails: a stop that another process of the run found ends this one here
  // too, with a stop that carries no report of its own.
  virtual void checkpoint() = 0;
  // rows_begin: the rows of a loop begin here; log: this process's log
  // (nullptr: none), whose lines from now to the end of the rows are the
  // rows' own.
  virtual void rows_begin(std::FILE* log) = 0;
  // rows_done: this process has finished `local` rows of the current loop
  // (from any thread, one at a time).
  // Returns: the rows all the run's processes have finished, as far as this
  // process knows.
  virtual int32_t rows_done(int32_t local) = 0;
  // rows_finished: after this process's rows of the loop, all `local` of
  // them. Returns when every process has finished its rows, show(count of
  // all) called as their counts come in; the lines the other processes'
  // rows wrote to their logs are then in this one's log (log), the first
  // process's first, as one process would have written them.
  // Fails: as checkpoint.
  virtual void rows_finished(int32_t local, const std::function<void(int32_t)>& show,
                             std::FILE* log) = 0;
};

}  // namespace quolvent
