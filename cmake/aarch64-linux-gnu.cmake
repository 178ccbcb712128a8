# Cross-compiling for 64-bit ARM Linux with clang and Debian's cross toolchain
# (g++-aarch64-linux-gnu for the C++ library), with the ARM builds of libomp
# and Highway unpacked into QUOLVENT_ARM_SYSROOT (scripts/cross_aarch64.sh).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)

if(NOT QUOLVENT_ARM_SYSROOT)
  set(QUOLVENT_ARM_SYSROOT $ENV{QUOLVENT_ARM_SYSROOT})
endif()
set(CMAKE_FIND_ROOT_PATH ${QUOLVENT_ARM_SYSROOT} /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The LLVM OpenMP runtime of the ARM build; FindOpenMP can't run a test
# program for another processor, so it is named here.
set(OpenMP_CXX_FLAGS "-fopenmp=libomp" CACHE STRING "")
set(OpenMP_CXX_LIB_NAMES "omp" CACHE STRING "")
set(OpenMP_omp_LIBRARY ${QUOLVENT_ARM_SYSROOT}/usr/lib/llvm-14/lib/libomp.so CACHE FILEPATH "")
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-L${QUOLVENT_ARM_SYSROOT}/usr/lib/llvm-14/lib -L${QUOLVENT_ARM_SYSROOT}/usr/lib/aarch64-linux-gnu -Wl,-rpath-link,${QUOLVENT_ARM_SYSROOT}/usr/lib/aarch64-linux-gnu")
