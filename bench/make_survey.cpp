// Writes a generated survey for whole-run measurements into the current
// directory: mesh.txt, obs.mag and run.inp.
//
//   make_survey NX NY NZ NDX NDY [WAVELET] [IDIR]
//
// A uniform mesh of NX x NY x NZ cells of 10 m (layers of 5 m), flat ground
// at the mesh top, and a regular grid of NDX x NDY surface data 5 m above it
// at a spacing of two cells, centred on the mesh. WAVELET (default NONE) goes
// on line 5 of the control file. IDIR 0 gives every datum the common
// direction as its own, which keeps the geometry but sends the run through the
// general row loop.
#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
  if (argc < 6) {
    std::fprintf(stderr, "usage: make_survey NX NY NZ NDX NDY [WAVELET] [IDIR]\n");
    return 2;
  }
  const int nx = std::atoi(argv[1]), ny = std::atoi(argv[2]), nz = std::atoi(argv[3]);
  const int ndx = std::atoi(argv[4]), ndy = std::atoi(argv[5]);
  const std::string wavelet = argc > 6 ? argv[6] : "NONE";
  const int idir = argc > 7 ? std::atoi(argv[7]) : 1;

  std::FILE* m = std::fopen("mesh.txt", "w");
  std::fprintf(m, "%d %d %d\n0.0 0.0 0.0\n%d*10.0\n%d*10.0\n%d*5.0\n", nx, ny, nz, nx, ny, nz);
  std::fclose(m);

  std::FILE* o = std::fopen("obs.mag", "w");
  std::fprintf(o, "65.0 20.0 50000.0\n65.0 20.0 %d\n%d\n", idir, ndx * ndy);
  const double x0 = 5.0 + 10.0 * ((nx - 2 * (ndx - 1)) / 2);
  const double y0 = 5.0 + 10.0 * ((ny - 2 * (ndy - 1)) / 2);
  for (int j = 0; j < ndy; ++j)
    for (int i = 0; i < ndx; ++i) {
      if (idir == 0)
        std::fprintf(o, "%.2f %.2f 5.0 65.0 20.0\n", x0 + 20.0 * i, y0 + 20.0 * j);
      else
        std::fprintf(o, "%.2f %.2f 5.0\n", x0 + 20.0 * i, y0 + 20.0 * j);
    }
  std::fclose(o);

  std::FILE* c = std::fopen("run.inp", "w");
  std::fprintf(c, "mesh.txt\nobs.mag\nnull\nVALUE 1.0\n%s\nnull\n0\n", wavelet.c_str());
  std::fclose(c);
  return 0;
}
