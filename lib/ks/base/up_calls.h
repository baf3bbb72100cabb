// The calls that go up: functions of higher layers that lower ones call. All of them, and nothing else.
//
// A layer knows what stands above it by these declarations only. ks_base.h includes this header, so every
// file that defines one of the functions sees it beside the public header that declares the function, and a
// declaration that has drifted does not compile. docs/layers.md tells who calls what, and why.
#pragma once

#include <korvaks/base.h>

extern "C" {

// kernel
KS_API void pfm_assert_fail(const char *expr, const char *file, int line) KS_NORETURN;
KS_API void pfm_panic(const char *file, int line) KS_NORETURN;

// messages; the tests of the kernel link a recorder that defines these two
KS_API int imsg_print(int kind, const msg_table *table, unsigned msg_no, ...);
KS_API int imsg_should_trace(const char *subsys, long level);

// events
KS_API unsigned imsg_prompt_proceed(int kind, const char *question, unsigned mask, unsigned dflt);

// command
KS_API void clp_log_cl_args(const char *name, int argc, char *const *argv, const char *took);
}
