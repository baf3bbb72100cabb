// veldepot: keeps compressed copies of files in a depot directory.
//
// The program's start and end. `veldepot help` tells what it does.
#include "depot_command.h"
#include "depot_help.h"
#include "depot_line.h"
#include "depot_report.h"

#include <korvaks/clp.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>

namespace {

// The command's name is on the thread's stack of commands while it runs.
bool run_command(const depot::CommandLine &line, stg_area *area)
{
    if (line.command == nullptr || line.has(depot::flag_help)) {
        depot::show_help(line.command);
        return true;
    }
    const char *const name = stg_area_strdup(area, depot::unbracketed(line.command->name));
    if (name == nullptr)
        return false;
    depot::Job job = {line, area, {}};
    (void)clp_push_cmd(name);
    const bool is_done = line.command->run(job);
    (void)clp_pop_cmd();
    close_depot(job.depot);
    return is_done;
}

bool run(int argc, char **argv, stg_area *area)
{
    clp_handle *handle = clp_create_hdl_using_argv(argc - 1, argv + 1, depot::general_flags(), area);
    if (handle == nullptr)
        return false;
    clp_log_command(imsg_get_app_name(), handle, nullptr);
    depot::CommandLine line;
    const bool is_done = read_line(handle, area, line) && run_command(line, area);
    (void)clp_destroy_hdl(&handle);
    return is_done;
}

} // namespace

int main(int argc, char **argv)
{
    ks_system_init();
    stg_area *area = stg_create_area(16384);
    bool is_done = false;
    if (area != STG_AREA_NULL && depot::start_messages(argv[0])) {
        is_done = run(argc, argv, area) && depot::is_output_complete();
        depot::end_messages();
    }
    if (area != STG_AREA_NULL)
        stg_delete_area(&area);
    pfm_exit(is_done ? 0 : 1);
}
