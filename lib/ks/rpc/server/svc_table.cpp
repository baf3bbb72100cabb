// The table of registered transports, and the set of descriptors that are selected on.
//
// The set is exported and a program's loop reads it while workers change it, so each of its words is written at once.
#include "rpc/server/svc_impl.h"

#include <korvaks/sysutl.h>

#include <cstdlib>

extern "C" {

constinit ks_fd_set ks_svc_fdset{};
constinit int ks_svc_maxfd = -1;
}

namespace ks::svc {

constinit Slot *__ks_svc_xports = nullptr;

namespace {

constinit uint64_t last_serial = 0; // guarded by ks_svc_fd_lock

uint64_t &word_of(int fd)
{
    return ks_svc_fdset.words[static_cast<std::size_t>(fd) / 64];
}

uint64_t bit_of(int fd)
{
    return uint64_t{1} << static_cast<unsigned>(fd) % 64;
}

void set_selected(int fd)
{
    (void)__atomic_fetch_or(&word_of(fd), bit_of(fd), __ATOMIC_RELAXED);
}

Slot *table()
{
    return __atomic_load_n(&__ks_svc_xports, __ATOMIC_ACQUIRE);
}

// The lock is held for writing.
bool make_table()
{
    if (__ks_svc_xports != nullptr)
        return true;
    auto *made = static_cast<Slot *>(std::calloc(fd_limit, sizeof(Slot)));
    if (made == nullptr)
        return false;
    if (!watch_forks()) {
        std::free(made);
        return false;
    }
    __atomic_store_n(&__ks_svc_xports, made, __ATOMIC_RELEASE);
    return true;
}

void set_highest(int fd)
{
    __atomic_store_n(&ks_svc_maxfd, fd, __ATOMIC_RELAXED);
}

int highest_below(int fd)
{
    do
        --fd;
    while (fd >= 0 && __ks_svc_xports[fd].transport == nullptr);
    return fd;
}

bool stands_in_table(const Transport &transport)
{
    const int fd = fd_of(transport);
    return __ks_svc_xports != nullptr && fd >= 0 && fd < fd_limit && __ks_svc_xports[fd].transport == &transport;
}

} // namespace

bool enter(Transport &transport)
{
    const int fd = fd_of(transport);
    if (fd < 0 || fd >= fd_limit)
        return false;
    const ks::WriteGuard lock(ks::ks_svc_fd_lock);
    if (!make_table())
        return false;
    Slot &slot = __ks_svc_xports[fd];
    slot.transport = &transport;
    transport.handle.serial = ++last_serial;
    __atomic_store_n(&slot.serial, last_serial, __ATOMIC_RELEASE);
    if (fd > ks_svc_maxfd)
        set_highest(fd);
    set_selected(fd);
    wake_main_thread(&transport);
    return true;
}

bool is_registered(const Registration &registration)
{
    const Slot *slots = table();
    return slots != nullptr && registration.serial != 0 && registration.fd >= 0 && registration.fd < fd_limit &&
           __atomic_load_n(&slots[registration.fd].serial, __ATOMIC_ACQUIRE) == registration.serial;
}

Transport *hold_transport(int fd)
{
    if (fd < 0 || fd >= fd_limit)
        return nullptr;
    const ks::ReadGuard lock(ks::ks_svc_fd_lock);
    Transport *transport = __ks_svc_xports != nullptr ? __ks_svc_xports[fd].transport : nullptr;
    if (transport != nullptr)
        hold(*transport);
    return transport;
}

void clear_selected(int fd)
{
    if (fd >= 0 && fd < fd_limit)
        (void)__atomic_fetch_and(&word_of(fd), ~bit_of(fd), __ATOMIC_RELAXED);
}

void deselect(const Transport &transport)
{
    const ks::ReadGuard lock(ks::ks_svc_fd_lock);
    if (stands_in_table(transport))
        clear_selected(fd_of(transport));
}

void select_again(const Transport &transport)
{
    const ks::WriteGuard lock(ks::ks_svc_fd_lock);
    if (!stands_in_table(transport) || __atomic_load_n(&transport.is_paused, __ATOMIC_ACQUIRE))
        return;
    set_selected(fd_of(transport));
    wake_main_thread(&transport);
}

} // namespace ks::svc

extern "C" {

bool_t ks_xprt_register(SVCXPRT *xprt)
{
    if (xprt->xp_fd >= 0 && xprt->xp_fd < ks::svc::fd_limit)
        (void)sysutl_set_cloexec_file(xprt->xp_fd); // one that is not open shows when it is waited for
    return ks::svc::enter(ks::svc::transport_of(xprt)) ? TRUE : FALSE;
}

void __ks_xprt_unregister_unlocked(SVCXPRT *xprt)
{
    const ks::svc::Transport &transport = ks::svc::transport_of(xprt);
    if (!ks::svc::stands_in_table(transport))
        return;
    const int fd = xprt->xp_fd;
    ks::svc::Slot &slot = ks::svc::__ks_svc_xports[fd];
    ks::svc::clear_selected(fd);
    ks::svc::forget_watched(fd);
    slot.transport = nullptr;
    // Whoever serves it looks for its serial number, and does not select it again.
    __atomic_store_n(&slot.serial, 0, __ATOMIC_RELEASE);
    if (fd == ks_svc_maxfd)
        ks::svc::set_highest(ks::svc::highest_below(fd));
}

void ks_xprt_unregister(SVCXPRT *xprt)
{
    const ks::WriteGuard lock(ks::ks_svc_fd_lock);
    __ks_xprt_unregister_unlocked(xprt);
}
}
