// veldepot: keeps compressed copies of files in a depot directory.
//
// The program's start and end. `veldepot help` tells what it does.
#include "depot_command.h"
#include "depot_help.h"
#include "depot_line.h"
#include "depot_process.h"
#include "depot_report.h"

#include <korvaks/clp.h>
#include <korvaks/ks_product.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

namespace {

using depot::Status;

constinit std::atomic<int> end_signal{0};

extern "C" void note_signal(int signal)
{
    end_signal = signal;
    pfm_notify_vl_thread(PFM_RAISE_INTERRUPT);
}

// A program that a signal ends ends by that signal, after it has tidied up: a shell that sees it stops its loop,
// too. It is blocked here, as all are that the signal-handler thread took.
extern "C" void end_process(int status)
{
    if (const int signal = end_signal; status == PFM_RAISE_INTERRUPT && signal != 0) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signal);
        (void)std::signal(signal, SIG_DFL);
        (void)std::raise(signal);
        (void)pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    }
    std::exit(status);
}

// Runs a command under a cleanup record: when it ends, and also when Ctrl-C ends it, everything that it holds is
// given back and no half file is left.
//
// The job belongs to the caller: a variable of this function that the command changes would be indeterminate
// after the jump.
Status run_protected(depot::Job &job)
{
    pfm_cleanup_rec record = {};
    record.status = sigsetjmp(record.jump, 1);
    if (const int32_t raised = pfm_cleanup_start(&record, 0); raised != 0) {
        job.store->close();
        depot::erase_progress();
        pfm_raise(raised); // on to the end of the program
        return Status::failed;
    }
    const Status status = job.line.command->run(job);
    pfm_cleanup_rls(&record);
    job.store->close();
    return status;
}

// The command's name is on the thread's stack of commands while it runs.
Status run_command(const depot::CommandLine &line, stg_area *area)
{
    if (line.has(depot::flag_version)) {
        depot::report(IMSG_OUTPUT, depot::msg_version, VELDEPOT_VERSION);
        return Status::done;
    }
    if (line.command == nullptr || line.has(depot::flag_help)) {
        depot::show_help(line.command);
        return Status::done;
    }
    const char *const name = stg_area_strdup(area, depot::unbracketed(line.command->name));
    if (name == nullptr)
        return Status::failed;
    depot::Job job = {line, area, {}, {}};
    (void)clp_push_cmd(name);
    const Status status = run_protected(job);
    (void)clp_pop_cmd();
    return status;
}

Status run(int argc, char **argv, stg_area *area)
{
    clp_handle *handle = clp_create_hdl_using_argv(argc - 1, argv + 1, depot::general_flags(), area);
    if (handle == nullptr)
        return Status::failed;
    clp_log_command(imsg_get_app_name(), handle, nullptr);
    depot::CommandLine line;
    const Status status = read_line(handle, area, line) ? run_command(line, area) : Status::misused;
    (void)clp_destroy_hdl(&handle);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    depot::fill_standard_streams();
    ks_system_init();
    depot::handle_stop_signals(note_signal);
    (void)pfm_set_exit(end_process);
    stg_area *area = stg_create_area(16384);
    Status status = Status::failed;
    if (area != STG_AREA_NULL && depot::start_messages(argv[0])) {
        status = run(argc, argv, area);
        if (!depot::check_output() && status == Status::done)
            status = Status::failed;
        depot::end_messages();
    }
    if (area != STG_AREA_NULL)
        stg_delete_area(&area);
    pfm_exit(static_cast<int>(status));
}
