// What the sanitizers ask of a program whose libraries are not built with them.
// NOLINTBEGIN(bugprone-reserved-identifier): the sanitizers choose the names.

// Synchronisation inside LLVM's OpenMP runtime is invisible to the thread sanitizer. The runtime
// itself asks for this option.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() { return "ignore_noninstrumented_modules=1"; }

// LLVM's OpenMP runtime keeps what it allocates for its worker threads until the process has ended;
// now and then the leak checker looks while nothing points to it. Reported upstream as
// github.com/llvm/llvm-project/pull/225441, and seen by others in
// github.com/Z3Prover/z3/issues/1308.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:libomp.so\n"; }
// NOLINTEND(bugprone-reserved-identifier)
