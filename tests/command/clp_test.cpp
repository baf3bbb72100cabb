// The command parser, as a tool sees it: tables, the scan, handles, and the command stack.
#include <korvaks/clp.h>
#include <korvaks/imsg.h>

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "harness/child.h"

namespace {

using Words = std::vector<std::string>;
using Table = const clp_flag_desc *;

const clp_flag_desc flags[] = {{"-c[omment]", 1, 0},
                               {"-nc", 2, 0},
                               CLP_START_MUTUAL_EXCLUSION,
                               {"-a", 3, 0},
                               {"-b", 4, 0},
                               {"-r[ep]", 5, CLP_REPEATABLE_FLAG},
                               {"-A", 3, CLP_ALIAS_FLAG},
                               CLP_END_MUTUAL_EXCLUSION,
                               {"-m[any]", 6, CLP_REPEATABLE_FLAG},
                               {"-old", 7, CLP_OBSOLETE_FLAG},
                               {"-alt", 7, CLP_ALIAS_FLAG},
                               {"-out", 4, CLP_ALIAS_FLAG | CLP_OBSOLETE_FLAG},
                               {"-bra[cket]", 8, 0},
                               {nullptr, 0, 0}};
const clp_flag_desc other_flags[] = {{"-a", 10, 0}, {"-z", 11, 0}, {nullptr, 0, 0}};
const clp_flag_desc twins[] = {{"-x", 1, 0}, {"-X", 1, CLP_ALIAS_FLAG}, {"-y", 1, 0}, {nullptr, 0, 0}};

// Messages of a child in the place of standard error: " {Error: text}".
std::string said;

void take_messages()
{
    const imsg_output_proc keep = [](void *, const char *text) {
        std::string line(text);
        if (line.starts_with("noname: "))
            line.erase(0, 8);
        said += " {" + line.substr(0, line.find('\n')) + "}";
    };
    const imsg_redirect_procs procs{{keep, keep, keep, keep, keep, keep, keep, keep, keep, keep, keep}};
    imsg_set_redirect_procs(&procs, nullptr);
}

template <typename Call> std::string text_of(Call call, clp_handle *hdl)
{
    char *text = nullptr;
    const int result = call(hdl, &text);
    if (text == nullptr)
        return result == 2 ? "none" : "?";
    return result == 0 ? "'" + std::string(text) + "'" : "?";
}

// Makes calls by their letters: f(lag), q(uiet flag), a(rgument), s(ubargument), u(nget), n(ame), N(ame stripped).
std::string make_call(clp_handle *hdl, char call)
{
    char name[8] = "?";
    std::uint32_t value = 99;
    switch (call) {
    case 'f':
    case 'q': {
        const int result = clp_get_next_flag_value(hdl, call == 'q', &value);
        if (result != 0)
            return value != UINT32_MAX ? "a value" : result == 1 ? "error" : "end";
        return std::to_string(value);
    }
    case 'a':
        return text_of(clp_get_next_arg, hdl);
    case 's':
        return text_of(clp_get_next_subarg, hdl);
    case 'u':
        return clp_unget_arg(hdl) == 0 ? "back" : "first";
    default:
        return clp_get_last_flag_name(hdl, call == 'N', sizeof name, name) == 0 ? name : "no name";
    }
}

std::string make_calls(clp_handle *hdl, const std::string &calls)
{
    std::string results;
    said.clear();
    for (const char call : calls) {
        results += (results.empty() ? "" : " ") + make_call(hdl, call);
        results += std::exchange(said, "");
    }
    return results;
}

// Runs `body` in a child of which it returns what it has printed.
std::string output_of(const std::function<void()> &body)
{
    const test::ChildResult result = test::run_child([&] {
        take_messages();
        body();
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, "");
    return result.out;
}

std::string scan(Words words, const std::string &calls)
{
    return output_of([&] {
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        clp_handle *hdl = clp_create_hdl_using_argv(static_cast<int>(argv.size()), argv.data(), flags, STG_AREA_NULL);
        std::fputs(make_calls(hdl, calls).c_str(), stdout);
        clp_destroy_hdl(&hdl);
    });
}

TEST(ClpScan, TakesFlagsWordsAndLists)
{
    const struct {
        Words words;
        const char *calls;
        const char *results;
    } cases[] = {
        {{"-com", "-nc", "f"}, "fffa", "1 2 end 'f'"},
        {{"-c"}, "nffnNu", "no name 1 end -c[omme -commen back"},
        {{"-comment]"}, "fN", "1 -commen"},
        {{"-commentx"}, "fqna", "error {Error: Unrecognized option \"-commentx\"} error no name '-commentx'"},
        {{"-C"}, "f", "error {Error: Unrecognized option \"-C\"}"},
        {{"-"}, "f", "error {Error: Unrecognized option \"-\"}"},
        {{"-bra", "-b"}, "ff", "8 4"},
        {{"-bra[", "-bracket"}, "qaf", "error '-bra[' 8"},
        {{"-a", "-b"}, "ffna", "3 error {Error: Illegal use of mutually exclusive flags \"-b\" and \"-a\"} -b '-b'"},
        {{"-A", "-r"}, "ff", "3 error {Error: Illegal use of mutually exclusive flags \"-r[ep]\" and \"-a\"}"},
        {{"-a", "-a"}, "ff", "3 error {Error: Illegal duplicate use of flag \"-a\"}"},
        {{"-a", "-A"}, "ff", "3 error {Error: Illegal duplicate use of flag \"-A\"}"},
        {{"-r", "-rep", "-m", "-r", "-a"},
         "fffff",
         "5 5 6 5 error {Error: Illegal use of mutually exclusive flags \"-a\" and \"-r[ep]\"}"},
        // An alias outside a group reaches a flag inside, and is not excluded by the others.
        {{"-a", "-out"}, "ff", "3 4 {Warning: Obsolete command or flag: \"-out\"}"},
        {{"-alt", "-old"}, "ff", "7 error {Error: Illegal duplicate use of flag \"-old\"}"},
        {{"--", "-c", "--"}, "ffaafu", "end end '-c' '--' end back"},
        {{"f", "", "-c"}, "fafaf", "end 'f' end '' 1"},
        {{"Start Mutual Exclusion"}, "fa", "end 'Start Mutual Exclusion'"},
        {{}, "fasu", "end none none first"},
        {{"-c", "a,b,c", "d"}, "fsssssssa", "1 'a' 'b' 'c' none 'd' none none none"},
        {{"-c", ",x,"}, "fssssa", "1 '' 'x' '' none none"},
        {{"-c", "a,b", "f"}, "fassa", "1 'a,b' 'a' 'b' 'f'"}, // the word was taken already
        {{"-c", "a,b"}, "fsua", "1 'a' back 'a'"},            // the comma is gone for good
    };
    for (const auto &one : cases)
        EXPECT_EQ(scan(one.words, one.calls), one.results) << testing::PrintToString(one.words);
}

TEST(ClpScan, ObsoleteSyntaxIsWhatTheEnvironmentSays)
{
    const std::string warned = " {Warning: Obsolete command or flag: \"-old\"} ";
    const std::string syntax = "Obsolete syntax was used.}";
    const std::string by_default = "7" + warned + "0 {Warning: " + syntax;
    const std::string failing = "error {Error: Obsolete command or flag: \"-old\"} 1 {Error: " + syntax;
    const std::pair<const char *, std::string> cases[] = {
        {nullptr, by_default}, {"WARN", by_default}, {"fail", failing}, {"", "7 0"}, {"fails", "7 0"},
    };
    for (const auto &[value, expected] : cases) {
        value == nullptr ? unsetenv("VELLUM_OBSO_SYN") : setenv("VELLUM_OBSO_SYN", value, 1);
        std::string got = output_of([] {
            char line[] = "-old";
            clp_handle *hdl = clp_create_hdl_using_string(line, flags, STG_AREA_NULL);
            const std::string flag = make_calls(hdl, "f");
            const int result = clp_check_obsolete();
            std::printf("%s %d%s", flag.c_str(), result, said.c_str());
            clp_destroy_hdl(&hdl);
        });
        for (std::size_t at; (at = got.find("}  ")) != std::string::npos;)
            got.erase(at + 1, 1);
        EXPECT_EQ(got, expected) << (value == nullptr ? "unset" : value);
    }
    unsetenv("VELLUM_OBSO_SYN");
}

// What a handle does in one of these: its scan, the scan when it was restored, and three switches of flags.
std::string life_in(stg_area *given, stg_area *area)
{
    clp_handle *hdl = clp_create_hdl_using_string("tool -a 'x y' -b", flags, given);
    clp_handle *saved = clp_save_hdl(hdl);
    std::string text = make_calls(hdl, "afan") + " | ";
    hdl->magic = CLP_MAGIC;
    (void)clp_restore_hdl(hdl, saved);
    text += make_calls(hdl, "naf") + " | "; // flags stay used
    for (const auto &[table, where] : {std::pair{other_flags, STG_AREA_NULL}, {twins, area}, {other_flags, area}}) {
        text += std::to_string(clp_switch_flags(hdl, table, where));
        text += std::exchange(said, "");
    }
    text += " " + make_calls(hdl, "nfaf");
    clp_destroy_hdl(&hdl);
    return hdl == nullptr ? text : "not destroyed";
}

TEST(ClpHandle, LivesInAnAreaOfItsOwnOrTheCallers)
{
    const std::string refused = "1 {Error: Bad flag descriptors: \"-x\" and \"-y\" have the same value. Define one as "
                                "CLP_ALIAS_FLAG}";
    const std::string scanned =
        "'tool' 3 'x y' -a | no name 'tool' error {Error: Illegal duplicate use of flag \"-a\"} "
        "| ";
    const std::string switched = refused + "0 no name 10 'x y' error {Error: Unrecognized option \"-b\"}";
    test::in_child([&] {
        take_messages();
        stg_area *area = stg_create_area(100);
        EXPECT_EQ(life_in(area, area),
                  scanned + "1 {Error: NULL STORAGE AREA: Cannot switch parsing flags}" + switched);
        for (stg_area *const given : {STG_AREA_NULL, STG_AREA_HEAP})
            EXPECT_EQ(life_in(given, area), scanned + "0" + switched);
        stg_delete_area(&area);
        EXPECT_EQ(clp_create_hdl_using_string("-x", twins, STG_AREA_NULL), nullptr);
        EXPECT_EQ("1" + std::exchange(said, ""), refused);
        EXPECT_EQ(clp_create_hdl_using_string("'open", twins, STG_AREA_NULL), nullptr); // one report is enough
        EXPECT_EQ(said, " {Error: Bad command line: unterminated quoted string}");
    });
}

TEST(ClpDeathTest, MisuseEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const clp_flag_desc nested[] = {CLP_START_MUTUAL_EXCLUSION, CLP_START_MUTUAL_EXCLUSION, {nullptr, 0, 0}};
    const clp_flag_desc unopened[] = {CLP_END_MUTUAL_EXCLUSION, {nullptr, 0, 0}};
    // The flag lies before the group of the alias, or behind it.
    const clp_flag_desc before[] = {
        {"-x", 1, 0}, CLP_START_MUTUAL_EXCLUSION, {"-y", 1, CLP_ALIAS_FLAG}, {nullptr, 0, 0}};
    const clp_flag_desc beyond[] = {
        CLP_START_MUTUAL_EXCLUSION, {"-y", 1, CLP_ALIAS_FLAG}, CLP_END_MUTUAL_EXCLUSION, {"-x", 1, 0}, {nullptr, 0, 0}};
    char word[] = "-a";
    char *argv[] = {word, nullptr};
    const auto make = [&](Table table) { return clp_create_hdl_using_argv(1, argv, table, STG_AREA_NULL); };
    std::uint32_t value = 0;
    clp_handle *hdl = make(flags);
    clp_handle *none = nullptr;

    EXPECT_DEATH(make(nested), "cannot have nested CLP_START_MUTUAL_EXCLUSIONs");
    EXPECT_DEATH(clp_switch_flags(hdl, unopened, STG_AREA_NULL), "END_MUTUAL_EXCLUSION without matching CLP_START");
    EXPECT_DEATH(make(before), "alias flag \"-y\" defined without");
    EXPECT_DEATH(make(beyond), "alias flag \"-y\" defined without");
    EXPECT_DEATH(clp_destroy_hdl(&none), "NULL HANDLE: Command line parsing handle");
    EXPECT_DEATH(clp_log_command("x", none, nullptr), "NULL HANDLE");
    const clp_handle good = *hdl;
    const std::pair<void (*)(clp_handle *), const char *> cases[] = {
        {[](clp_handle *h) { h->descriptors = nullptr; }, "BAD FLAGS PTR"},
        {[](clp_handle *h) { h->constraints = nullptr; }, "BAD CONSTRAINTS PTR"},
        {[](clp_handle *h) { h->magic = 0; }, "BAD MAGIC"},
        {[](clp_handle *h) { h->argv = nullptr; }, "BAD ARGV PTR"},
        {[](clp_handle *h) { h->argc = 2, h->index = 1; }, "BAD ARGV ARRAY"},
    };
    for (const auto &[spoil, message] : cases) {
        *hdl = good;
        spoil(hdl);
        EXPECT_DEATH(clp_get_next_flag_value(hdl, 0, &value), message);
    }
    *hdl = good;
    clp_destroy_hdl(&hdl);
}

// --- The command stack ---

std::string stack_text(std::uint32_t *generation)
{
    const char *text = clp_get_cmd_stack(generation);
    return text == nullptr ? "unchanged" : text;
}

TEST(ClpStack, StoresTenAndCountsTheRest)
{
    const test::ChildResult result = test::run_child([] {
        std::uint32_t generation = 0;
        Words got{stack_text(&generation)};
        clp_push_cmd("A");
        clp_push_cmd("B");
        got.push_back(stack_text(&generation));
        clp_pop_cmd();
        clp_pop_cmd();
        got.push_back(stack_text(&generation)); // empty: the last text again
        clp_pop_cmd();                          // one too many
        got.push_back(stack_text(&generation));
        for (const char *name : {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11"})
            clp_push_cmd(name);
        got.push_back(stack_text(&generation));
        clp_pop_cmd(); // of depth 11, for the one that was one too many
        got.push_back(stack_text(&generation));
        clp_pop_cmd();
        got.push_back(stack_text(&generation));
        std::thread([&] {
            std::uint32_t other = 7;
            got.push_back("thread " + stack_text(&other));
        }).join();
        for (const std::string &text : got)
            std::printf("%s\n", text.c_str());
    });
    EXPECT_EQ(result.out, "unchanged\nA:B:\nA:B:\nunchanged\n0:1:2:3:4:5:6:7:8:9:\nunchanged\n"
                          "0:1:2:3:4:5:6:7:8:\nthread \n");
}

TEST(ClpStackDeathTest, ATextOf250BytesEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string half(124, 'x');
    const auto build = [&](const std::string &rest) {
        std::uint32_t generation = 0;
        clp_push_cmd(half.c_str());
        clp_push_cmd(rest.c_str());
        return std::string(clp_get_cmd_stack(&generation)).size();
    };
    EXPECT_DEATH(build(half), "PFM_ASSERT:\\(ptr < CLP_MAX_STACK_STRING\\) failed: 'lib/ks/clp'");
    EXPECT_EQ(build(half.substr(1)), 249u);
}

} // namespace
