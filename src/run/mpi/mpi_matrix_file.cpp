// The matrix file written by the processes of an MPI job together.
//
// The first process has made the temporary file beside the matrix file's
// name (output_file: the same name, permissions and clean-up as the plain
// program) and tells the others its name. Each process opens it on its own
// (MPI_COMM_SELF), so that a stop on one never leaves another waiting in a
// collective close, and writes its row records at its offset: the head
// records and an exclusive prefix sum of the row records' sizes. The first
// process writes records 1 to 6 and the last. When every process has synced
// and closed its part, the first finishes it; the driver puts it in place
// with the run's other outputs.
#include <cerrno>

#include "output/matrix_file.hpp"
#include "output/output_file.hpp"
#include "run/mpi/mpi_group.hpp"

namespace quolvent {

namespace {

// errno_of: the system's error for an MPI error of a file operation.
int errno_of(int mpi_err) {
  int cls = 0;
  MPI_Error_class(mpi_err, &cls);
  switch (cls) {
    case MPI_ERR_NO_SPACE: return ENOSPC;
    case MPI_ERR_QUOTA: return EDQUOT;
    case MPI_ERR_ACCESS: return EACCES;
    case MPI_ERR_READ_ONLY: return EROFS;
    case MPI_ERR_NO_SUCH_FILE: return ENOENT;
    case MPI_ERR_FILE_EXISTS: return EEXIST;
    case MPI_ERR_BAD_FILE: return EINVAL;
    default: return EIO;
  }
}

// part_file: this process's handle of the file, closed however the run ends.
class part_file {
 public:
  part_file(const std::string& temp, const std::string& name) : name_(name) {
    const int err =
        MPI_File_open(MPI_COMM_SELF, temp.c_str(), MPI_MODE_WRONLY, MPI_INFO_NULL, &fh_);
    if (err != MPI_SUCCESS) {
      fh_ = MPI_FILE_NULL;
      cannot_write(name_, errno_of(err));
    }
  }
  part_file(const part_file&) = delete;
  part_file& operator=(const part_file&) = delete;
  ~part_file() {
    if (fh_ != MPI_FILE_NULL) MPI_File_close(&fh_);
  }
  MPI_File handle() const { return fh_; }
  const std::string& name() const { return name_; }
  // finish: every byte on the device, the handle closed. Fails: cannot_write.
  void finish() {
    int err = MPI_File_sync(fh_);
    if (err == MPI_SUCCESS) err = MPI_File_close(&fh_);
    fh_ = MPI_FILE_NULL;
    if (err != MPI_SUCCESS) cannot_write(name_, errno_of(err));
  }

 private:
  std::string name_;
  MPI_File fh_ = MPI_FILE_NULL;
};

// part_out: records written at the file's offsets from `at` on, through a
// buffer; a block larger than the buffer goes straight to the file.
class part_out : public record_out {
 public:
  part_out(part_file& f, MPI_Offset at) : f_(f), at_(at) { buf_.reserve(capacity); }
  void write(const void* p, std::size_t bytes) override {
    if (buf_.size() + bytes > capacity) flush();
    if (bytes >= capacity) {
      put(static_cast<const char*>(p), bytes);
      return;
    }
    buf_.insert(buf_.end(), static_cast<const char*>(p), static_cast<const char*>(p) + bytes);
  }
  void flush() {
    put(buf_.data(), buf_.size());
    buf_.clear();
  }

 private:
  static constexpr std::size_t capacity = std::size_t{8} << 20;
  part_file& f_;
  MPI_Offset at_;
  std::vector<char> buf_;

  void put(const char* p, std::size_t bytes) {
    while (bytes > 0) {
      const int chunk = static_cast<int>(std::min<std::size_t>(bytes, std::size_t{1} << 30));
      MPI_Status st;
      const int err = MPI_File_write_at(f_.handle(), at_, p, chunk, MPI_BYTE, &st);
      int written = 0;
      if (err == MPI_SUCCESS) MPI_Get_count(&st, MPI_BYTE, &written);
      if (err != MPI_SUCCESS) cannot_write(f_.name(), errno_of(err));
      if (written != chunk) cannot_write(f_.name(), ENOSPC);
      at_ += chunk;
      p += chunk;
      bytes -= static_cast<std::size_t>(chunk);
    }
  }
};

}  // namespace

std::string mpi_group::broadcast_text(std::string text) {
  std::lock_guard<std::mutex> hold(lock_);
  int len = static_cast<int>(text.size());
  MPI_Bcast(&len, 1, MPI_INT, 0, comm_);
  text.resize(static_cast<std::size_t>(len));
  MPI_Bcast(text.data(), len, MPI_CHAR, 0, comm_);
  return text;
}

std::unique_ptr<streamed_matrix> mpi_group::open_streamed_matrix(output_file* whole,
                                                                 const survey& s,
                                                                 const compression& c) {
  // The first process makes the file and tells the others its temporary
  // name; each joins it with a handle of its own, and its threads write its
  // rows at their places (pwrite): the places are fixed, so no process waits
  // for another's rows.
  begin_step();
  std::unique_ptr<streamed_matrix> file;
  if (rank_ == 0) {
    file = std::make_unique<streamed_matrix>(*whole, s, c);
    file->write_head(1);
  }
  begin_step();
  const std::string temp = broadcast_text(rank_ == 0 ? whole->temporary() : std::string());
  const std::string path = broadcast_text(rank_ == 0 ? whole->name() : std::string());
  if (rank_ != 0) file = std::make_unique<streamed_matrix>(path, temp, s, c);
  // Every process holds the file open before any may stop and remove it.
  begin_step();
  return file;
}

void mpi_group::write_matrix(output_file* file, const survey& s, const compression& c,
                             matrix_store& store, row_range rows,
                             const std::vector<double>& squared_sensitivity, const run_log& out,
                             streamed_matrix* streamed) {
  say_writing_matrix(out);
  if (streamed) {
    if (rank_ == 0) streamed->write_tail(squared_sensitivity);
    streamed->finish_part();
    // Every part is on the device: the first process finishes the file.
    begin_step();
    if (rank_ == 0) streamed->close(out);
    return;
  }
  check_matrix_arrays(s, c, store, rows, rank_ == 0 ? &squared_sensitivity : nullptr);
  const int64_t head = matrix_head_bytes(s, c);
  const int64_t mine = stored_rows_bytes(s, c, store, rows);

  // Where each process's rows go, and where the last record goes.
  begin_step();
  int64_t before = 0, all_rows = 0;
  {
    std::lock_guard<std::mutex> hold(lock_);
    MPI_Exscan(&mine, &before, 1, MPI_INT64_T, MPI_SUM, comm_);
    if (rank_ == 0) before = 0;
    MPI_Allreduce(&mine, &all_rows, 1, MPI_INT64_T, MPI_SUM, comm_);
  }

  // The temporary file, made by the first process, and the name it will have.
  begin_step();
  const std::string temp = broadcast_text(rank_ == 0 ? file->temporary() : std::string());
  const std::string path = broadcast_text(rank_ == 0 ? file->name() : std::string());

  part_file f(temp, path);
  if (rank_ == 0) {
    part_out to(f, 0);
    write_matrix_head(to, s, c, 1);
    to.flush();
  }
  {
    part_out to(f, static_cast<MPI_Offset>(head + before));
    write_matrix_rows(to, s, c, store, rows, out);
    to.flush();
  }
  // Nothing reads the full matrix after this.
  if (!c.compressed) float_matrix().swap(store.full_rows);
  if (rank_ == 0) {
    part_out to(f, static_cast<MPI_Offset>(head + all_rows));
    write_matrix_tail(to, s, squared_sensitivity);
    to.flush();
  }
  f.finish();

  // Every part is on the device: the first process finishes the file, which
  // waits with the run's other outputs to be put in place.
  begin_step();
  if (rank_ == 0) {
    out.check_interrupt();
    file->finish();
  }
}

}  // namespace quolvent
