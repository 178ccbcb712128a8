// The processes of an MPI job sharing one run.
#include "run/mpi/mpi_group.hpp"

#include <omp.h>

#include <cstring>
#include <stdexcept>

#include "base/format.hpp"

namespace quolvent {

namespace {

constexpr int tag_notice = 1;    // ctl: a process stopped
constexpr int tag_progress = 2;  // ctl: a process's count of rows
constexpr int tag_report = 3;    // comm: the report of the stop
constexpr int tag_log = 4;       // ctl: the lines a process's rows wrote

// The checkpoints look for notices at most this often.
constexpr int64_t poll_interval_ns = 20'000'000;

int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void pause_briefly() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

// merge_cells: the reduction of exact sums, cell by cell (exact: any order).
void merge_cells(void* in, void* inout, int* len, MPI_Datatype*) {
  exact_merge(static_cast<exact_cell*>(inout), static_cast<const exact_cell*>(in),
              static_cast<std::size_t>(*len > 0 ? *len : 0));
}

// A stop's report as bytes: the status, then each text with its length.
void put_text(std::vector<char>& b, const std::string& t) {
  const uint64_t len = t.size();
  const char* p = reinterpret_cast<const char*>(&len);
  b.insert(b.end(), p, p + sizeof len);
  b.insert(b.end(), t.begin(), t.end());
}

std::vector<char> pack(const stop& s) {
  std::vector<char> b;
  put_text(b, std::to_string(s.status));
  put_text(b, std::to_string(static_cast<int>(s.kind)));
  put_text(b, s.error_text);
  put_text(b, std::to_string(s.screen_lines.size()));
  for (const auto& l : s.screen_lines) put_text(b, l);
  put_text(b, std::to_string(s.log_lines.size()));
  for (const auto& l : s.log_lines) put_text(b, l);
  return b;
}

stop unpack(const std::vector<char>& b) {
  std::size_t at = 0;
  const auto text = [&] {
    uint64_t len = 0;
    if (at + sizeof len > b.size()) throw std::runtime_error("report cut short");
    std::memcpy(&len, b.data() + at, sizeof len);
    at += sizeof len;
    if (len > b.size() - at) throw std::runtime_error("report cut short");
    std::string t(b.data() + at, static_cast<std::size_t>(len));
    at += static_cast<std::size_t>(len);
    return t;
  };
  stop s;
  s.status = std::stoi(text());
  s.kind = static_cast<stop_kind>(std::stoi(text()));
  s.error_text = text();
  for (long n = std::stol(text()); n > 0; --n) s.screen_lines.push_back(text());
  for (long n = std::stol(text()); n > 0; --n) s.log_lines.push_back(text());
  return s;
}

}  // namespace

mpi_group::mpi_group(MPI_Comm world, int thread_level) {
  MPI_Comm_dup(world, &comm_);
  MPI_Comm_dup(world, &ctl_);
  MPI_Comm_rank(comm_, &rank_);
  MPI_Comm_size(comm_, &size_);
  any_thread_ = thread_level >= MPI_THREAD_SERIALIZED;
  main_thread_ = std::this_thread::get_id();
  MPI_Type_contiguous(static_cast<int>(sizeof(exact_cell)), MPI_BYTE, &cell_type_);
  MPI_Type_commit(&cell_type_);
  MPI_Op_create(&merge_cells, 1, &merge_op_);
  block_rows_.assign(static_cast<std::size_t>(size_), 0);
  remote_done_.assign(static_cast<std::size_t>(size_), 0);
  if (rank_ != 0) side_log_ = std::tmpfile();
}

mpi_group::~mpi_group() {
  if (side_log_) std::fclose(side_log_);
  MPI_Op_free(&merge_op_);
  MPI_Type_free(&cell_type_);
  MPI_Comm_free(&ctl_);
  MPI_Comm_free(&comm_);
}

std::string mpi_group::banner_line() const {
  return "MPI processes (ranks):" + fmt_int(size_, 3) +
         ",  threads each:" + fmt_int(omp_get_max_threads(), 3);
}

row_range mpi_group::rows(int32_t ndata) {
  ndata_ = ndata;
  for (int r = 0; r < size_; ++r)
    block_rows_[static_cast<std::size_t>(r)] = block_of(ndata, r, size_).count();
  return block_of(ndata, rank_, size_);
}

bool mpi_group::may_call() const {
  return any_thread_ || std::this_thread::get_id() == main_thread_;
}

int mpi_group::vote(int mine) {
  int all = fine;
  std::lock_guard<std::mutex> hold(lock_);
  MPI_Allreduce(&mine, &all, 1, MPI_INT, MPI_MAX, comm_);
  return all;
}

void mpi_group::begin_step() {
  // A notice already came: the vote is settle's.
  if (halting_) throw halt{};
  if (vote(fine) != fine) {
    voted_stop_ = true;
    halting_ = true;
    throw halt{};
  }
}

bool mpi_group::receive_small(int tag, int32_t& value, int& source) {
  int flag = 0;
  MPI_Status st;
  MPI_Iprobe(MPI_ANY_SOURCE, tag, ctl_, &flag, &st);
  if (!flag) return false;
  source = st.MPI_SOURCE;
  MPI_Recv(&value, 1, MPI_INT32_T, source, tag, ctl_, MPI_STATUS_IGNORE);
  return true;
}

void mpi_group::poll_notices() {
  int32_t v = 0;
  int source = 0;
  while (receive_small(tag_notice, v, source)) {
    ++notices_received_;
    halting_ = true;
  }
}

void mpi_group::poll_progress() {
  int32_t v = 0;
  int source = 0;
  while (receive_small(tag_progress, v, source)) {
    ++progress_received_;
    int32_t& seen = remote_done_[static_cast<std::size_t>(source)];
    remote_sum_ += v - seen;
    seen = v;
  }
}

void mpi_group::send_small(int32_t value, int dest, int tag) {
  send_buffers_.push_back(value);
  MPI_Request r;
  MPI_Isend(&send_buffers_.back(), 1, MPI_INT32_T, dest, tag, ctl_, &r);
  sends_.push_back(r);
}

bool mpi_group::sends_done() {
  if (sends_.empty()) return true;
  int flag = 0;
  MPI_Testall(static_cast<int>(sends_.size()), sends_.data(), &flag, MPI_STATUSES_IGNORE);
  if (!flag) return false;
  sends_.clear();
  send_buffers_.clear();
  send_texts_.clear();
  return true;
}

bool mpi_group::take_log(int from, std::FILE* log) {
  int flag = 0;
  MPI_Status st;
  MPI_Iprobe(from, tag_log, ctl_, &flag, &st);
  if (!flag) return false;
  int count = 0;
  MPI_Get_count(&st, MPI_CHAR, &count);
  std::string text(static_cast<std::size_t>(count), '\0');
  MPI_Recv(text.data(), count, MPI_CHAR, st.MPI_SOURCE, tag_log, ctl_, MPI_STATUS_IGNORE);
  ++logs_received_;
  if (log && !text.empty()) std::fwrite(text.data(), 1, text.size(), log);
  return true;
}

void mpi_group::agree() { begin_step(); }

void mpi_group::share_thresholds(compression& c) {
  begin_step();
  double t[2] = {c.threshold_surface, c.threshold_borehole};
  int64_t k[2] = {c.kept_surface, c.kept_borehole};
  std::lock_guard<std::mutex> hold(lock_);
  MPI_Bcast(t, 2, MPI_DOUBLE, 0, comm_);
  MPI_Bcast(k, 2, MPI_INT64_T, 0, comm_);
  c.threshold_surface = t[0];
  c.threshold_borehole = t[1];
  c.kept_surface = k[0];
  c.kept_borehole = k[1];
}

void mpi_group::reduce_sums(exact_sums& sums) {
  begin_step();
  std::lock_guard<std::mutex> hold(lock_);
  const int n = static_cast<int>(sums.size());
  if (rank_ == 0)
    MPI_Reduce(MPI_IN_PLACE, sums.data(), n, cell_type_, merge_op_, 0, comm_);
  else
    MPI_Reduce(sums.data(), nullptr, n, cell_type_, merge_op_, 0, comm_);
}

int64_t mpi_group::total(int64_t v) {
  begin_step();
  int64_t all = 0;
  std::lock_guard<std::mutex> hold(lock_);
  MPI_Allreduce(&v, &all, 1, MPI_INT64_T, MPI_SUM, comm_);
  return all;
}

void mpi_group::gather_rows(std::vector<double>& v, row_range rows) {
  begin_step();
  std::vector<int> counts(static_cast<std::size_t>(size_)), at(static_cast<std::size_t>(size_));
  for (int r = 0; r < size_; ++r) {
    const row_range b = block_of(ndata_, r, size_);
    counts[static_cast<std::size_t>(r)] = b.count();
    at[static_cast<std::size_t>(r)] = b.first;
  }
  if (v.size() < static_cast<std::size_t>(ndata_)) throw std::length_error("gather_rows");
  std::lock_guard<std::mutex> hold(lock_);
  if (rank_ == 0)
    MPI_Gatherv(MPI_IN_PLACE, 0, MPI_DOUBLE, v.data(), counts.data(), at.data(), MPI_DOUBLE, 0,
                comm_);
  else
    MPI_Gatherv(v.data() + rows.first, rows.count(), MPI_DOUBLE, nullptr, nullptr, nullptr,
                MPI_DOUBLE, 0, comm_);
}

void mpi_group::checkpoint() {
  if (halting_) throw halt{};
  if (!may_call()) return;
  const int64_t now = now_ns();
  if (now < next_poll_ns_.load(std::memory_order_relaxed)) return;
  {
    std::unique_lock<std::mutex> hold(lock_, std::try_to_lock);
    if (!hold.owns_lock()) return;
    next_poll_ns_.store(now + poll_interval_ns, std::memory_order_relaxed);
    poll_notices();
    if (rank_ == 0) poll_progress();
  }
  if (halting_) throw halt{};
}

void mpi_group::rows_begin(std::FILE* log) {
  if (rank_ == 0 || !log) return;
  std::fflush(log);
  log_mark_ = std::ftell(log);
}

int32_t mpi_group::rows_done(int32_t local) {
  if (!may_call()) return rank_ == 0 ? local + remote_sum_ : local;
  std::lock_guard<std::mutex> hold(lock_);
  if (rank_ == 0) {
    poll_progress();
    return local + remote_sum_;
  }
  // A count at each twentieth of this process's rows, the last one always.
  const int32_t mine = block_rows_[static_cast<std::size_t>(rank_)];
  const int32_t step = mine > 0 ? static_cast<int32_t>(int64_t{local} * 20 / mine) : 20;
  if (step != last_step_sent_) {
    send_small(local, 0, tag_progress);
    ++progress_sent_;
    last_step_sent_ = step;
  }
  return local;
}

void mpi_group::rows_finished(int32_t local, const std::function<void(int32_t)>& show,
                              std::FILE* log) {
  if (rank_ == 0) {
    int32_t expected = 0;
    for (int r = 1; r < size_; ++r) expected += block_rows_[static_cast<std::size_t>(r)];
    for (;;) {
      int32_t all = 0;
      bool done = false;
      {
        std::lock_guard<std::mutex> hold(lock_);
        poll_notices();
        poll_progress();
        all = local + remote_sum_;
        done = remote_sum_ >= expected;
      }
      show(all);
      if (halting_) throw halt{};
      if (done) break;
      pause_briefly();
    }
    // The next loop counts from 0.
    std::fill(remote_done_.begin(), remote_done_.end(), 0);
    remote_sum_ = 0;
    // The lines of the other processes' rows, in the order of their data.
    for (int r = 1; r < size_; ++r) {
      for (;;) {
        bool got = false;
        {
          std::lock_guard<std::mutex> hold(lock_);
          poll_notices();
          got = take_log(r, log);
        }
        if (halting_) throw halt{};
        if (got) break;
        pause_briefly();
      }
    }
    if (log) std::fflush(log);
    return;
  }
  {
    std::lock_guard<std::mutex> hold(lock_);
    // The last count, where the threads of the loop could not send it.
    if (block_rows_[static_cast<std::size_t>(rank_)] > 0 && last_step_sent_ != 20) {
      send_small(local, 0, tag_progress);
      ++progress_sent_;
    }
    // The lines the rows wrote here, for the first process's log.
    std::string text;
    if (log) {
      std::fflush(log);
      const long end = std::ftell(log);
      if (end > log_mark_ && std::fseek(log, log_mark_, SEEK_SET) == 0) {
        text.resize(static_cast<std::size_t>(end - log_mark_));
        text.resize(std::fread(text.data(), 1, text.size(), log));
      }
      std::fseek(log, 0, SEEK_END);
    }
    send_texts_.push_back(std::move(text));
    MPI_Request r;
    MPI_Isend(send_texts_.back().data(), static_cast<int>(send_texts_.back().size()), MPI_CHAR, 0,
              tag_log, ctl_, &r);
    sends_.push_back(r);
    ++logs_sent_;
  }
  for (;;) {
    bool done = false;
    {
      std::lock_guard<std::mutex> hold(lock_);
      poll_notices();
      done = sends_done();
    }
    if (halting_) throw halt{};
    if (done) break;
    pause_briefly();
  }
  last_step_sent_ = -1;
}

void mpi_group::drain(int notices_expected, int progress_expected, int logs_expected) {
  while (notices_received_ < notices_expected) {
    int32_t v = 0;
    MPI_Recv(&v, 1, MPI_INT32_T, MPI_ANY_SOURCE, tag_notice, ctl_, MPI_STATUS_IGNORE);
    ++notices_received_;
  }
  while (rank_ == 0 && progress_received_ < progress_expected) {
    int32_t v = 0;
    MPI_Recv(&v, 1, MPI_INT32_T, MPI_ANY_SOURCE, tag_progress, ctl_, MPI_STATUS_IGNORE);
    ++progress_received_;
  }
  while (rank_ == 0 && logs_received_ < logs_expected) {
    MPI_Status st;
    MPI_Probe(MPI_ANY_SOURCE, tag_log, ctl_, &st);
    take_log(st.MPI_SOURCE, nullptr);
  }
}

stop mpi_group::settle(const stop& s) {
  const bool own = dynamic_cast<const halt*>(&s) == nullptr;
  std::lock_guard<std::mutex> hold(lock_);
  // Everyone else looks for this at its checkpoints.
  if (own)
    for (int r = 0; r < size_; ++r)
      if (r != rank_) send_small(0, r, tag_notice);
  // The vote the others take at their next step, unless it was taken.
  if (!voted_stop_) {
    int mine = own ? stopped : halted, all = fine;
    MPI_Allreduce(&mine, &all, 1, MPI_INT, MPI_MAX, comm_);
  }
  // Every process is here now. Who reports, and what is still under way.
  int mine = own ? rank_ : size_, reporter = size_;
  MPI_Allreduce(&mine, &reporter, 1, MPI_INT, MPI_MIN, comm_);
  int noticing = own ? 1 : 0, noticed = 0;
  MPI_Allreduce(&noticing, &noticed, 1, MPI_INT, MPI_SUM, comm_);
  int sent[2] = {progress_sent_, logs_sent_}, sent_all[2] = {0, 0};
  MPI_Reduce(sent, sent_all, 2, MPI_INT, MPI_SUM, 0, comm_);
  drain(noticed - noticing, sent_all[0], sent_all[1]);
  if (!sends_.empty())
    MPI_Waitall(static_cast<int>(sends_.size()), sends_.data(), MPI_STATUSES_IGNORE);
  sends_.clear();
  send_buffers_.clear();
  send_texts_.clear();

  stop result;
  const int root = reporter < size_ ? reporter : 0;
  if (reporter < size_ && reporter != 0) {
    if (rank_ == reporter) {
      const std::vector<char> b = pack(s);
      MPI_Send(b.data(), static_cast<int>(b.size()), MPI_CHAR, 0, tag_report, comm_);
    } else if (rank_ == 0) {
      MPI_Status st;
      MPI_Probe(reporter, tag_report, comm_, &st);
      int count = 0;
      MPI_Get_count(&st, MPI_CHAR, &count);
      std::vector<char> b(static_cast<std::size_t>(count));
      MPI_Recv(b.data(), count, MPI_CHAR, reporter, tag_report, comm_, MPI_STATUS_IGNORE);
      result = unpack(b);
    }
  } else if (rank_ == 0 && reporter == 0) {
    result = s;
  }
  int status = rank_ == root ? s.status : 0;
  MPI_Bcast(&status, 1, MPI_INT, root, comm_);
  if (rank_ != 0) result = stop{};
  result.status = status;
  return result;
}

}  // namespace quolvent
