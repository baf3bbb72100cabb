// The behaviour switches of the environment.
#include <korvaks/ks_product.h>

#include "base/ks_base.h"
#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <korvaks/evutl.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

// Texts put together at compile time.
struct EntryText {
    consteval EntryText(std::string_view prefix, std::string_view name, std::string_view rest)
    {
        char *end = std::copy(prefix.begin(), prefix.end(), bytes);
        end = std::copy(name.begin(), name.end(), end);
        std::copy(rest.begin(), rest.end(), end);
    }

    char bytes[24] = {};
};

enum class SwitchState : uint8_t { unread, off, on };

// The variables of a switch are VELM_ and KORVA_ and its name.
struct Switch {
    consteval Switch(std::string_view name, unsigned flags)
        : velm_name("VELM_", name, ""),
          korva_name("KORVA_", name, ""), velm_entries{{"VELM_", name, "="}, {"VELM_", name, "=1"}},
          korva_entries{{"KORVA_", name, "="}, {"KORVA_", name, "=1"}}, korva_flags(flags)
    {
    }

    const EntryText velm_name;
    const EntryText korva_name;
    // What a setter puts into the environment, off and on. The environment keeps the pointers, so a
    // change of mind puts in the other one instead of writing into what somebody may be reading.
    EntryText velm_entries[2];
    EntryText korva_entries[2];
    unsigned korva_flags;                                // how the second variable is read
    std::atomic<SwitchState> state{SwitchState::unread}; // written once, under ks_product_crit, and read without it
};

constinit Switch force_gui{"FORCE_GUI", EVUTL_GETENV_NONEMPTY};
constinit Switch web_gui{"WEB_GUI", EVUTL_GETENV_NONEMPTY};
constinit Switch cte_dynamic{"CTE_DYNAMIC", EVUTL_GETENV_NONEMPTY};
constinit Switch web_velprompt{"WEB_VELPROMPT", EVUTL_GETENV_NONEMPTY};
// Kept exactly: an empty second variable turns this one on. Users who export KORVA_NO_BOLD without
// a value rely on it.
constinit Switch no_bold{"NO_BOLD", 0};

// A number that is 0 means off, whatever follows its digits.
bool means_on(const char *value)
{
    const bool is_number = value[0] >= '0' && value[0] <= '9';
    return !is_number || std::strtol(value, nullptr, 10) != 0;
}

SwitchState read_variables(const Switch &which)
{
    const ks::ErrnoSaver saver;
    char buffer[KS_PATH_SIZE];
    const char *value = getenv_safe(which.velm_name.bytes, buffer, sizeof buffer, EVUTL_GETENV_NONEMPTY);
    if (value == nullptr)
        value = getenv_safe(which.korva_name.bytes, buffer, sizeof buffer, which.korva_flags);
    return value != nullptr && means_on(value) ? SwitchState::on : SwitchState::off;
}

int is_on(Switch &which)
{
    SwitchState state = which.state.load(std::memory_order_acquire);
    if (state == SwitchState::unread) {
        const ks::IoLockGuard lock(ks::ks_product_crit);
        state = which.state.load(std::memory_order_relaxed);
        if (state == SwitchState::unread) {
            state = read_variables(which);
            which.state.store(state, std::memory_order_release);
        }
    }
    return state == SwitchState::on ? 1 : 0;
}

int set_switch(Switch &which, int on)
{
    const std::size_t entry = on != 0 ? 1 : 0;
    // Both variables change together.
    evutl_lock_environ();
    int failed = putenv_safe(which.velm_entries[entry].bytes);
    if (failed == 0)
        failed = putenv_safe(which.korva_entries[entry].bytes);
    evutl_unlock_environ();
    return failed != 0 ? 1 : 0;
}

} // namespace

extern "C" {

int ks_force_gui(void)
{
    return is_on(force_gui);
}

int ks_web_gui(void)
{
    return is_on(web_gui);
}

int ks_cte_dynamic(void)
{
    return is_on(cte_dynamic);
}

int ks_web_velprompt(void)
{
    return is_on(web_velprompt);
}

int ks_no_bold(void)
{
    return is_on(no_bold);
}

int ks_set_force_gui(int on)
{
    return set_switch(force_gui, on);
}

int ks_set_web_gui(int on)
{
    return set_switch(web_gui, on);
}

int ks_set_cte_dynamic(int on)
{
    return set_switch(cte_dynamic, on);
}

int ks_set_web_velprompt(int on)
{
    return set_switch(web_velprompt, on);
}
}
