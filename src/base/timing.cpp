// Phase timing, the banner and the time stamps.
#include "base/timing.hpp"

#include <cmath>
#include <ctime>
#include <omp.h>

#include "base/channels.hpp"
#include "base/format.hpp"
#include "base/text_io.hpp"

namespace quolvent {

namespace {

struct local_clock {
  int year, month, day, hour, minute, second, millis;
};

local_clock now_local() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  std::tm tm{};
  localtime_r(&ts.tv_sec, &tm);
  return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
          static_cast<int>(ts.tv_nsec / 1000000)};
}

}  // namespace

double local_seconds() {
  constexpr int days_before[12] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30};
  const local_clock c = now_local();
  int before = 0;
  for (int i = 0; i < c.month; ++i) before += days_before[i];
  return c.millis * 0.001 + c.second + 60.0 * c.minute + 3600.0 * c.hour +
         86400.0 * (c.day - 1) + 86400.0 * before;
}

std::string timer_line(const std::string& label, double s) {
  // A span across the new year would come out negative: show it as 0.
  if (!(s >= 0.0)) s = 0.0;
  const long long h = static_cast<long long>(s / 3600.0);
  const long long m = static_cast<long long>((s - 3600.0 * static_cast<double>(h)) / 60.0);
  const long long c = static_cast<long long>((s - std::trunc(s)) * 100.0);
  const float hs = 3600.0f * static_cast<float>(h);
  const float ms = 60.0f * static_cast<float>(m);
  const long long q = static_cast<long long>(s - static_cast<double>(hs) - static_cast<double>(ms));
  return fmt_right(rtrim(label), 10) + " cpu time:" + fmt_int(h, 4) + ":" + fmt_int0(m, 2) + ":" +
         fmt_int0(q, 2) + "." + fmt_int0(c, 2);
}

double phase_clock::phase_timer(const std::string& label, int mode, std::FILE* unit,
                                std::FILE* log) {
  const double t = local_seconds();
  if (mode == 0) {
    t_start = t;
    t_last = t;
    return 0.0;
  }
  double s = 0.0;
  if (mode == 1) s = t - t_last;
  else if (mode == -1) s = t - t_start;
  const std::string line = timer_line(label, s);
  put_line(unit, line);
  if (log) put_line(log, line);
  if (unit) std::fflush(unit);
  t_last = t;
  return s >= 0.0 ? s : 0.0;
}

void print_banner(const std::string& name, std::FILE* target, const std::string& after_threads) {
  std::FILE* f = target;
  const int threads = omp_get_max_threads();
  put_line(f, "");
  put_line(f, "Parallelized with OpenMP.  # of threads:" + fmt_int(threads, 3));
  if (!after_threads.empty()) put_line(f, after_threads);
  if (threads > omp_get_num_procs()) {
    put_line(f, "");
    put_line(f, "WARNING: more threads started than processors available.");
    put_line(f, "");
  }
  put_line(f, "");
  put_line(f, "SALVU - Version 5.0 :  " + rtrim(name));
  put_line(f, "   Sensitivity of magnetic data over a 3-D mesh,");
  put_line(f, "   stored with 3-D wavelet compression.");
  put_line(f, "");
}

void print_timestamp(const std::string& message, std::FILE* target) {
  const local_clock c = now_local();
  put_line(target, "");
  put_line(target, rtrim(message) + " " + fmt_int(c.month, 2) + "/" + fmt_int0(c.day, 2) + "/" +
                       fmt_int(c.year, 4) + "  " + fmt_int0(c.hour, 2) + ":" +
                       fmt_int0(c.minute, 2) + ":" + fmt_int0(c.second, 2));
  put_line(target, "");
}

}  // namespace quolvent
