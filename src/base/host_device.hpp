// QUOLVENT_HOST_DEVICE: a function written once for the host and for a
// device: __host__ __device__ under the device compiler, nothing otherwise.
#pragma once

#if defined(__CUDACC__)
#define QUOLVENT_HOST_DEVICE __host__ __device__
#else
#define QUOLVENT_HOST_DEVICE
#endif
