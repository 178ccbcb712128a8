// run_group: the processes that share one run. The plain program is a group
// of one (solo_group); quolvent-mpi hands the driver a group over MPI
// (src/run/mpi), so that nothing below the driver, and nothing the plain
// program links, knows how processes talk.
//
// The first process (rank 0) writes the screen, the log and the text
// outputs; every process computes and holds the rows of its own block of
// data; the matrix file is written by all of them. A stop on any process
// ends every process, and its report is delivered once, by the first.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "base/channels.hpp"
#include "base/exact_sum.hpp"
#include "base/row_range.hpp"
#include "base/run_hook.hpp"
#include "base/stop.hpp"
#include "model/model.hpp"
#include "output/matrix_file.hpp"
#include "output/ordered_matrix.hpp"
#include "output/output_file.hpp"
#include "output/run_folder.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

// halt: the stop of a process that ends because another one stopped: it
// carries no report; the run's report comes from the process that stopped.
class halt : public stop {};

class run_group {
 public:
  virtual ~run_group() = default;

  virtual int rank() const = 0;
  virtual int ranks() const = 0;
  // leads: the process that writes the screen, the log and the text outputs.
  bool leads() const { return rank() == 0; }
  // hook: what this process's checkpoints and progress lines consult
  // (nullptr: nothing).
  virtual run_hook* hook() = 0;
  // banner_line: the line of the banner after the thread line ("": none).
  virtual std::string banner_line() const = 0;
  // side_log: where a process other than the first writes its log (the
  // group keeps it; its rows' lines go on to the first process's log).
  virtual std::FILE* side_log() = 0;
  // rows: the data of this process among ndata, the same in every row loop
  // of the run.
  virtual row_range rows(int32_t ndata) { return block_of(ndata, rank(), ranks()); }

  // Steps every process takes together, in the same order. Each begins with
  // a check that no process has stopped.
  // Fails: a stop on another process: a halt.
  //   agree: every process has come this far.
  virtual void agree() = 0;
  //   share_thresholds: the thresholds (and kept counts) of the first
  //   process's estimate in c, on every process.
  virtual void share_thresholds(compression& c) = 0;
  //   reduce_sums: on the first process, the sums of every process's rows;
  //   on the others, sums as they were.
  virtual void reduce_sums(exact_sums& sums) = 0;
  //   total: v summed over the processes, on every process.
  virtual int64_t total(int64_t v) = 0;
  //   gather_rows: on the first process, v (ndata values) completed with the
  //   values of every process's rows; each process's own at its rows.
  virtual void gather_rows(std::vector<double>& v, row_range rows) = 0;
  //   open_streamed_matrix: before the rows of an uncompressed run, the
  //   matrix file at path that the rows go to as they are made: its
  //   temporary file made by the first process, with records 1 to 6, and
  //   joined by every process.
  virtual std::unique_ptr<streamed_matrix> open_streamed_matrix(output_file* file,
                                                                const survey& s,
                                                                const compression& c) = 0;
  //   open_ordered_matrix: before the rows of a compressed run, its matrix
  //   file at path opened in outputs, records 1 to 6 written, for the
  //   records to go in as the rows are made (release: each freed from the
  //   store once written); nullptr where the records are written after the
  //   rows, by write_matrix. A group of several processes keeps to that:
  //   each process's place in the file follows from the sizes of every
  //   earlier process's records, known only when they are all made.
  virtual std::unique_ptr<ordered_matrix> open_ordered_matrix(output_set&, const std::string&,
                                                              const survey&, const compression&,
                                                              matrix_store&, bool) {
    return nullptr;
  }
  //   write_matrix: the matrix file written (as the function of that name):
  //   records 1 to 6 and the last by the first process, the rows of each
  //   process by that process; squared_sensitivity is read on the first process only.
  //   full_rows freed. With `streamed` (from open_streamed_matrix), whose
  //   rows are all in it: the last record, every process's part on the
  //   device, and the file put in place.
  virtual void write_matrix(output_file* file, const survey& s, const compression& c,
                            matrix_store& store, row_range rows,
                            const std::vector<double>& squared_sensitivity, const run_log& out,
                            streamed_matrix* streamed) = 0;

  // settle: on every process, after a stop unwound it (s: its stop, or a
  // halt). Returns the stop this process delivers: on the first process the
  // run's report (the stop of the lowest process that stopped of itself), on
  // the others the same exit status without words. Every process comes here
  // before it ends.
  virtual stop settle(const stop& s) = 0;
};

// solo_group: a run of one process.
class solo_group : public run_group {
 public:
  int rank() const override { return 0; }
  int ranks() const override { return 1; }
  run_hook* hook() override { return nullptr; }
  std::string banner_line() const override { return {}; }
  std::FILE* side_log() override { return nullptr; }
  void agree() override {}
  void share_thresholds(compression&) override {}
  void reduce_sums(exact_sums&) override {}
  int64_t total(int64_t v) override { return v; }
  void gather_rows(std::vector<double>&, row_range) override {}
  std::unique_ptr<streamed_matrix> open_streamed_matrix(output_file* file, const survey& s,
                                                        const compression& c) override;
  std::unique_ptr<ordered_matrix> open_ordered_matrix(output_set& outputs, const std::string& path,
                                                      const survey& s, const compression& c,
                                                      matrix_store& store, bool release) override;
  void write_matrix(output_file* file, const survey& s, const compression& c,
                    matrix_store& store, row_range rows,
                    const std::vector<double>& squared_sensitivity, const run_log& out,
                    streamed_matrix* streamed) override;
  stop settle(const stop& s) override { return s; }
};

}  // namespace quolvent
