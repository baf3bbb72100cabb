// Procedures in the place of streams, the settings of heads and tags, and the program name.
#include "messages/imsg_impl.h"

#include "kernel/stg_quiet.h"

#include <korvaks/tls_impl.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>

namespace ks::imsg {

namespace {

constexpr std::size_t out_slots = IMSG_OUTPUT_MORE + 1; // kinds that go to standard output

bool is_procedure(imsg_output_proc proc)
{
    return proc != nullptr && proc != IMSG_PROC_SUPPRESS && proc != imsg_default_output;
}

void set_channels(const Slot &out, const Slot &err)
{
    start();
    const IoLockGuard lock(ks_product_crit);
    state.old_out = out;
    state.old_err = err;
    for (std::size_t kind = 0; kind < state.slots.size(); ++kind)
        state.slots[kind] = kind < out_slots ? out : err;
}

template <typename Value> void give(Value *out, Value value)
{
    if (out != nullptr)
        *out = value;
}

// The bytes read, 0 when there is no /proc.
std::size_t read_command_line(char *buffer, std::size_t size)
{
    const UniqueFd file(open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC));
    ssize_t got;
    do
        got = file ? read(file.get(), buffer, size) : 0;
    while (got < 0 && errno == EINTR);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

// The words of this process's command line: the start of it, which is all that the history keeps.
void log_command_line(const char *name)
{
    char text[1024];
    std::array<char *, 128> words{};
    const std::size_t length = read_command_line(text, sizeof text - 1);
    text[length] = '\0';
    int count = 0;
    // The first word is the program, which `name` stands for.
    for (std::size_t at = std::strlen(text) + 1; at < length && count < static_cast<int>(words.size());) {
        words[static_cast<std::size_t>(count++)] = text + at;
        at += std::strlen(text + at) + 1;
    }
    clp_log_cl_args(name, count, words.data(), nullptr);
}

// NULL when memory is exhausted.
char *copy_of(const char *text)
{
    const std::size_t size = std::strlen(text) + 1;
    auto *copy = static_cast<char *>(heap_try_malloc(size));
    if (copy != nullptr)
        std::memcpy(copy, text, size);
    return copy;
}

// The part after the last "/".
const char *last_component(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

} // namespace

} // namespace ks::imsg

using ks::imsg::state;

extern "C" {

void imsg_default_output(void *info, const char *text)
{
    (void)info;
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    (void)imsg_fputs(text, state.real_out); // a procedure has no one to tell
}

void imsg_set_redirect_procs(const imsg_redirect_procs *procs, void *info)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    for (std::size_t kind = 0; kind < state.slots.size(); ++kind) {
        if (procs == nullptr)
            state.slots[kind] = {};
        else
            state.slots[kind] = {procs->proc[kind], info};
    }
}

void imsg_get_redirect_procs(imsg_redirect_procs *out_procs, void **out_info)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    for (std::size_t kind = 0; out_procs != nullptr && kind < state.slots.size(); ++kind)
        out_procs->proc[kind] = state.slots[kind].proc;
    ks::imsg::give(out_info, state.slots[0].info);
}

void imsg_redirect_output(imsg_output_proc out_proc, void *out_info, imsg_output_proc err_proc, void *err_info)
{
    ks::imsg::set_channels({out_proc, out_info}, {err_proc, err_info});
}

void imsg_get_redirect_info(imsg_output_proc *out_proc, void **out_info, imsg_output_proc *err_proc, void **err_info)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    ks::imsg::give(out_proc, state.old_out.proc);
    ks::imsg::give(out_info, state.old_out.info);
    ks::imsg::give(err_proc, state.old_err.proc);
    ks::imsg::give(err_info, state.old_err.info);
}

void imsg_use_window(const imsg_window *window)
{
    ks::imsg::Slot both;
    if (window != nullptr)
        both = {window->proc, window->info};
    ks::imsg::set_channels(both, both);
}

int imsg_in_gui(void)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    return ks::imsg::is_procedure(state.slots[0].proc) ? 1 : 0;
}

void imsg_set_clock_callback(imsg_clock_proc proc, void *arg)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    state.clock = proc;
    state.clock_arg = arg;
}

void imsg_clock(void)
{
    ks::imsg::start();
    imsg_clock_proc proc = nullptr;
    void *arg = nullptr;
    {
        const ks::IoLockGuard lock(ks::ks_product_crit);
        proc = state.clock;
        arg = state.clock_arg;
    }
    if (proc != nullptr)
        proc(arg);
}

void imsg_ate_enable_tagging(void)
{
    ks::imsg::start();
    ks::imsg::ate_enabled.store(true, std::memory_order_relaxed);
}

void imsg_ate_disable_tagging(void)
{
    ks::imsg::start();
    ks::imsg::ate_enabled.store(false, std::memory_order_relaxed);
}

int imsg_ate_tagging_is_enabled(void)
{
    ks::imsg::start();
    return ks::imsg::ate_enabled.load(std::memory_order_relaxed) ? 1 : 0;
}

int imsg_output_subsys(int on)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    return std::exchange(state.subsystem_display, on != 0) ? 1 : 0;
}

int imsg_suppress_prefix(int on)
{
    ks::imsg::start();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    return std::exchange(state.prefix_suppressed, on != 0) ? 1 : 0;
}

void imsg_set_app_name(const char *argv0)
{
    ks::imsg::start();
    char *name = argv0 == nullptr ? nullptr : ks::imsg::copy_of(ks::imsg::last_component(argv0));
    if (argv0 != nullptr && name == nullptr)
        return; // memory is exhausted: the name stays
    {
        const ks::IoLockGuard lock(ks::ks_product_crit);
        stg_free_int(std::exchange(state.app_name, name), 1);
    }
    if (ks::imsg::is_module_traced())
        ks::imsg::log_command_line(imsg_get_app_name());
}

const char *imsg_get_app_name(void)
{
    ks::imsg::start();
    imsg_tls &section = ks::imsg::thread_section();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    const char *name = ks::imsg::app_name();
    const std::size_t size = std::strlen(name) + 1;
    if (!ks::imsg::make_room(section.app_name, section.app_name_size, size))
        return section.app_name == nullptr ? "noname" : section.app_name; // the last copy it could make
    std::memcpy(section.app_name, name, size);
    return section.app_name;
}
}
