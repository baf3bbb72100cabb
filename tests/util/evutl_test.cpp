#include "util/evutl_impl.h"

#include "harness/misuse.h"

#include <korvaks/evutl.h>

#include <cerrno>
#include <thread>

namespace {

using Strings = std::vector<std::string>;

Strings entries_of(evutl_env *env)
{
    Strings entries;
    for (char **entry = evutl_env2environ(env); *entry != nullptr; ++entry)
        entries.emplace_back(*entry);
    return entries;
}

// Each test runs with an environment on the heap and one in an area.
struct EvutlPrivate : testing::TestWithParam<bool> {
    EvutlPrivate() : area(GetParam() ? STG_AREA_HEAP : stg_create_area(64)) { evutl_alloc(area, &env); }
    ~EvutlPrivate() override
    {
        evutl_free(env);
        if (area != STG_AREA_HEAP)
            stg_delete_area(&area);
    }

    stg_area *area;
    evutl_env *env = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Storage, EvutlPrivate, testing::Bool(),
                         [](const auto &storage) { return storage.param ? "Heap" : "Area"; });

TEST_P(EvutlPrivate, NamesMatchUpToTheirEqualsSign)
{
    EXPECT_EQ(evutl_getenv(env, "A"), nullptr);
    for (const char *name : {"PATHX", "PATH", "PAT"})
        EXPECT_EQ(evutl_setenv(env, name, name), 0);
    EXPECT_EQ(evutl_setenv(env, "PATH", "a=b"), 0);
    EXPECT_EQ(evutl_setenv2(env, "PAT="), 0);
    EXPECT_EQ(entries_of(env), (Strings{"PATHX=PATHX", "PATH=a=b", "PAT="}));
    EXPECT_STREQ(evutl_getenv(env, "PATH"), "a=b");
    EXPECT_STREQ(evutl_getenv(env, "PAT"), "");
    EXPECT_EQ(evutl_getenv(env, "PATH=a"), nullptr);
    EXPECT_EQ(evutl_getenv(env, ""), nullptr);
    // A value may come from the environment itself.
    EXPECT_EQ(evutl_setenv(env, "PATH", evutl_getenv(env, "PATH") + 2), 0);
    EXPECT_EQ(evutl_setenv2(env, entries_of(env)[1].c_str()), 0);
    EXPECT_STREQ(evutl_getenv(env, "PATH"), "b");
}

TEST_P(EvutlPrivate, WrongNamesChangeNothing)
{
    EXPECT_EQ(evutl_setenv(env, "A", "1"), 0);
    const auto expect_refused = [](int result) {
        EXPECT_TRUE(result == 1 && errno == EINVAL);
        errno = 0;
    };
    errno = 0;
    for (const char *name : {"", "A="}) {
        expect_refused(evutl_setenv(env, name, "2"));
        expect_refused(evutl_unsetenv(env, name));
    }
    for (const char *entry : {"", "A", "=2"})
        expect_refused(evutl_setenv2(env, entry));
    EXPECT_EQ(entries_of(env), Strings{"A=1"});
}

// From 32 entries on the array doubles whenever the closing NULL has no room left.
TEST_P(EvutlPrivate, ArrayDoublesAndStaysClosed)
{
    EXPECT_EQ(env->exported, 0u);
    Strings expected;
    for (const auto &[entries, capacity] : {std::pair{31u, 32u}, {32u, 64u}, {64u, 128u}}) {
        while (expected.size() < entries) {
            const std::string name = "N" + std::to_string(expected.size());
            ASSERT_EQ(evutl_setenv(env, name.c_str(), "v"), 0);
            expected.push_back(name + "=v");
        }
        const auto &header = reinterpret_cast<ks::evutl::ArrayHeader *>(env->vars)[-1];
        EXPECT_TRUE(header.capacity == capacity && header.element_size == 8 && header.area == area);
        EXPECT_EQ(env->count, entries + 1);
        EXPECT_EQ(entries_of(env), expected);
    }
    EXPECT_EQ(env->exported, 1u);
}

TEST_P(EvutlPrivate, CopiesKeepOrderAndUnsetTakesEveryEntry)
{
    char texts[][8] = {"B=1", "A=1", "odd", "B=2", "A=2"};
    char *envp[] = {texts[0], texts[1], texts[2], texts[3], texts[4], nullptr};
    evutl_env *copy = nullptr;
    ASSERT_EQ(evutl_copy_environ(area, envp, &copy), 0);
    texts[0][2] = '9';
    EXPECT_EQ(entries_of(copy), (Strings{"B=1", "A=1", "odd", "B=2", "A=2"}));
    EXPECT_STREQ(evutl_getenv(copy, "A"), "1");
    EXPECT_EQ(evutl_unsetenv(copy, "B"), 0);
    EXPECT_EQ(evutl_setenv(copy, "C", "3"), 0);
    EXPECT_EQ(entries_of(copy), (Strings{"A=1", "odd", "A=2", "C=3"}));
    evutl_free(copy);

    ASSERT_EQ(evutl_copy_environ(area, nullptr, &copy), 0);
    EXPECT_EQ(entries_of(copy), Strings{});
    evutl_free(copy);
    evutl_free(nullptr);
}

TEST_P(EvutlPrivate, ThreadsShareOne)
{
    std::thread other([this] {
        for (int i = 0; i < 2000; ++i)
            (void)(i % 2 == 0 ? evutl_setenv(env, "A", "") : evutl_unsetenv(env, "A"));
    });
    for (int i = 0; i < 400; ++i)
        (void)evutl_setenv(env, std::to_string(i).c_str(), "");
    other.join();
    EXPECT_EQ(entries_of(env).size(), 400u);
}

TEST(EvutlMisuse, EndsTheProcess)
{
    evutl_env *env = nullptr;
    test::expect_misuse({{[] { (void)evutl_getenv(nullptr, "A"); }, "PFM_ASSERT:(env != NULL) failed: 'lib/ks/evutl':"},
                         {[&] { (void)evutl_alloc(STG_AREA_NULL, &env); }, "(area != STG_AREA_NULL)"},
                         {[] { evutl_unlock_environ(); }, "(environ lock is held by the caller)"}});
}

} // namespace
