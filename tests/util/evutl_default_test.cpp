// The process's own environment; each test changes it in a child.
#include "harness/child.h"

#include <korvaks/evutl.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>

#include <unistd.h>

namespace {

// The environment, its entries in a row; what getenv_safe() says is looked at beside it.
std::string all()
{
    std::string entries;
    for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        entries += std::string(*entry) + ";";
    return entries;
}

std::string value(const char *name)
{
    char buffer[64];
    return getenv_safe(name, buffer, sizeof buffer, 0) != nullptr ? buffer : "(unset)";
}

TEST(GetenvSafe, CutsOrRefusesWhatDoesNotFit)
{
    const struct {
        const char *value; // NULL: unset
        std::size_t size;
        unsigned flags;
        const char *expected; // NULL: no result
        int error;
    } cases[] = {{nullptr, 8, 0, nullptr, 0},
                 {"", 1, EVUTL_GETENV_WHOLE, "", 0},
                 {"", 8, EVUTL_GETENV_NONEMPTY, nullptr, 0},
                 {"1234567", 8, EVUTL_GETENV_WHOLE, "1234567", 0},
                 {"12345678", 8, EVUTL_GETENV_WHOLE, nullptr, ERANGE},
                 {"12345678", 8, EVUTL_GETENV_NONEMPTY, "1234567", 0},
                 {"1", 0, 0, nullptr, ERANGE},
                 {"1", 8, EVUTL_GETENV_SECURE, "1", 0}};
    test::in_child([&cases] {
        for (const auto &c : cases) {
            if (c.value != nullptr)
                setenv("EVUTL_TEST", c.value, 1);
            char buffer[10] = "#########";
            errno = 0;
            const char *got = getenv_safe("EVUTL_TEST", buffer, c.size, c.flags);
            EXPECT_EQ(errno, c.error);
            EXPECT_EQ(got, c.expected == nullptr ? nullptr : buffer);
            EXPECT_STREQ(buffer, c.expected == nullptr ? "#########" : c.expected);
            EXPECT_EQ(buffer[c.size], '#');
        }
    });
}

TEST(EvutlDefault, SetUnsetAndCopy)
{
    test::in_child([] {
        static char entry[] = "EVUTL_TEST=1";
        clearenv();
        EXPECT_EQ(value("HOME"), "(unset)");
        evutl_env *empty = nullptr;
        ASSERT_EQ(evutl_copy_default_environ(STG_AREA_HEAP, &empty), 0);
        EXPECT_EQ(*evutl_env2environ(empty), nullptr);
        EXPECT_EQ(putenv_safe(entry), 0);
        evutl_env *copy = nullptr;
        ASSERT_EQ(evutl_copy_default_environ(STG_AREA_HEAP, &copy), 0);
        entry[11] = '2';
        EXPECT_STREQ(*evutl_env2environ(copy), "EVUTL_TEST=1");
        EXPECT_EQ(all(), "EVUTL_TEST=2;");
        EXPECT_EQ(evutl_unsetenv_default_environ("EVUTL_TEST"), 0);
        EXPECT_EQ(all(), "");
        EXPECT_EQ(evutl_unsetenv_default_environ("A=B"), 1);
        EXPECT_EQ(errno, EINVAL);
        evutl_free(copy);
        evutl_free(empty);
    });
}

TEST(EvutlDefault, OverridesNestAndAreTakenBack)
{
    test::in_child([] {
        clearenv();
        // The C library now owns the array, and reallocates it when a variable is added.
        setenv("FIRST", "1", 1);
        const char *original = getenv("FIRST");
        evutl_env *env = nullptr;
        evutl_alloc(STG_AREA_HEAP, &env);
        evutl_setenv(env, "INNER", "2");
        EXPECT_EQ(evutl_override_default_environ(env), 0);
        evutl_setenv(env, "FIRST", "3");
        EXPECT_EQ(all(), "INNER=2;");
        for (int i = 0; i < 100; ++i)
            setenv(("ADDED" + std::to_string(i)).c_str(), "x", 1);
        EXPECT_EQ(evutl_override_default_environ(env), 0);
        evutl_free(env);
        EXPECT_EQ(all(), "INNER=2;FIRST=3;");
        EXPECT_EQ(evutl_restore_default_environ(), 0);
        EXPECT_EQ(value("INNER") + value("FIRST") + value("ADDED99"), "2(unset)x");
        EXPECT_EQ(evutl_restore_default_environ(), 0);
        EXPECT_EQ(all(), "FIRST=1;");
        setenv("SECOND", "4", 1);
        EXPECT_EQ(evutl_restore_default_environ(), 1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(getenv("FIRST"), original);
        EXPECT_EQ(all(), "FIRST=1;SECOND=4;");
    });
}

// A reader sees one of the two environments, whole.
TEST(EvutlDefault, IsReadWhileItChanges)
{
    test::in_child([] {
        setenv("EVUTL_TEST", "outer", 1);
        evutl_env *env = nullptr;
        evutl_copy_default_environ(STG_AREA_HEAP, &env);
        evutl_setenv(env, "EVUTL_TEST", "inner");
        std::atomic<bool> ended{false};
        std::atomic<int> wrong{0};
        std::thread reader([&] {
            while (!ended) {
                evutl_lock_environ(); // which holds both together
                const std::string first = value("EVUTL_TEST");
                wrong += first == value("EVUTL_TEST") && first.size() == 5 ? 0 : 1;
                evutl_unlock_environ();
            }
        });
        for (int i = 0; i < 1000; ++i)
            wrong += evutl_override_default_environ(env) + evutl_restore_default_environ();
        ended = true;
        reader.join();
        evutl_free(env);
        EXPECT_EQ(wrong, 0);
    });
}

} // namespace
