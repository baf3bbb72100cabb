// Which trace messages are wanted.
//
// The heap asks at every allocation, from inside any module and under any lock, so nothing here
// takes a lock of the message modules, starts them or needs the thread's block. Lists of subsystems
// are interned: a list once set is never freed or changed, so readers need no lock either.
#include "messages/imsg_impl.h"

#include <korvaks/evutl.h>
#include <korvaks/strutl.h>

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

struct KeptList {
    const KeptList *next;
    const char *text;
};

static_assert(IMSG_VERBOSITY_UNREAD == SHRT_MAX); // what ks::desired_verbosity starts with
constinit std::atomic<const char *> traced_subsystems{nullptr};

constinit std::atomic<const KeptList *> kept_lists{nullptr};

// Room for the first list, so that reading the environment allocates nothing.
constinit KeptList first_list{};
constinit char first_text[ks::imsg::env_size]{};
constinit std::atomic<bool> first_list_taken{false};

KeptList *new_list(const char *text)
{
    const std::size_t size = std::strlen(text) + 1;
    if (size <= sizeof first_text && !first_list_taken.exchange(true, std::memory_order_relaxed)) {
        std::memcpy(first_text, text, size);
        first_list.text = first_text;
        return &first_list;
    }
    auto *block = static_cast<char *>(malloc(sizeof(KeptList) + size));
    if (block == nullptr)
        return nullptr;
    char *copy = block + sizeof(KeptList);
    std::memcpy(copy, text, size);
    return new (block) KeptList{nullptr, copy};
}

// The lasting copy of a list; NULL when memory is exhausted.
const char *intern(const char *text)
{
    const KeptList *head = kept_lists.load(std::memory_order_acquire);
    for (const KeptList *list = head; list != nullptr; list = list->next) {
        if (std::strcmp(list->text, text) == 0)
            return list->text;
    }
    KeptList *added = new_list(text);
    if (added == nullptr)
        return nullptr;
    do
        added->next = head;
    while (!kept_lists.compare_exchange_weak(head, added, std::memory_order_acq_rel, std::memory_order_acquire));
    return added->text;
}

long verbosity_of_environment()
{
    char text[ks::imsg::env_size];
    long value = 0;
    if (getenv_safe("TRACE_VERBOSITY", text, sizeof text, 0) == nullptr || strutl_strtol(text, 10, &value) != 0)
        return 0;
    return value;
}

// Settles the list and then the verbosity, in this order: who reads a settled verbosity finds the
// list. What was set meanwhile by a call stays.
long read_environment()
{
    ks::ErrnoSaver saver; // a heap that asks keeps its caller's errno
    char text[ks::imsg::env_size];
    if (traced_subsystems.load(std::memory_order_acquire) == nullptr &&
        getenv_safe("TRACE_SUBSYS", text, sizeof text, EVUTL_GETENV_NONEMPTY) != nullptr) {
        const char *unset = nullptr;
        (void)traced_subsystems.compare_exchange_strong(unset, intern(text), std::memory_order_acq_rel);
    }
    const long read = verbosity_of_environment();
    long settled = IMSG_VERBOSITY_UNREAD;
    return ks::desired_verbosity.compare_exchange_strong(settled, read, std::memory_order_acq_rel) ? read : settled;
}

// Whether `name` is an element between the colons of `list`.
bool has_element(const char *list, const char *name)
{
    const std::size_t length = std::strlen(name);
    for (const char *element = list;; ++element) {
        const char *end = strchrnul(element, ':');
        if (static_cast<std::size_t>(end - element) == length && std::memcmp(element, name, length) == 0)
            return true;
        if (*end == '\0')
            return false;
        element = end;
    }
}

} // namespace

extern "C" {

long imsg_get_desired_verbosity(void)
{
    return ks::desired_verbosity.load(std::memory_order_relaxed);
}

int imsg_should_trace(const char *subsys, long level)
{
    long verbosity = ks::desired_verbosity.load(std::memory_order_acquire);
    if (verbosity < level)
        return 0;
    if (verbosity == IMSG_VERBOSITY_UNREAD) {
        verbosity = read_environment();
        if (verbosity < level)
            return 0;
    }
    const char *list = traced_subsystems.load(std::memory_order_acquire);
    if (list == nullptr || *list == '\0')
        return 0;
    if (std::strcmp(list, "*") == 0)
        return 1;
    return subsys != nullptr && has_element(list, subsys) ? 1 : 0;
}

long imsg_get_verbosity_ev(void)
{
    return verbosity_of_environment();
}

void imsg_set_trace_verbosity(long verbosity)
{
    ks::desired_verbosity.store(verbosity, std::memory_order_release);
}

void imsg_set_trace_subsys(const char *subsystems)
{
    if (subsystems == nullptr) {
        traced_subsystems.store(nullptr, std::memory_order_release);
        return;
    }
    const char *list = intern(subsystems);
    if (list != nullptr)
        traced_subsystems.store(list, std::memory_order_release);
}
}
