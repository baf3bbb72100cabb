// The command parser and the command history under failing calls and raises.
#include "harness/child.h"
#include "harness/fault_sweep.h"

#include <korvaks/clp.h>
#include <korvaks/stg.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::Scenario;
using test::fault::Trial;

const clp_flag_desc flags[] = {{"-a", 1, 0}, {"-o", 2, CLP_OBSOLETE_FLAG}, {nullptr, 0, 0}};
const clp_flag_desc twins[] = {{"-x", 1, 0}, {"-y", 1, 0}, {nullptr, 0, 0}};
char words[4][8] = {"tool", "-a", "b c", "-o"};
char *argv[] = {words[0], words[1], words[2], words[3], nullptr};

clp_handle *hdl = nullptr;
clp_handle *saved = nullptr;
stg_area *area = nullptr;
char **split_words = nullptr;
int count = 0;
int result = 0;
char *text = nullptr;
std::uint32_t value = 0;

void destroy()
{
    if (hdl != nullptr)
        clp_destroy_hdl(&hdl);
}

void make()
{
    hdl = clp_create_hdl_using_argv(4, argv, flags, STG_AREA_NULL);
    (void)clp_get_next_arg(hdl, &text);
}

TEST(FaultClp, Handles)
{
    Scenario creation{
        .name = "clp_create_hdl_using_argv",
        .act = [] { hdl = clp_create_hdl_using_argv(4, argv, flags, STG_AREA_NULL); },
        .check = [](const Trial &trial) -> const char * {
            if (hdl == nullptr)
                return trial.fired ? nullptr : "refused without a cause";
            if (hdl->argc != 4 && !trial.fired)
                return "words are missing";
            return clp_get_next_arg(hdl, &text) == (hdl->argc > 0 ? 0 : 2) ? nullptr : "not the words";
        },
        .cleanup = destroy,
    };
    test::fault::sweep(creation);
    creation.name = "clp_create_hdl_using_string";
    creation.act = [] { hdl = clp_create_hdl_using_string("tool -a 'b c' -o", flags, STG_AREA_NULL); };
    test::fault::sweep(creation);
    for (const auto act : {+[] { hdl = clp_create_hdl_using_string("tool 'b", flags, STG_AREA_NULL); },
                           +[] { hdl = clp_create_hdl_using_argv(4, argv, twins, STG_AREA_NULL); }})
        test::fault::sweep_raises({
            .name = "a creation that fails",
            .setup = [] { hdl = nullptr; },
            .act = act,
            .check = [](const Trial &) { return hdl == nullptr ? nullptr : "half a handle"; },
        });
    test::fault::sweep({
        .name = "clp_save_hdl, clp_switch_flags",
        .setup =
            [] {
                make();
                area = stg_create_area(8); // every allocation obtains a chunk
            },
        .act =
            [] {
                saved = clp_save_hdl(hdl);
                result = clp_switch_flags(hdl, flags, area);
            },
        .check = [](const Trial &trial) -> const char * {
            if ((saved == nullptr || result != 0) && !trial.fired)
                return "refused without a cause";
            return clp_get_next_flag_value(hdl, 0, &value) == 0 && value == 1 ? nullptr : "half switched";
        },
        .cleanup =
            [] {
                destroy();
                stg_delete_area(&area);
            },
    });
}

TEST(FaultClp, AWarningLeavesTheScanWhole)
{
    test::fault::sweep_raises({
        .name = "an obsolete flag that is warned of",
        .setup =
            [] {
                make();
                hdl->index = 3;
            },
        .act = [] { (void)clp_get_next_flag_value(hdl, 0, &value); },
        .check = [](const Trial &) -> const char * {
            return hdl->index - 3 == static_cast<int>(hdl->constraints[1].seen) ? nullptr : "half a flag is used";
        },
        .cleanup = destroy,
    });
}

TEST(FaultClp, Strings)
{
    Scenario splitting{
        .name = "clp_parse_string",
        .setup =
            [] {
                split_words = nullptr;
                count = 0;
            },
        .act = [] { result = clp_parse_string("a 'b c' d", STG_AREA_HEAP, &count, &split_words); },
        .check = [](const Trial &trial) -> const char * {
            const bool is_whole = result == 0 && count == 3;
            if (!is_whole && !trial.fired)
                return "words are missing";
            return (result == 0) == (split_words != nullptr) ? nullptr : "half a result";
        },
        .cleanup =
            [] {
                for (int i = 0; i < count; ++i)
                    stg_free(split_words[i]);
                stg_free(split_words);
            },
    };
    test::fault::sweep(splitting);
    splitting.name = "clp_parse_string that fails";
    splitting.act = [] { result = clp_parse_string("a 'b c' 'd", STG_AREA_HEAP, &count, &split_words); };
    splitting.check = [](const Trial &) { return split_words == nullptr ? nullptr : "half a result"; };
    test::fault::sweep_raises(splitting);
    test::fault::sweep({
        .name = "clp_argv_to_string",
        .setup = [] { text = nullptr; },
        .act = [] { result = clp_argv_to_string(4, argv, STG_AREA_HEAP, 0, &text); },
        .check = [](const Trial &trial) -> const char * {
            if (result != 0)
                return trial.fired && text == nullptr ? nullptr : "refused without a cause";
            return std::strcmp(text, "tool -a \"b c\" -o") == 0 ? nullptr : "not the text";
        },
        .cleanup = [] { stg_free(text); },
    });
}

std::string log_path;

// A record that was begun behind another one is a fault, one that was cut short is not.
const char *check_log(const Trial &trial)
{
    clp_collectdatas("last", "record");
    std::istringstream lines(access(log_path.c_str(), F_OK) == 0 ? test::read_file(log_path) : "");
    int whole = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("last") != std::string::npos && !line.ends_with(" last 'record': "))
            return "the last record is not whole";
        if (line.find("last") != std::string::npos && line.find("pid") != std::string::npos)
            return "a record is glued to one that was cut";
        whole += line.find("pid") != std::string::npos && line.ends_with("took 1 s ") ? 1 : 0;
    }
    return whole == 1 || trial.fired ? nullptr : "no record";
}

TEST(FaultClp, History)
{
    if (access("/var/adm/vellum", F_OK) == 0 || access("/var/adm/korva", F_OK) == 0)
        GTEST_SKIP() << "this host has a data directory that no test may write to";
    const test::TempDir host;
    setenv("VELM_HOSTDATA_DIR", host.path().c_str(), 1);
    mkdir(host.file("config").c_str(), 0755);
    mkdir(host.file("log").c_str(), 0755);
    test::write_file(host.file("config/collect_history"), "");
    log_path = host.file("log/vellum_history");
    const Scenario scenario{
        .name = "clp_log_cl_args",
        .setup =
            [] {
                unlink(log_path.c_str());
                (void)clp_get_command(); // starts the library
            },
        .act = [] { clp_log_cl_args("x", 4, argv, "1 s"); },
        .check = check_log,
    };
    test::fault::sweep(scenario);
    test::fault::sweep_first_use(scenario);
}

} // namespace
