// mpi_group: the processes of an MPI job sharing one run (quolvent-mpi).
// Only quolvent-mpi links this; the libraries below know it as a run_group
// and a run_hook.
//
// How a stop ends every process: every step the processes take together
// (run_group) begins with a vote, an allreduce of each one's state. A process
// that stops unwinds to its entry and there (settle) first tells every other
// process that it stopped (a notice, point to point), then takes part in the
// vote that the others take at their next common step. A process in a long
// phase (the row loops, the writing of the matrix file, the wait for the
// others' rows) looks for notices at its checkpoints, at most every 20 ms,
// and unwinds too. After the vote every process knows that the run stops;
// the report of the lowest process that stopped of itself goes to the first,
// which delivers it, and every process ends with its exit status, after the
// messages still under way are taken in. No process waits for one that will
// never come, and the run has one report.
//
// The progress line: each process sends the first its count of rows at each
// twentieth of its own rows; the first adds them to its own and draws the
// line as one process would. The lines a process's rows write to its log (a
// cell set to zero) go to the first's log when the rows are done, process
// after process: the order of the data, as one thread would write them.
#pragma once

#include <mpi.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/run_hook.hpp"
#include "run/run_group.hpp"

namespace quolvent {

class mpi_group final : public run_group, public run_hook {
 public:
  // world: the job's processes; thread_level: the level of thread support
  // MPI_Init_thread gave. On the thread that initialised MPI.
  mpi_group(MPI_Comm world, int thread_level);
  mpi_group(const mpi_group&) = delete;
  mpi_group& operator=(const mpi_group&) = delete;
  ~mpi_group() override;

  // run_group
  int rank() const override { return rank_; }
  int ranks() const override { return size_; }
  run_hook* hook() override { return this; }
  std::string banner_line() const override;
  std::FILE* side_log() override { return side_log_; }
  row_range rows(int32_t ndata) override;
  void agree() override;
  void share_thresholds(compression& c) override;
  void reduce_sums(exact_sums& sums) override;
  int64_t total(int64_t v) override;
  void gather_rows(std::vector<double>& v, row_range rows) override;
  std::unique_ptr<streamed_matrix> open_streamed_matrix(output_file* file, const survey& s,
                                                        const compression& c) override;
  void write_matrix(output_file* file, const survey& s, const compression& c,
                    matrix_store& store, row_range rows,
                    const std::vector<double>& squared_sensitivity, const run_log& out,
                    streamed_matrix* streamed) override;
  stop settle(const stop& s) override;

  // run_hook
  void checkpoint() override;
  void rows_begin(std::FILE* log) override;
  int32_t rows_done(int32_t local) override;
  void rows_finished(int32_t local, const std::function<void(int32_t)>& show,
                     std::FILE* log) override;

 private:
  enum vote_value : int { fine = 0, halted = 1, stopped = 2 };

  MPI_Comm comm_ = MPI_COMM_NULL;  // the steps taken together
  MPI_Comm ctl_ = MPI_COMM_NULL;   // notices and progress counts
  MPI_Datatype cell_type_ = MPI_DATATYPE_NULL;
  MPI_Op merge_op_ = MPI_OP_NULL;
  int rank_ = 0, size_ = 1;
  bool any_thread_ = false;  // MPI may be called from any thread, one at a time
  std::thread::id main_thread_;
  std::mutex lock_;          // one MPI call at a time

  // A stop elsewhere: a notice came, or a vote said so.
  std::atomic<bool> halting_{false};
  bool voted_stop_ = false;  // the vote that found the stop was taken
  int notices_received_ = 0;
  std::atomic<int64_t> next_poll_ns_{0};

  // Progress of the current loop.
  int32_t ndata_ = 0;
  std::vector<int32_t> block_rows_;   // rows of each process
  std::vector<int32_t> remote_done_;  // the first: each process's count
  int32_t remote_sum_ = 0;
  int32_t last_step_sent_ = -1;
  int progress_sent_ = 0, progress_received_ = 0;
  // The lines of this process's rows (not the first): its log from here on.
  std::FILE* side_log_ = nullptr;
  long log_mark_ = 0;
  int logs_sent_ = 0, logs_received_ = 0;

  // Sends under way (notices, counts, lines), their buffers kept alive till
  // done.
  std::deque<int32_t> send_buffers_;
  std::deque<std::string> send_texts_;
  std::vector<MPI_Request> sends_;

  bool may_call() const;
  int vote(int mine);
  void begin_step();
  // broadcast_text: the first process's text, on every process.
  std::string broadcast_text(std::string text);
  // receive_small: the next waiting message of tag (one int32), if any.
  bool receive_small(int tag, int32_t& value, int& source);
  void poll_notices();
  void poll_progress();
  void send_small(int32_t value, int dest, int tag);
  bool sends_done();
  void wait_polling(const std::function<bool()>& done);
  void drain(int notices_expected, int progress_expected, int logs_expected);
  bool take_log(int from, std::FILE* log);
};

}  // namespace quolvent
