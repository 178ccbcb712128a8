// quolvent-mpi: one run shared by the processes of an MPI job
// (mpirun -np R quolvent-mpi <control file> [nThreads]).
#include <mpi.h>

#include <csignal>
#include <cstdio>
#include <pthread.h>

#include "run/mpi/mpi_group.hpp"
#include "run/run_driver.hpp"

int main(int argc, char** argv) {
  // The interrupts are held back while MPI starts threads of its own, which
  // keep them held back: a signal then reaches the run's checkpoints, which
  // stop the run in order, rather than a thread of MPI, which would end the
  // process at once. The run's own watch takes them from there.
  sigset_t held, saved;
  sigemptyset(&held);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&held, sig);
  pthread_sigmask(SIG_BLOCK, &held, &saved);
  int provided = MPI_THREAD_SINGLE;
  MPI_Init_thread(&argc, &argv, MPI_THREAD_SERIALIZED, &provided);
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);

  int status = 0;
  {
    quolvent::mpi_group group(MPI_COMM_WORLD, provided);
    quolvent::run_options options;
    options.group = &group;
    // The threads' places are mpirun's to give (its binding of each rank):
    // KMP_AFFINITY=scatter in every rank would put the first thread of each
    // on the same first core.
    options.set_affinity = false;
    status = quolvent::run_command_line(argc, argv, group.leads() ? stdout : nullptr, options);
  }
  MPI_Finalize();
  return status;
}
