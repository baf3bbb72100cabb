// The command parser and the command history under failing calls and raises.
#include "harness/child.h"
#include "harness/fault_sweep.h"

#include <korvaks/clp.h>
#include <korvaks/stg.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using test::fault::Operation;
using test::fault::Trial;

const clp_flag_desc flags[] = {{"-a", 1, 0}, {"-o", 2, CLP_OBSOLETE_FLAG}, {nullptr, 0, 0}};
const clp_flag_desc twins[] = {{"-x", 1, 0}, {"-y", 1, 0}, {nullptr, 0, 0}};
char words[4][8] = {"tool", "-a", "b c", "-o"};
char *argv[] = {words[0], words[1], words[2], words[3], nullptr};

clp_handle *hdl = nullptr;
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

// `create` makes a handle that holds all four words; when something failed, maybe fewer.
Operation creation(const char *name, clp_handle *(*create)())
{
    return Operation(name)
        .setup([] { hdl = nullptr; })
        .act([create] { return (hdl = create()) != nullptr; })
        .gives([](const Trial &trial) {
            return (hdl->argc == 4 || trial.fired) && clp_get_next_arg(hdl, &text) == (hdl->argc > 0 ? 0 : 2);
        })
        .cleanup(destroy);
}

TEST(FaultClp, Handles)
{
    creation("clp_create_hdl_using_argv", [] {
        return clp_create_hdl_using_argv(4, argv, flags, STG_AREA_NULL);
    }).sweep();
    creation("clp_create_hdl_using_string", [] {
        return clp_create_hdl_using_string("tool -a 'b c' -o", flags, STG_AREA_NULL);
    }).sweep();
    for (const auto create : {+[] { return clp_create_hdl_using_string("tool 'b", flags, STG_AREA_NULL); },
                              +[] { return clp_create_hdl_using_argv(4, argv, twins, STG_AREA_NULL); }})
        creation("a creation that fails", create)
            .act([create] { hdl = create(); })
            .gives([] { return hdl == nullptr; })
            .sweep_raises();
    stg_area *area = STG_AREA_NULL;
    Operation("clp_save_hdl, clp_switch_flags")
        .setup([&] {
            make();
            area = stg_create_area(8); // every allocation obtains a chunk
        })
        .act([&] {
            const clp_handle *saved = clp_save_hdl(hdl);
            return clp_switch_flags(hdl, flags, area) == 0 && saved != nullptr;
        })
        .check([](const Trial &) {
            return clp_get_next_flag_value(hdl, 0, &value) == 0 && value == 1 ? nullptr : "half switched";
        })
        .cleanup([&] {
            destroy();
            stg_delete_area(&area);
        })
        .sweep();
}

TEST(FaultClp, AWarningLeavesTheScanWhole)
{
    Operation("an obsolete flag that is warned of")
        .setup([] {
            make();
            hdl->index = 3;
        })
        .act([] { (void)clp_get_next_flag_value(hdl, 0, &value); })
        .check([](const Trial &) {
            return hdl->index - 3 == static_cast<int>(hdl->constraints[1].seen) ? nullptr : "half a flag is used";
        })
        .cleanup(destroy)
        .sweep_raises();
}

TEST(FaultClp, Strings)
{
    char **split = nullptr;
    int count = 0;
    Operation splitting("clp_parse_string");
    splitting
        .setup([&] {
            split = nullptr;
            count = 0;
        })
        .act([&] { return clp_parse_string("a 'b c' d", STG_AREA_HEAP, &count, &split) == 0; })
        .gives([&](const Trial &trial) { return split != nullptr && (count == 3 || trial.fired); })
        .keeps([&] { return split == nullptr; })
        .cleanup([&] {
            for (int i = 0; i < count; ++i)
                stg_free(split[i]);
            stg_free(split);
        })
        .sweep();
    splitting.act([&] { (void)clp_parse_string("a 'b c' 'd", STG_AREA_HEAP, &count, &split); })
        .gives([&] { return split == nullptr; })
        .sweep_raises();
    Operation("clp_argv_to_string")
        .setup([] { text = nullptr; })
        .act([] { return clp_argv_to_string(4, argv, STG_AREA_HEAP, 0, &text) == 0; })
        .gives([] { return std::strcmp(text, "tool -a \"b c\" -o") == 0; })
        .keeps([] { return text == nullptr; })
        .cleanup([] { stg_free(text); })
        .sweep();
}

// A record that was begun behind another one is a fault, one that was cut short is not.
const char *check_log(const std::string &path, const Trial &trial)
{
    clp_collectdatas("last", "record");
    std::istringstream lines(test::read_file(path));
    int whole = 0;
    for (std::string line; std::getline(lines, line);) {
        const bool is_last = line.find("last") != std::string::npos;
        const bool has_id = line.find("pid") != std::string::npos;
        if (is_last && !line.ends_with(" last 'record': "))
            return "the last record is not whole";
        if (is_last && has_id)
            return "a record is glued to one that was cut";
        whole += has_id && line.ends_with("took 1 s ") ? 1 : 0;
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
    const std::string log = host.file("log/vellum_history");
    Operation("clp_log_cl_args")
        .setup([&] {
            unlink(log.c_str());
            (void)clp_get_command(); // starts the library
        })
        .act([] { clp_log_cl_args("x", 4, argv, "1 s"); })
        .check([&](const Trial &trial) { return check_log(log, trial); })
        .sweep()
        .sweep_first_use();
}

} // namespace
