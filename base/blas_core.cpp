// Which kernels the private copy of the BLAS runs on.
//
// OpenBLAS chooses its kernels by the processor's model number when it is loaded, and its table ends before the newest
// models: those fall back to kernels of twenty years ago, four to five times slower.  It asks the environment variable
// OPENBLAS_CORETYPE first.  The shared library is linked with getenv wrapped, so that where a user has not set that
// variable the question is answered by what the processor can do.  The environment itself is not touched.
#include <cstring>

extern "C" {

char* __real_getenv(const char* name);

char* __wrap_getenv(const char* name)
{
  char* value = __real_getenv(name);
  if (value != nullptr || std::strcmp(name, "OPENBLAS_CORETYPE") != 0) return value;
  static const char with_avx512[] = "SkylakeX";
  static const char with_avx2[] = "Haswell";
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512dq")) {
    return const_cast<char*>(with_avx512);  // getenv's type; nobody writes to it
  }
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return const_cast<char*>(with_avx2);
  return nullptr;
}
}
