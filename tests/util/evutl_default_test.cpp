// The process's own environment; each test changes it in a child.
#include <korvaks/evutl.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "harness/child.h"

namespace {

void show(const char *name)
{
    char buffer[64];
    const char *value = getenv_safe(name, buffer, sizeof buffer, 0);
    printf("%s=%s;", name, value != nullptr ? value : "(unset)");
}

void show_all()
{
    for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        printf("%s;", *entry);
    printf("\n");
}

std::string output_of(const std::function<int()> &body)
{
    const auto result = test::run_child(body);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    return result.out;
}

TEST(GetenvSafe, CutsOrRefusesWhatDoesNotFit)
{
    const struct {
        const char *value; // NULL: unset
        size_t size;
        unsigned flags;
        const char *expected; // NULL: no result
        int error;
    } cases[] = {{nullptr, 8, 0, nullptr, 0},
                 {"", 8, 0, "", 0},
                 {"", 1, EVUTL_GETENV_WHOLE, "", 0},
                 {"", 8, EVUTL_GETENV_NONEMPTY, nullptr, 0},
                 {"1234567", 8, EVUTL_GETENV_WHOLE, "1234567", 0},
                 {"12345678", 8, EVUTL_GETENV_WHOLE, nullptr, ERANGE},
                 {"12345678", 8, EVUTL_GETENV_NONEMPTY, "1234567", 0},
                 {"1", 1, 0, "", 0},
                 {"1", 0, 0, nullptr, ERANGE},
                 {"1", 8, EVUTL_GETENV_SECURE, "1", 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << (c.value != nullptr ? c.value : "(unset)") << " into " << c.size);
        const auto result = test::run_child([&c] {
            if (c.value != nullptr)
                setenv("EVUTL_TEST", c.value, 1);
            char buffer[10] = "#########";
            errno = 0;
            const char *got = getenv_safe("EVUTL_TEST", buffer, c.size, c.flags);
            if (errno != c.error)
                return 1;
            if (c.expected == nullptr)
                return got == nullptr && strcmp(buffer, "#########") == 0 ? 0 : 2;
            return got == buffer && strcmp(buffer, c.expected) == 0 && buffer[c.size] == '#' ? 0 : 3;
        });
        EXPECT_EQ(result.exit_status, 0);
    }
}

TEST(EvutlDefault, SetUnsetAndCopy)
{
    EXPECT_EQ(output_of([] {
                  static char entry[] = "EVUTL_TEST=1";
                  clearenv();
                  const bool right = putenv_safe(entry) == 0 && evutl_unsetenv_default_environ("absent") == 0 &&
                                     evutl_unsetenv_default_environ("A=B") == 1 && errno == EINVAL;
                  evutl_env *copy = nullptr;
                  if (evutl_copy_default_environ(STG_AREA_HEAP, &copy) != 0)
                      return 1;
                  entry[11] = '2';
                  printf("%s;", *evutl_env2environ(copy));
                  evutl_free(copy);
                  show_all();
                  if (evutl_unsetenv_default_environ("EVUTL_TEST") != 0)
                      return 1;
                  show_all();
                  return right ? 0 : 1;
              }),
              "EVUTL_TEST=1;EVUTL_TEST=2;\n\n");
}

TEST(EvutlDefault, OverridesNestAndAreTakenBack)
{
    EXPECT_EQ(output_of([] {
                  clearenv();
                  // The C library now owns the array, and reallocates it when a variable is added.
                  setenv("FIRST", "1", 1);
                  const char *original = getenv("FIRST");
                  evutl_env *env = nullptr;
                  evutl_alloc(STG_AREA_HEAP, &env);
                  evutl_setenv(env, "INNER", "2");
                  bool right = evutl_override_default_environ(env) == 0;
                  evutl_setenv(env, "FIRST", "3");
                  show_all();
                  for (int i = 0; i < 100; ++i)
                      setenv(("ADDED" + std::to_string(i)).c_str(), "x", 1);
                  show("ADDED99");
                  right = evutl_override_default_environ(env) == 0 && right;
                  evutl_free(env);
                  show_all();
                  right = evutl_restore_default_environ() == 0 && right;
                  show("INNER");
                  show("FIRST");
                  show("ADDED99");
                  right = evutl_restore_default_environ() == 0 && right;
                  show_all();
                  setenv("SECOND", "4", 1);
                  right = evutl_restore_default_environ() == 1 && getenv("FIRST") == original && right;
                  show_all();
                  return right ? 0 : 1;
              }),
              "INNER=2;\nADDED99=x;INNER=2;FIRST=3;\nINNER=2;FIRST=(unset);ADDED99=x;FIRST=1;\nFIRST=1;SECOND=4;\n");
}

TEST(EvutlDefault, EmptyEnvironment)
{
    EXPECT_EQ(output_of([] {
                  clearenv();
                  evutl_env *env = nullptr;
                  bool right = evutl_copy_default_environ(STG_AREA_HEAP, &env) == 0;
                  right = *evutl_env2environ(env) == nullptr && evutl_override_default_environ(env) == 0 && right;
                  evutl_free(env);
                  show("HOME");
                  right = evutl_restore_default_environ() == 0 && right;
                  show_all();
                  return right ? 0 : 1;
              }),
              "HOME=(unset);\n");
}

// Readers see one of the two environments, whole, and the lock holds a change together.
TEST(EvutlDefault, ThreadsReadWhileItChanges)
{
    const auto result = test::run_child([] {
        setenv("EVUTL_TEST", "outer", 1);
        setenv("EVUTL_PAIR", "outer", 1);
        evutl_env *env = nullptr;
        evutl_copy_default_environ(STG_AREA_HEAP, &env);
        evutl_setenv(env, "EVUTL_TEST", "inner");
        evutl_setenv(env, "EVUTL_PAIR", "inner");
        std::atomic<bool> ended{false};
        std::atomic<int> wrong{0};
        std::vector<std::thread> readers;
        for (int i = 0; i < 3; ++i)
            readers.emplace_back([&] {
                while (!ended) {
                    char one[16];
                    char other[16];
                    evutl_lock_environ();
                    const bool read = getenv_safe("EVUTL_TEST", one, sizeof one, 0) != nullptr &&
                                      getenv_safe("EVUTL_PAIR", other, sizeof other, 0) != nullptr;
                    evutl_unlock_environ();
                    wrong += read && strcmp(one, other) == 0 ? 0 : 1;
                }
            });
        for (int i = 0; i < 500; ++i) {
            wrong += evutl_override_default_environ(env);
            wrong += evutl_restore_default_environ();
        }
        ended = true;
        for (auto &reader : readers)
            reader.join();
        evutl_free(env);
        return wrong == 0 ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

} // namespace
