// store_sink: the row loops' sink over the run's matrix store. Rows kept
// whole land in full_rows, or, given a streamed matrix file, straight in
// their records of the file (each thread's row buffer written out as the
// row is done); compressed rows go through compress_row into their
// records (given an ordered matrix file, each into the file once every
// earlier datum's is made), with the datum of the test model from the row before and after
// compression and the relative error of the stored row (the compression
// check).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "base/row_range.hpp"
#include "model/model.hpp"
#include "output/matrix_file.hpp"
#include "output/ordered_matrix.hpp"
#include "sens/row_sink.hpp"
#include "wavelet/compression.hpp"

namespace quolvent {

class store_sink : public row_sink {
 public:
  // The survey, the compression record and the store outlive the sink. The
  // store holds the rows of the data of `rows` (every datum by default), the
  // first at 0.
  store_sink(const survey& s, const compression& c, matrix_store& store)
      : store_sink(s, c, store, all_rows(s.obs.ndata)) {}
  store_sink(const survey& s, const compression& c, matrix_store& store, row_range rows)
      : s_(s), c_(c), store_(store), rows_(rows) {}
  // Rows kept whole go to `file`, compressed records to `ordered` (each
  // outlives the sink), as they are made.
  store_sink(const survey& s, const compression& c, matrix_store& store, row_range rows,
             const streamed_matrix* file, ordered_matrix* ordered = nullptr)
      : s_(s), c_(c), store_(store), rows_(rows), file_(file), ordered_(ordered) {}

  void begin(int32_t n, int32_t ndata, const char* alloc_name) override;
  double test_model() const override;
  float* full_column(thread_part& t, int32_t datum) override;
  void full_done(thread_part& t, int32_t datum) override;
  void claim_rows(row_range mine) override;
  std::unique_ptr<thread_part> open_thread() override;
  void put(thread_part& t, int32_t datum, const double* row, double test_datum) override;
  void close_thread(thread_part& t) override;

  // put_record: datum's row compressed elsewhere (on a device), as put would
  // have stored it: its record, moved in; the bound of its error
  // (compress_row's result); the datum of the test model from the row before
  // the weighting; row, the weighted row where exact_error_row(datum) asks
  // for the exact error of the record (else not read, may be nullptr).
  // Fails: a sink of whole rows stops with a text.
  void put_record(thread_part& t, int32_t datum, compressed_row&& rec, double bound,
                  double test_datum, const double* row);

  // After the loop: the total of kept coefficients, the data of the test
  // model from the full rows and from the compressed ones, and each stored
  // row's relative error, by datum (empty when the rows are not compressed;
  // ndata long, set for the data of the sink's rows).
  int64_t nnz() const { return nnz_; }
  const std::vector<double>& data_full() const { return data_full_; }
  const std::vector<double>& data_comp() const { return data_comp_; }
  const std::vector<double>& row_bound() const { return row_bound_; }
  const std::vector<double>& row_exact() const { return row_exact_; }
  // The same, to be completed with the values of other processes' rows.
  std::vector<double>& data_full() { return data_full_; }
  std::vector<double>& data_comp() { return data_comp_; }
  std::vector<double>& row_bound() { return row_bound_; }
  std::vector<double>& row_exact() { return row_exact_; }
  // release_check: frees the arrays of the compression check.
  void release_check();

 private:
  const survey& s_;
  const compression& c_;
  matrix_store& store_;
  row_range rows_;
  const streamed_matrix* file_ = nullptr;
  ordered_matrix* ordered_ = nullptr;
  std::vector<double> test_model_w_, data_full_, data_comp_, row_bound_, row_exact_;
  int64_t nnz_ = 0;
  std::mutex lock_;
};

}  // namespace quolvent
