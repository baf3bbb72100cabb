// The process's own environment: reading and changing it under its lock, and overrides.
//
// The lock stands below the message modules' in the lock order, and an allocation can print. So
// nothing is allocated or freed while it is held.
#include "util/evutl_impl.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <sys/auxv.h>
#include <unistd.h>

namespace {

using ks::evutl::here;

// An environment that was put in the place of another one.
struct Override {
    Override *outer;
    char **entries; // what is in force, packed
    char **saved;   // what was before: an array of the same strings
};

constinit Override *newest_override = nullptr; // guarded by evutl_environ_crit
// The saved array that the last restore made the environment. It stays until the next restore.
constinit char **restored_array = nullptr; // guarded by evutl_environ_crit

std::size_t sum(std::size_t a, std::size_t b)
{
    return __builtin_add_overflow(a, b, &a) ? SIZE_MAX : a; // too much for any allocation
}

char *const *process_entries()
{
    static constinit char *none[1] = {nullptr};
    return environ != nullptr ? environ : none;
}

// Bytes of an array with its NULL.
std::size_t array_bytes(char *const *entries)
{
    std::size_t bytes = sizeof(char *);
    for (; *entries != nullptr; ++entries)
        bytes = sum(bytes, sizeof(char *));
    return bytes;
}

// Bytes of an array and its strings.
std::size_t packed_bytes(char *const *entries)
{
    std::size_t bytes = array_bytes(entries);
    for (; *entries != nullptr; ++entries)
        bytes = sum(bytes, std::strlen(*entries) + 1);
    return bytes;
}

void pack_into(char **block, char *const *entries)
{
    char *text = reinterpret_cast<char *>(block) + array_bytes(entries);
    for (; *entries != nullptr; ++entries) {
        const std::size_t size = std::strlen(*entries) + 1;
        std::memcpy(text, *entries, size);
        *block++ = text;
        text += size;
    }
    *block = nullptr;
}

// Calls use(block) under the environment's lock, with a heap block of at least measure(entries)
// bytes for the entries of that moment. False on exhaustion; else the block belongs to `use`.
template <typename Use> bool with_room_for(std::size_t (*measure)(char *const *entries), Use &&use)
{
    char **block = nullptr;
    std::size_t room = 0;
    for (;;) {
        {
            const ks::LockGuard lock(ks::evutl_environ_crit);
            const std::size_t needed = measure(process_entries());
            if (needed <= room) {
                use(block);
                return true;
            }
            room = needed;
        }
        stg_free(block);
        block = static_cast<char **>(stg_malloc(room));
        if (block == nullptr)
            return false;
    }
}

bool install(Override *override)
{
    // The array itself cannot be kept: the C library reallocates the one it made last as soon as a
    // variable is added, also while another one is the environment.
    return with_room_for(array_bytes, [override](char **block) {
        std::memcpy(block, process_entries(), array_bytes(process_entries()));
        override->saved = block;
        override->outer = newest_override;
        newest_override = override;
        environ = override->entries;
    });
}

} // namespace

namespace ks::evutl {

char **pack_entries(evutl_env *env)
{
    const ks::LockGuard lock(env->lock);
    auto **block = static_cast<char **>(stg_malloc(packed_bytes(env->vars)));
    if (block != nullptr)
        pack_into(block, env->vars);
    return block;
}

} // namespace ks::evutl

extern "C" {

void evutl_lock_environ(void)
{
    (void)vlthread_mutex_lock(&ks::evutl_environ_crit); // a valid mutex
}

void evutl_unlock_environ(void)
{
    here.require(vlthread_mutex_unlock(&ks::evutl_environ_crit) == 0, "environ lock is held by the caller");
}

char *getenv_safe(const char *name, char *buffer, std::size_t size, unsigned flags)
{
    here.require(name != nullptr, "name != NULL");
    if ((flags & EVUTL_GETENV_SECURE) != 0 && getauxval(AT_SECURE) != 0)
        return nullptr;
    const ks::LockGuard lock(ks::evutl_environ_crit);
    const char *value = std::getenv(name);
    if (value == nullptr || ((flags & EVUTL_GETENV_NONEMPTY) != 0 && *value == '\0'))
        return nullptr;
    const std::size_t length = std::strlen(value);
    if (size == 0 || ((flags & EVUTL_GETENV_WHOLE) != 0 && length >= size)) {
        errno = ERANGE;
        return nullptr;
    }
    const std::size_t copied = std::min(length, size - 1);
    std::memcpy(buffer, value, copied);
    buffer[copied] = '\0';
    return buffer;
}

int putenv_safe(char *string)
{
    here.require(string != nullptr, "string != NULL");
    const ks::LockGuard lock(ks::evutl_environ_crit);
    return putenv(string);
}

int evutl_copy_default_environ(stg_area *area, evutl_env **out_env)
{
    char **snapshot = nullptr;
    const bool taken = with_room_for(packed_bytes, [&snapshot](char **block) {
        pack_into(block, process_entries());
        snapshot = block;
    });
    if (!taken)
        return 1;
    const int result = evutl_copy_environ(area, snapshot, out_env);
    stg_free(snapshot);
    return result;
}

int evutl_override_default_environ(evutl_env *env)
{
    here.require(env != nullptr, "env != NULL");
    auto *override = static_cast<Override *>(stg_malloc(sizeof(Override)));
    if (override == nullptr)
        return 1;
    *override = {nullptr, ks::evutl::pack_entries(env), nullptr};
    if (override->entries != nullptr && install(override))
        return 0;
    stg_free(override->entries);
    stg_free(override);
    errno = ENOMEM;
    return 1;
}

int evutl_restore_default_environ(void)
{
    Override *ended = nullptr;
    char **unused_array = nullptr;
    {
        const ks::LockGuard lock(ks::evutl_environ_crit);
        ended = newest_override;
        if (ended == nullptr) {
            errno = EINVAL;
            return 1;
        }
        newest_override = ended->outer;
        environ = ended->saved;
        unused_array = restored_array;
        restored_array = ended->saved;
    }
    stg_free(unused_array);
    stg_free(ended->entries);
    stg_free(ended);
    return 0;
}

int evutl_unsetenv_default_environ(const char *name)
{
    here.require(name != nullptr, "name != NULL");
    const ks::LockGuard lock(ks::evutl_environ_crit);
    return unsetenv(name) == 0 ? 0 : 1;
}
}
