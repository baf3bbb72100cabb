// Strings, environments, product directories and the option parser under failing calls and raises.
#include "harness/fault_sweep.h"

#include <korvaks/cl.h>
#include <korvaks/evutl.h>
#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>
#include <korvaks/list.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::ends_of_start;
using test::fault::has_said;
using test::fault::Scenario;
using test::fault::Trial;

constexpr const char *no_memory = "No more memory available.\n";

char *text = nullptr;
const char *expected = nullptr;
unsigned result = 0;
int error = 0;

// A new string, or NULL after exhaustion that was reported.
const char *check_new_text(const Trial &trial)
{
    if (trial.raised != 0)
        return nullptr;
    if (text != nullptr)
        return std::strcmp(text, expected) == 0 ? nullptr : "not the text";
    if (!trial.fired || error != ENOMEM)
        return "refused without a cause";
    return !trial.failed(Call::allocation) || has_said(no_memory) ? nullptr : "the exhaustion is not reported";
}

void free_text()
{
    stg_free(text);
}

Scenario new_text(const char *name, void (*setup)(), void (*act)())
{
    return {.name = name, .setup = setup, .act = act, .check = check_new_text, .cleanup = free_text};
}

TEST(FaultText, NewStrings)
{
    setenv("FAULT_A", "value", 1);
    setenv("FAULT_B", "$FAULT_A and ${FAULT_A}", 1);
    static char long_value[6000];
    std::memset(long_value, 'v', sizeof long_value - 1);
    setenv("FAULT_LONG", long_value, 1);

    const Scenario scenarios[] = {
        new_text(
            "strutl_expand_evs",
            [] {
                text = nullptr;
                expected = long_value;
            },
            [] {
                text = strutl_expand_evs("$FAULT_LONG");
                error = errno;
            }),
        new_text(
            "strutl_expand_evs_iterate",
            [] {
                text = nullptr;
                expected = "value and value!";
            },
            [] {
                text = strutl_expand_evs_iterate("${FAULT_B}!", 0);
                error = errno;
            }),
        new_text(
            "strutl_concat_heap",
            [] {
                text = nullptr;
                expected = "onetwo";
            },
            [] {
                text = strutl_concat_heap(2, "one", "two");
                error = errno;
            }),
        new_text(
            "strutl_cstr_to_str",
            [] {
                text = nullptr;
                expected = "a\nb";
            },
            [] {
                result = strutl_cstr_to_str("\"a\\nb\"", 1, &text);
                error = errno;
            }),
    };
    for (const Scenario &scenario : scenarios) {
        test::fault::sweep(scenario);
        if (std::strncmp(scenario.name, "strutl_expand", 13) == 0)
            test::fault::sweep_raises(scenario);
    }
}

wchar_t *wide = nullptr;

TEST(FaultText, WideStrings)
{
    test::fault::sweep({
        .name = "strutl_cvt_str_to_wide_str, strutl_cvt_wide_str_to_str",
        .setup =
            [] {
                wide = nullptr;
                text = nullptr;
            },
        .act =
            [] {
                result = strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "text", &wide) +
                         strutl_cvt_wide_str_to_str(STG_AREA_HEAP, L"text", &text);
            },
        .check = [](const Trial &trial) -> const char * {
            const bool is_wide = wide != nullptr && std::wcscmp(wide, L"text") == 0;
            const bool is_text = text != nullptr && std::strcmp(text, "text") == 0;
            const unsigned made = (is_wide ? 1u : 0u) + (is_text ? 1u : 0u);
            return made + result == 2 && (result != 0) == trial.fired ? nullptr : "the results do not agree";
        },
        .cleanup =
            [] {
                stg_free(wide);
                stg_free(text);
            },
    });
    // Failures print, which is a raise point.
    test::fault::sweep_raises({
        .name = "strutl_cvt_str_to_wide_str(NULL)",
        .act = [] { result = strutl_cvt_str_to_wide_str(STG_AREA_HEAP, nullptr, &wide); },
    });
}

constexpr strutl_flag_item_t flag_rows[] = {{"one", 1}, {"two", 2}, {"four", 4}};
char **names = nullptr;
int name_count = 0;

TEST(FaultText, Flags)
{
    const Scenario vector{
        .name = "strutl_flags_to_str_list",
        .setup =
            [] {
                names = nullptr;
                name_count = 0;
            },
        .act = [] { result = strutl_flags_to_str_list(0x1007, flag_rows, 3, &names, &name_count); },
        .check = [](const Trial &trial) -> const char * {
            if (names == nullptr)
                return trial.fired && name_count == 0 ? nullptr : "refused without a cause, or by half";
            return name_count == 4 && std::strcmp(names[3], " UNKNOWN(0x1000)") == 0 ? nullptr : "not the names";
        },
        .cleanup =
            [] {
                for (int i = 0; i < name_count; ++i)
                    stg_free(names[i]);
                stg_free(names);
            },
    };
    test::fault::sweep(vector);
    test::fault::sweep_raises(vector);
    test::fault::sweep_first_use({
        .name = "strutl_flags_to_str, strutl_u32tostr",
        .act =
            [] {
                text = strutl_flags_to_str(5, ",", flag_rows, 3);
                error = text == nullptr || std::strcmp(text, "one,four") == 0 ? 0 : 1;
                text = strutl_u32tostr(255, 16, -1);
                error += text == nullptr || std::strcmp(text, "ff") == 0 ? 0 : 1;
            },
        .check = [](const Trial &) { return error == 0 ? nullptr : "not the text"; },
        .ends = ends_of_start(),
    });
}

char buffer[16];
list_record *list = nullptr;

TEST(FaultText, ReportsAndLists)
{
    const auto set_up = [] { std::strcpy(buffer, "abcdefghij"); };
    const auto is_unchanged = [](const Trial &) -> const char * {
        return std::strcmp(buffer, "abcdefghij") == 0 ? nullptr : "the buffer is not as it was";
    };
    test::fault::sweep_raises({
        .name = "strutl_replace_substr that does not fit",
        .setup = set_up,
        .act = [] { result = strutl_replace_substr(buffer, 0, sizeof buffer, 1, "much too long"); },
        .check = is_unchanged,
    });
    test::fault::sweep_raises({
        .name = "strutl_find_replace_substr that does not fit",
        .setup = set_up,
        .act = [] { result = strutl_find_replace_substr(buffer, 0, sizeof buffer, "a", "much too long", nullptr); },
        .check = is_unchanged,
    });
    test::fault::sweep_raises({
        .name = "strutl_list_print",
        .setup =
            [] {
                list = list_create(STG_AREA_HEAP, 0);
                (void)list_append(list, buffer);
                (void)list_append(list, buffer);
            },
        .act = [] { strutl_list_print(list); },
        .cleanup = [] { list_destroy(list); },
    });
    static char long_a[2000];
    static char long_b[2000];
    std::memset(long_a, 'a', sizeof long_a - 1);
    std::memset(long_b, 'A', sizeof long_b - 1);
    test::fault::sweep({
        .name = "strutl_stricoll",
        .act = [] { error = strutl_stricoll(long_a, long_b); },
        .check = [](const Trial &trial) { return trial.fired || error == 0 ? nullptr : "not equal"; },
    });
}

// --- Environments ---

evutl_env *env = nullptr;

bool is_value(const char *name, const char *value)
{
    const char *found = evutl_getenv(env, name);
    return found != nullptr && std::strcmp(found, value) == 0;
}

void set_up_env()
{
    (void)evutl_alloc(STG_AREA_HEAP, &env);
    (void)evutl_setenv(env, "A", "before");
}

TEST(FaultEnvironment, PrivateOnes)
{
    test::fault::sweep({
        .name = "evutl_copy_default_environ",
        .setup = [] { env = nullptr; },
        .act = [] { error = evutl_copy_default_environ(STG_AREA_HEAP, &env) == 0 ? 0 : errno; },
        .check = [](const Trial &trial) -> const char * {
            return (env == nullptr) == trial.fired && (error == ENOMEM) == trial.fired ? nullptr : "half a copy";
        },
        .cleanup = [] { evutl_free(env); },
    });
    test::fault::sweep({
        .name = "evutl_setenv, evutl_setenv2, evutl_unsetenv",
        .setup = set_up_env,
        .act =
            [] {
                error = evutl_setenv(env, "A", "after") == 0 ? 0 : errno;
                result = static_cast<unsigned>(evutl_setenv2(env, "B=set"));
                char name[] = "N00"; // more than there is room for at first
                for (int i = 0; i < 40; ++i) {
                    name[1] = static_cast<char>('0' + i / 10);
                    name[2] = static_cast<char>('0' + i % 10);
                    if (evutl_setenv(env, name, "v") != 0)
                        error = errno;
                }
            },
        .check = [](const Trial &trial) -> const char * {
            if (error != 0 && !(trial.fired && error == ENOMEM))
                return "refused without a cause";
            if (!is_value("A", "after") && !(trial.fired && is_value("A", "before")))
                return "neither the new nor the old value";
            if (result == 0 && !is_value("B", "set"))
                return "not set";
            return evutl_unsetenv(env, "A") == 0 && evutl_getenv(env, "A") == nullptr ? nullptr : "not unset";
        },
        .cleanup = [] { evutl_free(env); },
    });
    static char **before = nullptr;
    test::fault::sweep({
        .name = "evutl_override_default_environ, evutl_restore_default_environ",
        .setup =
            [] {
                set_up_env();
                before = environ;
            },
        .act =
            [] {
                error = evutl_override_default_environ(env) == 0 ? 0 : errno;
                const char *value = getenv("A");
                result = error == 0 && (value == nullptr || std::strcmp(value, "before") != 0) ? 1 : 0;
            },
        .check = [](const Trial &trial) -> const char * {
            if (error != 0)
                return trial.fired && error == ENOMEM && environ == before ? nullptr : "half an override";
            return result == 0 && evutl_restore_default_environ() == 0 && getenv("PATH") != nullptr ? nullptr
                                                                                                    : "not in force";
        },
        .cleanup = [] { evutl_free(env); },
    });
}

char path[KS_PATH_SIZE];

TEST(FaultEnvironment, ProductDirectoriesAndSwitches)
{
    setenv("VELLUMHOME", "/from/environment", 1);
    test::fault::sweep_first_use({
        .name = "ks_product_dir",
        .act = [] { (void)ks_product_dir(path, "sub"); },
        .check = [](const Trial &) { return std::strcmp(path, "/from/environment/sub") == 0 ? nullptr : "not it"; },
        .ends = ends_of_start(),
    });
    unsetenv("VELLUMHOME");
    setenv("VELM_HOSTDATA_DIR", "/tmp", 1);
    test::fault::sweep_first_use({
        .name = "ks_hostdata_dir",
        .act = [] { (void)ks_hostdata_dir(path, "a", "b"); },
        .check = [](const Trial &) { return std::strstr(path, "/a/b") != nullptr ? nullptr : "not it"; },
        .ends = ends_of_start(),
        .spared = {Call::stat}, // where no directory is to be found the process ends
    });
    unsetenv("VELM_HOSTDATA_DIR");
    test::fault::sweep_first_use({
        .name = "ks_set_web_gui",
        .act = [] { result = static_cast<unsigned>(ks_set_web_gui(1)); },
        .check = [](const Trial &trial) -> const char * {
            const bool is_set = getenv("VELM_WEB_GUI") != nullptr && getenv("KORVA_WEB_GUI") != nullptr;
            return is_set == (result == 0) && (result != 0) == trial.failed(Call::allocation) ? nullptr : "not set";
        },
        .ends = ends_of_start(),
    });
}

// --- Option parser ---

cl_handle *clh = nullptr;
char *long_option = nullptr;

TEST(FaultOptions, Handles)
{
    static char arguments[4][16] = {"tool", "-a", "--long", "word"};
    static char *argv[] = {arguments[0], arguments[1], arguments[2], arguments[3]};
    const Scenario of_argv{
        .name = "cl_parse_argv",
        .act = [] { clh = cl_parse_argv(4, argv, &error); },
        .check = [](const Trial &trial) -> const char * {
            if (clh == nullptr)
                return trial.fired && error == CL_OUT_OF_MEMORY ? nullptr : "refused without a cause";
            return error == CL_NO_ERROR && cl_getopt(clh, "a") == 'a' ? nullptr : "not the words";
        },
        .cleanup =
            [] {
                if (clh != nullptr)
                    cl_destroy(&clh);
            },
    };
    test::fault::sweep(of_argv);
    Scenario of_line = of_argv;
    of_line.name = "cl_parse_line";
    of_line.act = [] { clh = cl_parse_line("-a 'b c' word", &error); };
    test::fault::sweep(of_line);
    test::fault::sweep({
        .name = "cl_getopt_long",
        .setup =
            [] {
                clh = cl_parse_argv(4, argv, &error);
                (void)cl_getopt(clh, "a");
                long_option = nullptr;
            },
        .act = [] { error = cl_getopt_long(clh, "a", &long_option); },
        .check = [](const Trial &trial) -> const char * {
            if (!trial.fired)
                return error == 0 && std::strcmp(long_option, "long") == 0 ? nullptr : "not the option";
            if (error != '?' || cl_errno(clh) != CL_OUT_OF_MEMORY || long_option != nullptr)
                return "exhaustion goes unseen";
            return cl_getopt_long(clh, "a", &long_option) == 0 && std::strcmp(long_option, "long") == 0
                       ? nullptr
                       : "the word is not still to come";
        },
        .cleanup =
            [] {
                stg_free(long_option);
                cl_destroy(&clh);
            },
    });
    test::fault::sweep_first_use({
        .name = "cl_strerror",
        .act = [] { text = const_cast<char *>(cl_strerror(CL_BAD_OPTION)); },
        .check = [](const Trial &) { return std::strcmp(text, "Bad option") == 0 ? nullptr : "not the text"; },
        .ends = ends_of_start(),
    });
}

} // namespace
