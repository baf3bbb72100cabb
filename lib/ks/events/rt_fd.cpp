// Descriptor and descriptor-set handlers: adding and removing.
#include "events/rt_impl.h"

#include "base/msg_port.h"
#include "kernel/stg_quiet.h"

#include <algorithm>
#include <utility>

namespace ks::rt {

namespace {

constexpr int kind_none = 5;

// The list of a kind of rt_handle_fd(); others end the process.
std::size_t table_of(int kind)
{
    switch (kind) {
    case RT_FD_READ:
    case RT_FD_WRITE:
    case RT_FD_EXCEPT:
        return static_cast<std::size_t>(kind);
    case 3:
        return RT_FD_READ;
    case 4:
        return RT_FD_WRITE;
    default:
        here.panic();
    }
}

std::size_t set_list_of(int kind)
{
    if (kind < 0 || kind >= kind_count)
        here.panic();
    return static_cast<std::size_t>(kind);
}

// Under rt_crit, after each change: the next wait of the loop is for other descriptors.
void note_change()
{
    const bool has_any =
        std::any_of(state.fds.begin(), state.fds.end(), [](const FdTable &table) { return table.count() != 0; }) ||
        std::any_of(state.fd_sets.begin(), state.fd_sets.end(), [](const FdSetHandler *h) { return h != nullptr; });
    state.has_any_handler.store(has_any, std::memory_order_relaxed);
    wake_loop();
}

bool add(FdTable &table, FdHandler *handler)
{
    const ks::LockGuard lock(ks::rt_crit);
    here.require(!table.has(handler->fd), "elem->fd != fd");
    if (table.count() >= handlers_max)
        return false;
    handler->wait = state.wait;
    table.add(handler);
    state.watch.forget(handler->fd, true);
    note_change();
    return true;
}

// The pointer in the list that names the handler of a set, or the last one, which is NULL.
FdSetHandler **find(std::size_t kind, const ks_fd_set *fds)
{
    FdSetHandler **link = &state.fd_sets[kind];
    while (*link != nullptr && (*link)->fd_set_fds != fds)
        link = &(*link)->next;
    return link;
}

void add(std::size_t kind, FdSetHandler *handler)
{
    const ks::LockGuard lock(ks::rt_crit);
    here.require(*find(kind, handler->fd_set_fds) == nullptr, "elem->fd_set_fds != fd_set_fds");
    handler->wait = state.wait;
    handler->next = std::exchange(state.fd_sets[kind], handler);
    note_change();
}

// Makes a record; exhaustion is reported.
template <typename Handler> Handler *make(const Handler &content)
{
    auto *made = static_cast<Handler *>(ks::heap_try_malloc(sizeof(Handler)));
    if (made == nullptr)
        report_exhaustion();
    else
        *made = content;
    return made;
}

// Frees the record of a handler that is off its list, and tells the loop. Under rt_crit.
void drop(void *handler)
{
    stg_free_int(handler, 1);
    ++state.removals;
    note_change();
}

} // namespace

} // namespace ks::rt

extern "C" {

int rt_fd_validate_max_fd(int fd)
{
    if (fd <= ks::rt::rt_num_fds)
        return 1;
    (void)imsg_print(ks::msg_error, &_rt_ks_msg_table, rt_msg_fd_too_large, fd); // the result says it too
    return 0;
}

int rt_handle_fd(int kind, rt_fd_fn fn, int fd, void *arg)
{
    ks::rt::ensure_inited();
    if (kind == ks::rt::kind_none)
        return 1;
    ks::rt::FdTable &table = ks::rt::state.fds[ks::rt::table_of(kind)];
    if (rt_fd_validate_max_fd(fd) == 0)
        return 0;
    ks::rt::here.require(fd >= 0, "fd >= 0");
    ks::rt::FdHandler *handler = ks::rt::make(ks::rt::FdHandler{fn, fd, 0, arg, 0});
    if (handler == nullptr)
        return 0;
    if (ks::rt::add(table, handler))
        return 1;
    stg_free_int(handler, 1);
    return 0;
}

int rt_unhandle_fd(int kind, int fd)
{
    if (kind == ks::rt::kind_none)
        return 1;
    ks::rt::FdTable &table = ks::rt::state.fds[ks::rt::table_of(kind)];
    if (fd < 0 || fd > KS_FD_MAX)
        return 0;
    const ks::LockGuard lock(ks::rt_crit);
    ks::rt::FdHandler *handler = table.remove(fd);
    if (handler == nullptr)
        return 0;
    ks::rt::state.watch.forget(fd, ks::rt::state.fds[RT_FD_READ].has(fd) || ks::rt::state.fds[RT_FD_WRITE].has(fd));
    ks::rt::drop(handler);
    return 1;
}

int rt_handle_fd_set(int kind, rt_fd_set_fn fn, const ks_fd_set *fd_set_fds, void *arg)
{
    ks::rt::ensure_inited();
    const std::size_t list = ks::rt::set_list_of(kind);
    ks::rt::FdSetHandler *handler = ks::rt::make(ks::rt::FdSetHandler{nullptr, fn, fd_set_fds, arg, 0});
    if (handler == nullptr)
        return 0;
    ks::rt::add(list, handler);
    return 1;
}

int rt_unhandle_fd_set(int kind, const ks_fd_set *fd_set_fds)
{
    const std::size_t list = ks::rt::set_list_of(kind);
    const ks::LockGuard lock(ks::rt_crit);
    ks::rt::FdSetHandler **link = ks::rt::find(list, fd_set_fds);
    ks::rt::FdSetHandler *handler = *link;
    if (handler == nullptr)
        return 0;
    *link = handler->next;
    ks::rt::drop(handler);
    return 1;
}
}
