// Strings, environments, product directories and the option parser under failing calls and raises.
#include "harness/fault_sweep.h"

#include <korvaks/cl.h>
#include <korvaks/evutl.h>
#include <korvaks/ks_product.h>
#include <korvaks/list.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include <unistd.h>

namespace {

using test::fault::Call;
using test::fault::Operation;
using test::fault::Trial;

constexpr const char *no_memory = "No more memory available.\n";

bool is_same(const char *text, const char *expected)
{
    return text != nullptr && std::strcmp(text, expected) == 0;
}

// A new string, or NULL after exhaustion that was reported.
Operation new_text(const char *name, const char *expected, char *(*make)())
{
    static char *text;
    return Operation(name)
        .setup([] { text = nullptr; })
        .act([make] { return (text = make()) != nullptr; })
        .gives([expected] { return is_same(text, expected); })
        .keeps([](const Trial &trial) { return trial.error == ENOMEM; })
        .says(no_memory)
        .cleanup([] { stg_free(text); });
}

TEST(FaultText, NewStrings)
{
    setenv("FAULT_A", "value", 1);
    setenv("FAULT_B", "$FAULT_A and ${FAULT_A}", 1);
    const std::string long_value(5999, 'v');
    setenv("FAULT_LONG", long_value.c_str(), 1);
    new_text("strutl_expand_evs", long_value.c_str(), [] { return strutl_expand_evs("$FAULT_LONG"); })
        .sweep()
        .sweep_raises();
    new_text("strutl_expand_evs_iterate", "value and value!",
             [] { return strutl_expand_evs_iterate("${FAULT_B}!", 0); })
        .sweep()
        .sweep_raises();
    new_text("strutl_concat_heap", "onetwo", [] { return strutl_concat_heap(2, "one", "two"); }).sweep();
    new_text("strutl_cstr_to_str", "a\nb", [] {
        char *made = nullptr;
        (void)strutl_cstr_to_str("\"a\\nb\"", 1, &made);
        return made;
    }).sweep();
}

TEST(FaultText, WideStrings)
{
    wchar_t *wide = nullptr;
    char *text = nullptr;
    unsigned failures = 0;
    Operation("strutl_cvt_str_to_wide_str, strutl_cvt_wide_str_to_str")
        .setup([&] {
            wide = nullptr;
            text = nullptr;
        })
        .act([&] {
            failures = strutl_cvt_str_to_wide_str(STG_AREA_HEAP, "text", &wide) +
                       strutl_cvt_wide_str_to_str(STG_AREA_HEAP, L"text", &text);
            return failures == 0;
        })
        .check([&](const Trial &) {
            const bool is_wide = wide != nullptr && std::wcscmp(wide, L"text") == 0;
            const unsigned made = (is_wide ? 1u : 0u) + (is_same(text, "text") ? 1u : 0u);
            return made + failures == 2 ? nullptr : "the results do not agree";
        })
        .notices()
        .cleanup([&] {
            stg_free(wide);
            stg_free(text);
        })
        .sweep();
    // Failures print, which is a raise point.
    Operation("strutl_cvt_str_to_wide_str(NULL)")
        .act([&] { (void)strutl_cvt_str_to_wide_str(STG_AREA_HEAP, nullptr, &wide); })
        .sweep_raises();
}

constexpr strutl_flag_item_t flag_rows[] = {{"one", 1}, {"two", 2}, {"four", 4}};

TEST(FaultText, Flags)
{
    char **names = nullptr;
    int count = 0;
    Operation("strutl_flags_to_str_list")
        .setup([&] {
            names = nullptr;
            count = 0;
        })
        .act([&] {
            (void)strutl_flags_to_str_list(0x1007, flag_rows, 3, &names, &count);
            return names != nullptr;
        })
        .gives([&] { return count == 4 && is_same(names[3], " UNKNOWN(0x1000)"); })
        .keeps([&] { return count == 0; })
        .cleanup([&] {
            for (int i = 0; i < count; ++i)
                stg_free(names[i]);
            stg_free(names);
        })
        .sweep()
        .sweep_raises();
    bool are_right = false;
    Operation("strutl_flags_to_str, strutl_u32tostr")
        .act([&] {
            const char *flags = strutl_flags_to_str(5, ",", flag_rows, 3);
            are_right = flags == nullptr || is_same(flags, "one,four");
            const char *number = strutl_u32tostr(255, 16, -1);
            are_right = are_right && (number == nullptr || is_same(number, "ff"));
        })
        .gives([&] { return are_right; })
        .sweep_first_use();
}

TEST(FaultText, ReportsAndLists)
{
    static char buffer[16];
    Operation("strutl_replace_substr, strutl_find_replace_substr that do not fit")
        .setup([] { std::strcpy(buffer, "abcdefghij"); })
        .act([] {
            (void)strutl_replace_substr(buffer, 0, sizeof buffer, 1, "much too long");
            (void)strutl_find_replace_substr(buffer, 0, sizeof buffer, "a", "much too long", nullptr);
        })
        .check([](const Trial &) { return is_same(buffer, "abcdefghij") ? nullptr : "not as it was"; })
        .sweep_raises();
    list_record *list = nullptr;
    Operation("strutl_list_print")
        .setup([&] {
            list = list_create(STG_AREA_HEAP, 0);
            (void)list_append(list, buffer);
            (void)list_append(list, buffer);
        })
        .act([&] { strutl_list_print(list); })
        .cleanup([&] { list_destroy(list); })
        .sweep_raises();
    const std::string small(1999, 'a');
    const std::string capital(1999, 'A');
    int order = 0;
    Operation("strutl_stricoll")
        .act([&] { order = strutl_stricoll(small.c_str(), capital.c_str()); })
        .gives([&](const Trial &trial) { return trial.fired || order == 0; })
        .sweep();
}

// --- Environments ---

evutl_env *env = nullptr;

bool has_value(const char *name, const char *value)
{
    return is_same(evutl_getenv(env, name), value);
}

Operation on_env(const char *name)
{
    return Operation(name)
        .setup([] {
            (void)evutl_alloc(STG_AREA_HEAP, &env);
            (void)evutl_setenv(env, "A", "before");
        })
        .cleanup([] { evutl_free(env); });
}

// More than there is room for at first; what failed last, or 0.
int set_forty_names()
{
    int error = 0;
    char name[] = "N00";
    for (int i = 0; i < 40; ++i) {
        name[1] = static_cast<char>('0' + i / 10);
        name[2] = static_cast<char>('0' + i % 10);
        if (evutl_setenv(env, name, "v") != 0)
            error = errno;
    }
    return error;
}

TEST(FaultEnvironment, PrivateOnes)
{
    on_env("evutl_copy_default_environ")
        .setup([] { env = nullptr; })
        .act([] { return evutl_copy_default_environ(STG_AREA_HEAP, &env) == 0; })
        .keeps([] { return env == nullptr; })
        .notices()
        .sets_errno()
        .sweep();
    bool is_a_set = false;
    bool is_b_set = false;
    on_env("evutl_setenv, evutl_setenv2, evutl_unsetenv")
        .act([&] {
            is_a_set = evutl_setenv(env, "A", "after") == 0;
            int error = is_a_set ? 0 : errno;
            is_b_set = evutl_setenv2(env, "B=set") == 0;
            if (const int last = set_forty_names(); last != 0)
                error = last;
            errno = error;
            return error == 0;
        })
        .check([&](const Trial &) -> const char * {
            if (!has_value("A", is_a_set ? "after" : "before") || (is_b_set && !has_value("B", "set")))
                return "not the values that were set";
            return evutl_unsetenv(env, "A") == 0 && evutl_getenv(env, "A") == nullptr ? nullptr : "not unset";
        })
        .sets_errno()
        .sweep();
    char **before = nullptr;
    bool is_in_force = false;
    on_env("evutl_override_default_environ, evutl_restore_default_environ")
        .act([&] {
            before = environ;
            if (evutl_override_default_environ(env) != 0)
                return false;
            is_in_force = is_same(getenv("A"), "before");
            return true;
        })
        .gives([&] { return is_in_force && evutl_restore_default_environ() == 0 && getenv("PATH") != nullptr; })
        .keeps([&] { return environ == before; })
        .sets_errno()
        .sweep();
}

TEST(FaultEnvironment, ProductDirectoriesAndSwitches)
{
    static char path[KS_PATH_SIZE];
    setenv("VELLUMHOME", "/from/environment", 1);
    Operation("ks_product_dir")
        .act([] { (void)ks_product_dir(path, "sub"); })
        .gives([] { return is_same(path, "/from/environment/sub"); })
        .sweep_first_use();
    unsetenv("VELLUMHOME");
    setenv("VELM_HOSTDATA_DIR", "/tmp", 1);
    Operation("ks_hostdata_dir")
        .act([] { (void)ks_hostdata_dir(path, "a", "b"); })
        .gives([] { return std::strstr(path, "/a/b") != nullptr; })
        .spares({Call::stat}) // where no directory is to be found the process ends
        .sweep_first_use();
    unsetenv("VELM_HOSTDATA_DIR");
    const auto is_set = [] { return getenv("VELM_WEB_GUI") != nullptr && getenv("KORVA_WEB_GUI") != nullptr; };
    Operation("ks_set_web_gui")
        .act([] { return ks_set_web_gui(1) == 0; })
        .gives([=](const Trial &trial) { return is_set() && !trial.failed(Call::allocation); })
        .keeps([=](const Trial &trial) { return !is_set() && trial.failed(Call::allocation); })
        .sweep_first_use();
}

// --- Option parser ---

cl_handle *clh = nullptr;
int error = 0;
char *long_option = nullptr;

TEST(FaultOptions, Handles)
{
    static char arguments[4][16] = {"tool", "-a", "--long", "word"};
    static char *argv[] = {arguments[0], arguments[1], arguments[2], arguments[3]};
    const auto is_long_option = [] { return is_same(long_option, "long"); };
    Operation("cl_getopt_long")
        .setup([] {
            clh = cl_parse_argv(4, argv, &error);
            (void)cl_getopt(clh, "a");
            long_option = nullptr;
        })
        .act([] { return (error = cl_getopt_long(clh, "a", &long_option)) == 0; })
        .gives(is_long_option)
        .keeps([=] { // the word is still to come
            return error == '?' && cl_errno(clh) == CL_OUT_OF_MEMORY && long_option == nullptr &&
                   cl_getopt_long(clh, "a", &long_option) == 0 && is_long_option();
        })
        .notices()
        .cleanup([] {
            stg_free(long_option);
            cl_destroy(&clh);
        })
        .sweep();
    const char *text = nullptr;
    Operation("cl_strerror")
        .act([&] { text = cl_strerror(CL_BAD_OPTION); })
        .gives([&] { return is_same(text, "Bad option"); })
        .sweep_first_use();
}

} // namespace
