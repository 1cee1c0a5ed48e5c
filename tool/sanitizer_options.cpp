// Settings of the sanitizer builds, compiled into each of their programs, so
// that every run has them: a test's, and the command's own under a test.
#define DECONV_EXPORT extern "C" __attribute__((used, visibility("default")))

// A cancelled worker unwinds its stack, which AddressSanitizer's runtime only
// follows with this option.
DECONV_EXPORT const char* __asan_default_options() { return "detect_stack_use_after_return=1"; }

// The engine's queued work items are left to the end of the process, by
// design; every other block must be freed.
DECONV_EXPORT const char* __lsan_default_suppressions() { return "leak:CDeconv::queue_job\n"; }
// A run that succeeds stays silent on stderr.
DECONV_EXPORT const char* __lsan_default_options() { return "print_suppressions=0"; }

DECONV_EXPORT const char* __ubsan_default_options() { return "print_stacktrace=1"; }

DECONV_EXPORT const char* __tsan_default_options() { return "halt_on_error=1"; }
