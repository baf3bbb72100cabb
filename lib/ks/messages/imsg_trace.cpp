// Which trace messages are wanted.
//
// The heap asks at every allocation, from inside any module and under any lock, so nothing here starts the message
// modules, needs the thread's block, or takes a lock but the environment's, and that one only to read the
// environment.
//
// The list of traced subsystems stands in one of two places, and the generation tells in which: an even one in the
// first, an odd one in the second. Who sets a list holds the environment's lock, writes to the place that the
// generation does not name, and then announces the next generation. Who reads takes the generation, looks at its
// place, and does so again if the generation has changed meanwhile. So no reader waits, and what it has seen of
// a place that was being written to does not count: a place is written to only when the generation names the other
// one, and the bytes are stored and loaded such that who sees one of them sees that generation as well. Nothing
// has to be freed under a reader, and a fork, which takes the environment's lock, finds no list half written.
#include "messages/imsg_impl.h"

#include <korvaks/evutl.h>
#include <korvaks/strutl.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

static_assert(IMSG_VERBOSITY_UNREAD == SHRT_MAX); // what ks::desired_verbosity starts with

using Byte = std::atomic<char>;

// A larger place for lists. The smaller one before it is never freed, as a reader may still be in it; each is at
// least twice as large as the one before, so that what is kept stays below what the longest list needs.
struct LargerPlace {
    LargerPlace *smaller;
};

struct Place {
    std::atomic<Byte *> text;     // ends with a NUL that is never written over
    std::atomic<bool> holds_list; // false: none was set
    std::size_t size;             // of the text; writers only
    LargerPlace *larger;          // what the text stands in; NULL: in the room of the start
};

// Room for the list of the environment, so that reading it allocates nothing.
constinit Byte first_room[2][ks::imsg::env_size]{};
constinit Place places[2] = {{first_room[0], false, sizeof first_room[0], nullptr},
                             {first_room[1], false, sizeof first_room[1], nullptr}};
constinit std::atomic<std::uint64_t> generation{0};

Place &place_of(std::uint64_t of_generation)
{
    return places[of_generation % 2];
}

bool make_room(Place &place, std::size_t size)
{
    if (size <= place.size)
        return true;
    const std::size_t larger_size = std::max(size, 2 * place.size);
    // Not from the library's heap, which asks here.
    auto *block = static_cast<char *>(std::calloc(1, sizeof(LargerPlace) + larger_size));
    if (block == nullptr)
        return false;
    place.larger = new (block) LargerPlace{place.larger};
    place.size = larger_size;
    place.text.store(reinterpret_cast<Byte *>(block + sizeof(LargerPlace)), std::memory_order_release);
    return true;
}

// Puts a list, or with NULL none, in the place of the present one; false when memory is exhausted. Called with the
// environment's lock held.
bool announce(const char *list)
{
    const std::uint64_t next = generation.load(std::memory_order_relaxed) + 1;
    Place &place = place_of(next);
    const std::size_t size = std::strlen(list != nullptr ? list : "") + 1;
    if (!make_room(place, size))
        return false;
    Byte *text = place.text.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < size; ++i)
        text[i].store(list != nullptr ? list[i] : '\0', std::memory_order_release);
    place.holds_list.store(list != nullptr, std::memory_order_release);
    generation.store(next, std::memory_order_release);
    return true;
}

// Asks `question` about the present place.
template <typename Question> bool ask(Question question)
{
    for (;;) {
        const std::uint64_t asked = generation.load(std::memory_order_acquire);
        const bool answer = question(place_of(asked));
        if (generation.load(std::memory_order_acquire) == asked)
            return answer;
    }
}

char byte_at(const Byte *text)
{
    return text->load(std::memory_order_acquire);
}

bool is_end_of_element(char c)
{
    return c == ':' || c == '\0';
}

// Whether `name` is an element between the colons of a list.
bool has_element(const Byte *list, const char *name)
{
    for (;; ++list) {
        const char *rest = name;
        while (!is_end_of_element(byte_at(list)) && byte_at(list) == *rest) {
            ++list;
            ++rest;
        }
        if (*rest == '\0' && is_end_of_element(byte_at(list)))
            return true;
        while (!is_end_of_element(byte_at(list)))
            ++list;
        if (byte_at(list) == '\0')
            return false;
    }
}

bool is_listed(const char *subsystem)
{
    return ask([subsystem](const Place &place) {
        const Byte *list = place.text.load(std::memory_order_acquire);
        if (byte_at(list) == '\0')
            return false;
        if (byte_at(list) == '*' && byte_at(list + 1) == '\0')
            return true;
        return subsystem != nullptr && has_element(list, subsystem);
    });
}

bool has_list()
{
    return ask([](const Place &place) { return place.holds_list.load(std::memory_order_acquire); });
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
    const ks::ErrnoSaver saver; // a heap that asks keeps its caller's errno
    const ks::LockGuard lock(ks::evutl_environ_crit);
    char text[ks::imsg::env_size];
    if (!has_list() && getenv_safe("TRACE_SUBSYS", text, sizeof text, EVUTL_GETENV_NONEMPTY) != nullptr)
        (void)announce(text); // there is always room for it
    const long read = verbosity_of_environment();
    long settled = IMSG_VERBOSITY_UNREAD;
    return ks::desired_verbosity.compare_exchange_strong(settled, read, std::memory_order_acq_rel) ? read : settled;
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
    return is_listed(subsys) ? 1 : 0;
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
    const ks::LockGuard lock(ks::evutl_environ_crit);
    (void)announce(subsystems); // without memory the list stays
}
}
