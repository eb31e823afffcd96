// Ends the program in one line on a processor without AVX, which all else here is compiled for.
//
// The loader calls what .preinit_array lists before any constructor, those of the libraries among
// them: nothing compiled for AVX has run by then. C, because an inline function of a C++ header may
// be the copy of a file compiled for AVX.
#ifdef __ELF__
#include <unistd.h>

__attribute__((target("no-avx"))) static void CheckProcessor(void) {
  static const char kMessage[] =
      "velostrix: this processor has no AVX; use one where /proc/cpuinfo lists avx\n";
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx")) return;
  const ssize_t written = write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
  (void)written;
  _exit(1);
}

__attribute__((section(".preinit_array"), used)) static void (*const kFirst)(void) = CheckProcessor;
#endif
