// veldepot's command line: its flags and commands, lists, help, and the history of commands.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <utility>

#include <unistd.h>

#include "e2e/depot_fixture.h"
#include "harness/match.h"

namespace {

using test::ChildResult;
using test::EveryDepot;
using test::run_program;
using test::Words;

class DepotCommand : public test::DepotTest {};

TEST_F(DepotCommand, MayBeCutOff)
{
    make_dated_entries();
    const std::pair<Words, Words> cases[] = {
        {{"l"}, {"list"}},
        {{"lis"}, {"list"}},
        {{"l", "--l"}, {"list", "-long"}},
        {{"l", "--fmt", "%n", "--since", "2026-01-01"}, {"list", "-fmt", "%n", "-since", "2026-01-01"}},
        {{"l", "-s", "-d", "depot"}, {"list", "-short"}},
        {{"-hel", "g"}, {"help", "get"}},
        {{"ver", "--h"}, {"help", "verify"}},
        {{"-dep", "nowhere", "l", "--depot", "depot"}, {"list"}},
        {{"--", "list"}, {"list"}},
        {{"l", "new.txt", "-s", "old.txt"}, {"list", "-short", "old.txt", "new.txt"}}};
    EXPECT_EQ(run_program({VELDEPOT_PROGRAM, "list"}).err,
              "veldepot: Error: No depot: give its directory with -d or in VELDEPOT_DIR, or a server with -se or in "
              "VELDEPOT_SERVER.\n");
    setenv("VELDEPOT_DIR", "depot", 1);
    for (const auto &[abbreviated, whole] : cases) {
        SCOPED_TRACE(testing::PrintToString(abbreviated));
        Words command = {VELDEPOT_PROGRAM};
        command.insert(command.end(), abbreviated.begin(), abbreviated.end());
        const ChildResult result = run_program(command);
        EXPECT_EQ(result.exit_status, 0) << result.err;
        EXPECT_EQ(result.out, good(whole));
    }
}

TEST_F(DepotCommand, NamesTheWordThatIsWrong)
{
    make_dated_entries();
    const struct {
        Words words;
        std::string error;
        std::string more; // how the next line begins, "": there is none
    } cases[] = {
        {{"mend"},
         "Unknown command \"mend\"; there are put, get, list, verify, remove, status, whoami, ping, help.",
         ""},
        {{"help", "m\tnd"},
         "Unknown command \"m\\011nd\"; there are put, get, list, verify, remove, status, whoami, ping, help.",
         ""},
        {{"list", "-\033[1m"},
         "Unknown flag \"-\\033[1m\"; a name that begins with \"-\" stands behind \"--\".",
         "usage: veldepot l[ist] "},
        {{"list", "-l", "-l"}, "Illegal duplicate use of flag \"-l[ong]\"", "usage: veldepot l[ist] "},
        {{"list", "-l", "-sh"},
         "Illegal use of mutually exclusive flags \"-s[hort]\" and \"-l[ong]\"",
         "usage: veldepot l[ist] "},
        {{"put", "x", "-c"}, "Flag \"-comment\" needs an argument, TEXT.", "usage: veldepot p[ut] "},
        {{"get"}, "Too few arguments for \"get\".", "usage: veldepot g[et] "},
        {{"h", "x", "y", "z"}, "Too many arguments for \"help\": \"y\".", "usage: veldepot h[elp] "},
        {{"list", "-since", "never"},
         "\"never\" is no date; write it like yesterday, 05-Mar-24.14:03 or 2024-03-05T14:03.",
         ""},
        {{"list", "old.txt", "[o-"},
         "Bad pattern \"[o-\": a \"[\" and a \"]\" belong together, or stand behind a backslash.",
         ""},
        {{"list", "-fmt", "%Xd"}, "Bad format in control string at or near \"%Xd\".", "A format may hold %n %s "},
        {{"list", "-fmt", "%Dn"}, "Bad format in control string at or near \"%Dn\".", "A format may hold %n %s "},
        {{"list", "-fmt", "%.-4097n"}, "Bad format in control string at or near \"%.-4097n\".", "A format may hold "},
        {{"ping", "a:1", "-v", "4294967296"}, "\"4294967296\" is no number from 0 to 4294967295.", ""},
        {{"list", "-se", "a:1"}, "Two depots: a directory with -d, and that of server \"a:1\"; give one of them.", ""},
        {{"status"}, "No server: give one with -se or in VELDEPOT_SERVER.", ""},
        {{"remove", "-udp", "a"}, "No server: give one with -se or in VELDEPOT_SERVER.", ""},
        {{"ping", "a:1", "-ti", "0"}, "\"0\" is no number from 1 to 3600.", ""},
        {{"ping", "a:1", "-p", " 1"}, "\" 1\" is no number from 0 to 4294967295.", ""},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.words));
        const ChildResult result = run(one.words);
        EXPECT_EQ(result.exit_status, 2);
        EXPECT_EQ(result.out, "");
        const std::size_t end = result.err.find('\n');
        EXPECT_EQ(result.err.substr(0, end), "veldepot: Error: " + one.error);
        const std::string more = result.err.substr(end + 1);
        EXPECT_EQ(more.substr(0, one.more.size()), one.more);
        EXPECT_EQ(more.empty(), one.more.empty()) << more;
    }
    for (const std::string target : {"a", "a:", ":1", "a:0", "a:65536", "a:1x", "::1:1", "[a]:1", "[::1]", "[]:1"}) {
        const ChildResult result = run({"ping", target});
        EXPECT_EQ(result.exit_status, 2);
        EXPECT_EQ(result.err.find("veldepot: Error: \"" + target + "\" is no HOST:PORT; "), 0u) << result.err;
    }
}

TEST_F(DepotCommand, ExplainsItselfAndEveryCommand)
{
    const std::pair<std::string, std::string> pages[] = {
        {"", "[-version] [-d[epot] DIR | -se[rver] HOST:PORT] [-h[elp]] COMMAND [ARGUMENT]..."},
        {"put", "p[ut] [-n[ame] NAME] [-c[omment] TEXT]... [-r[eplace] | -nr[eplace]] [-d[epot] DIR | -se[rver] "
                "HOST:PORT] [-h[elp]] FILE..."},
        {"get", "g[et] [-o[ut] FILE] [-f[orce]] [-d[epot] DIR | -se[rver] HOST:PORT] [-h[elp]] PATTERN..."},
        {"list", "l[ist] [-l[ong] | -s[hort] | -fmt FORMAT | -0] [-since DATE] [-d[epot] DIR | -se[rver] HOST:PORT] "
                 "[-h[elp]] [PATTERN]..."},
        {"verify", "v[erify] [-u[dp]] [-d[epot] DIR | -se[rver] HOST:PORT] [-h[elp]] [PATTERN]..."},
        {"remove", "r[emove] [-y[es]] [-u[dp]] [-d[epot] DIR | -se[rver] HOST:PORT] [-h[elp]] PATTERN..."},
        {"ping", "pi[ng] [-p[rogram] NUMBER] [-v[ersion] NUMBER] [-tc[p] | -u[dp]] [-ti[meout] SECONDS] [-d[epot] DIR "
                 "| -se[rver] HOST:PORT] "
                 "[-h[elp]] HOST:PORT"},
        {"whoami", "w[hoami] [-u[dp]] [-d[epot] DIR | -se[rver] HOST:PORT] [-h[elp]]"},
        {"status", "s[tatus] [-u[dp]] [-d[epot] DIR | -se[rver] HOST:PORT] [-h[elp]]"},
        {"help", "h[elp] [-d[epot] DIR | -se[rver] HOST:PORT] [-h[elp]] [COMMAND]"},
    };
    for (const auto &[command, usage] : pages) {
        SCOPED_TRACE(command);
        const std::string page = command.empty() ? good({"help"}) : good({"help", command});
        EXPECT_EQ(page.substr(0, page.find('\n')), "usage: veldepot " + usage);
        EXPECT_EQ(page, command.empty() ? good({}) : good({command, "-help"}));
    }
    EXPECT_EQ(good({"--version"}), good({"-version"}));
    EXPECT_NE(good({"help"}).find("exit status is 0 when all was done, 1 when something failed, and 2 when"),
              std::string::npos);
    const std::string list_page = good({"help", "list"});
    for (const std::string text : {"%Dd only the day, %Sd short, %Ud in UTC\n", "%-20n left-aligned, %.10c cut off.\n",
                                   "\n%% is a percent sign, \\n ends a line, ", "\n<date-time> = "})
        EXPECT_NE(list_page.find(text), std::string::npos) << text;
}

TEST_P(EveryDepot, ListsWhatIsAskedForInTheFormThatIsAskedFor)
{
    make_dated_entries();
    const char *const traditional = "0";
    const std::string long_list =
        "NAME                SIZE          STORED  RATIO  CHECKSUM  DATE                       OWNER\n"
        "new one                3               8   267%  b37f2436  2026-01-01T00:59:59+01:00  ann\n"
        "new.txt                3               8   267%  b37f2436  2026-01-01T01:00:00+01:00  bo\\033\n"
        "    first \\377\n"
        "    second\n"
        "old.txt                3               8   267%  b37f2436  2024-03-05T14:03:59+01:00  -\n"
        "3 in all               9              24   267%\n";
    const struct {
        Words words;
        std::string out;
        const char *style = nullptr; // the usual one
    } cases[] = {
        {{"list", "-long"}, long_list},
        {{"list", "-long", "old*"},
         "NAME                SIZE          STORED  RATIO  CHECKSUM  DATE                OWNER\n"
         "old.txt                3               8   267%  b37f2436  05-Mar-24.14:03:59  -\n"
         "1 in all               3               8   267%\n",
         traditional},
        {{"list", "-s", "*.txt"}, "new.txt\nold.txt\n"},
        {{"list", "-s", "new?[nop]*", "old.txt", "n*"}, "new one\nnew.txt\nold.txt\n"},
        {{"list", "-s", "-since", "2026-01-01T00:00:00Z"}, "new.txt\n"},
        {{"list", "-s", "-since", "1-jan-26.00:59:59"}, "new one\nnew.txt\n"},
        {{"list", "-since", "2100-01-01"},
         "NAME                SIZE          STORED  CHECKSUM\n"
         "0 in all               0               0\n"},
        {{"list", "-fmt", ""}, ""},
        {{"list", "-fmt", "%-8n|%4s|%-3z|%r|%.-3k|%u|%c%[60]tx%%\\n", "ne*"},
         "new one |   3|8  |267%|436|ann|                            x%\n"
         "new.txt |   3|8  |267%|436|bo\\033|first \\377\\012second     x%\n"},
        {{"list", "-fmt", "%d %Dd %Ud %m\\n"},
         "2026-01-01T00:59:59+01:00 2026-01-01 2025-12-31T23:59:59Z 2009-02-14T00:31:30+01:00\n"
         "2026-01-01T01:00:00+01:00 2026-01-01 2026-01-01T00:00:00Z @-1\n"
         "2024-03-05T14:03:59+01:00 2024-03-05 2024-03-05T13:03:59Z 2024-03-05T14:03:59+01:00\n"},
        {{"list", "-fmt", "%d %Dd %Ud %Sd\\n", "old.txt"},
         "05-Mar-24.14:03:59 05-Mar-24 05-Mar-24.13:03:59UTC 05-Mar-2024\n",
         traditional},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.words));
        if (one.style != nullptr)
            setenv("VELM_ISO_DATE_FMT", one.style, 1);
        else
            unsetenv("VELM_ISO_DATE_FMT");
        EXPECT_EQ(good(one.words), one.out);
    }
}

TEST_P(EveryDepot, PutReplacesUnlessToldNotTo)
{
    put("file", "1");
    test::write_file("file", "22");
    EXPECT_EQ(run({"put", "-nreplace", "-comment", "lost", "file"}).err,
              "veldepot: Error: Entry \"file\" exists and was not replaced.\n");
    EXPECT_EQ(good({"list", "-fmt", "%s,%c"}), "1,");
    good({"put", "-replace", "-c", "kept", "file"});
    EXPECT_EQ(good({"list", "-fmt", "%s,%c"}), "2,kept");
    good({"put", "file"});
    EXPECT_EQ(good({"list", "-fmt", "%s,%c,%u"}), "2,," + test::user_name());

    for (int round = 0; round < 10; ++round) {
        const std::string name = "new" + std::to_string(round);
        test::write_file(name, test::random_bytes(50000, 1));
        std::vector<std::unique_ptr<test::Child>> writers;
        for (int i = 0; i < 3; ++i)
            writers.push_back(start({"put", "-nr", name}));
        const auto wins =
            std::ranges::count_if(writers, [](auto &writer) { return writer->finish().exit_status == 0; });
        EXPECT_EQ(wins, 1);
    }
    EXPECT_EQ(asides(), Words{});
}

TEST_F(DepotCommand, IsKeptInTheHostsHistory)
{
    for (const char *built_in : {"/var/adm/vellum", "/var/adm/korva"})
        if (std::filesystem::exists(built_in))
            GTEST_SKIP() << built_in << " would be the host-data directory";
    std::filesystem::create_directories("host/config");
    std::filesystem::create_directories("host/log");
    const std::string log = "host/log/vellum_history";
    const std::string host = home_.file("host");
    setenv("VELM_HOSTDATA_DIR", host.c_str(), 1);
    put("not kept", "1");
    EXPECT_FALSE(std::filesystem::exists(log));
    test::write_file("host/config/collect_history", "");
    put("a b", "1");
    EXPECT_EQ(run({"mend", "a\nb"}).exit_status, 2);
    unsetenv("VELM_HOSTDATA_DIR");
    put("not kept", "1");
    const std::string line = "[0-9]{4}(:[0-9]{2}){5}\\.[0-9]{3} \\(uid=" + std::to_string(geteuid()) +
                             "\\) \\(pid=[0-9]+\\) veldepot '-d' 'depot' ";
    const std::string expected = line + "'put' '--' 'a b' in /[^\n]*\n" + line + "'mend' 'a\\?b' in /[^\n]*\n";
    EXPECT_TRUE(test::matches(test::read_file(log), expected)) << test::read_file(log);
}

INSTANTIATE_TEST_SUITE_P(Reached, EveryDepot, test::every_way, test::name_of_way);

} // namespace
