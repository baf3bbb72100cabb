// Environments and product directories when memory runs out. The program's own malloc() stands
// before the C library's and fails at a chosen call. Sanitizers have an allocator of their own, so
// their builds leave this program out.
#include <korvaks/evutl.h>
#include <korvaks/ks_product.h>
#include <korvaks/stg.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/child.h"

namespace {

// Of each thread its own: the library's threads allocate when they like.
thread_local bool is_failing = false; // only while a scenario runs
thread_local long calls_until_failure = 0;
thread_local bool fails_from_then_on = false;
thread_local long blocks = 0; // obtained less freed

bool fails_now()
{
    if (!is_failing)
        return false;
    const long left = --calls_until_failure;
    return left == 0 || (left < 0 && fails_from_then_on);
}

} // namespace

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);

void *malloc(size_t size)
{
    void *block = fails_now() ? nullptr : __libc_malloc(size);
    if (block == nullptr)
        errno = ENOMEM;
    else
        ++blocks;
    return block;
}

void *realloc(void *old, size_t size)
{
    void *block = fails_now() ? nullptr : __libc_realloc(old, size);
    if (block == nullptr)
        errno = ENOMEM;
    else if (old == nullptr)
        ++blocks;
    return block;
}

void free(void *block)
{
    if (block != nullptr)
        --blocks;
    __libc_free(block);
}
}

namespace {

// Runs `scenario` with the `nth` allocation failing; true when it was reached.
template <typename Scenario> bool with_failure(long nth, bool goes_on, Scenario scenario)
{
    calls_until_failure = nth;
    fails_from_then_on = goes_on;
    is_failing = true;
    scenario();
    is_failing = false;
    return calls_until_failure <= 0;
}

// Every operation, each of which either does all of its work or none.
bool use_environments(stg_area *area)
{
    evutl_env *env = nullptr;
    bool right = true;
    if (evutl_copy_default_environ(area, &env) != 0)
        return env == nullptr && errno == ENOMEM;
    char name[] = "N00";
    for (int i = 0; i < 40; ++i) {
        name[1] = static_cast<char>('0' + i / 10);
        name[2] = static_cast<char>('0' + i % 10);
        errno = 0;
        const bool is_set = (i % 2 == 0 ? evutl_setenv(env, name, "v") : evutl_setenv2(env, "B=x")) == 0;
        right = right && (is_set || errno == ENOMEM);
        right = right && (i % 2 != 0 || (evutl_getenv(env, name) != nullptr) == is_set);
    }
    char *const *before = environ;
    if (evutl_override_default_environ(env) != 0)
        right = right && errno == ENOMEM && environ == before;
    else
        right = evutl_restore_default_environ() == 0 && right;
    right = right && strcmp(getenv("EVUTL_KEPT"), "kept") == 0;
    evutl_free(env);
    return right;
}

TEST(EvutlExhaustion, NoOperationIsHalfDoneOrLeaks)
{
    for (const bool goes_on : {false, true}) {
        const auto result = test::run_child([goes_on] {
            clearenv();
            setenv("EVUTL_KEPT", "kept", 1);
            // What is kept from a first use, and from a restore, exists before blocks are counted.
            (void)with_failure(1, false, [] { stg_free(stg_malloc(1)); });
            bool right = use_environments(STG_AREA_HEAP);
            long nth = 1;
            for (bool reached = true; reached && right; ++nth) {
                const long before = blocks;
                reached = with_failure(nth, goes_on, [&right] { right = use_environments(STG_AREA_HEAP); });
                right = right && blocks == before;
            }
            printf("%ld steps\n", nth);
            return right && nth > 40 ? 0 : 1;
        });
        EXPECT_EQ(result.exit_status, 0) << result.out;
        EXPECT_NE(result.err.find("No more memory available.\n"), std::string::npos);
    }
}

TEST(EvutlExhaustion, AreasToo)
{
    const auto result = test::run_child([] {
        setenv("EVUTL_KEPT", "kept", 1);
        bool right = true;
        long nth = 1;
        for (bool reached = true; reached && right; ++nth) {
            stg_area *area = stg_create_area(16);
            reached = with_failure(nth, false, [&] { right = use_environments(area); });
            stg_delete_area(&area);
        }
        return right && nth > 10 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

TEST(KsProductExhaustion, TheDirectoryIsKeptWithoutHeap)
{
    for (const char *home : {"/from/environment", static_cast<const char *>(nullptr)}) {
        const auto result = test::run_child([home] {
            if (home != nullptr)
                setenv("VELLUMHOME", home, 1);
            char path[KS_PATH_SIZE];
            (void)with_failure(1, false, [] { stg_free(stg_malloc(1)); });
            fprintf(stderr, "--\n");
            (void)with_failure(1, false, [&path] { ks_product_dir(path, nullptr); });
            puts(path);
            setenv("VELLUMHOME", "/later", 1);
            puts(ks_product_dir(path, nullptr));
            return 0;
        });
        const std::string expected = home != nullptr ? home : "/opt/vellum";
        EXPECT_EQ(result.out, expected + "\n" + expected + "\n");
        const auto warning = result.err.find("Unable to allocate storage.\n");
        EXPECT_NE(warning, std::string::npos) << result.err;
        EXPECT_EQ(result.err.find("Unable to allocate storage.\n", warning + 1), std::string::npos) << "said twice";
    }
}

TEST(KsProductExhaustion, HostDataGoOnWithoutCache)
{
    const test::TempDir root;
    const auto result = test::run_child([&root] {
        if (chroot(root.path().c_str()) != 0)
            return 77;
        setenv("VELM_HOSTDATA_DIR", "/", 1);
        char path[KS_PATH_SIZE];
        (void)with_failure(1, false, [&path] { ks_hostdata_dir(path, "a", nullptr); });
        puts(path);
        return 0;
    });
    if (result.exit_status == 77)
        GTEST_SKIP() << "chroot is not permitted here";
    EXPECT_EQ(result.out, "//a\n");
    EXPECT_NE(result.err.find("Operation stg_strdup: Cannot allocate memory\n"), std::string::npos) << result.err;
}

TEST(KsProductExhaustion, ASetterReportsIt)
{
    const auto result = test::run_child([] {
        clearenv();
        int set = 0;
        (void)with_failure(1, true, [&set] { set = ks_set_web_gui(1); });
        return set == 1 && getenv("KORVA_WEB_GUI") == nullptr && ks_set_web_gui(1) == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
}

} // namespace
