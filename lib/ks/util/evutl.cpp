// Private environments: a growable array of strings NAME=value in an area or on the heap.
#include "util/evutl_impl.h"

#include "kernel/ks_guard.h"

#include <cstring>

namespace {

using ks::evutl::ArrayHeader;
using ks::evutl::here;

constexpr uint64_t capacity_initial = 32;

void require_env(const evutl_env *env)
{
    here.require(env != nullptr, "env != NULL");
}

// Memory of an area goes back with the area.
void release(const evutl_env *env, void *memory)
{
    if (env->area == STG_AREA_HEAP)
        stg_free(memory);
}

ArrayHeader *header_of(char **vars)
{
    return reinterpret_cast<ArrayHeader *>(vars) - 1;
}

// NULL on exhaustion.
char **make_array(stg_area *area, uint64_t capacity)
{
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(capacity, sizeof(char *), &bytes) ||
        __builtin_add_overflow(bytes, sizeof(ArrayHeader), &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    auto *header = static_cast<ArrayHeader *>(stg_alloc(area, bytes));
    if (header == nullptr)
        return nullptr;
    *header = {capacity, sizeof(char *), area};
    auto **vars = reinterpret_cast<char **>(header + 1);
    vars[0] = nullptr;
    return vars;
}

// Makes room for one entry more.
bool reserve_entry(evutl_env *env)
{
    ArrayHeader *header = header_of(env->vars);
    if (env->count < header->capacity)
        return true;
    uint64_t capacity = 0;
    if (env->count == UINT32_MAX || __builtin_mul_overflow(header->capacity, uint64_t{2}, &capacity)) {
        errno = ENOMEM;
        return false;
    }
    char **grown = make_array(env->area, capacity);
    if (grown == nullptr)
        return false;
    std::memcpy(grown, env->vars, env->count * sizeof(char *));
    env->vars = grown;
    release(env, header);
    return true;
}

bool append(evutl_env *env, char *entry)
{
    if (!reserve_entry(env))
        return false;
    env->vars[env->count - 1] = entry;
    env->vars[env->count] = nullptr;
    ++env->count;
    return true;
}

bool is_entry_of(const char *entry, const char *name, std::size_t name_length)
{
    return std::strncmp(entry, name, name_length) == 0 && entry[name_length] == '=';
}

// The place of the first entry of a name, NULL if there is none.
char **find(const evutl_env *env, const char *name, std::size_t name_length)
{
    for (char **place = env->vars; *place != nullptr; ++place) {
        if (is_entry_of(*place, name, name_length))
            return place;
    }
    return nullptr;
}

// Takes over `entry`, whose name has `name_length` bytes; on failure it is given back.
int store(evutl_env *env, char *entry, std::size_t name_length)
{
    const ks::LockGuard lock(env->lock);
    char **place = find(env, entry, name_length);
    if (place != nullptr) {
        char *replaced = *place;
        *place = entry;
        release(env, replaced);
        return 0;
    }
    if (append(env, entry))
        return 0;
    release(env, entry);
    errno = ENOMEM;
    return 1;
}

// The length of a name; false for one that cannot stand in an environment.
bool measure_name(const char *name, std::size_t &out_length)
{
    here.require(name != nullptr, "name != NULL");
    out_length = std::strlen(name);
    return out_length != 0 && std::memchr(name, '=', out_length) == nullptr;
}

int refuse()
{
    errno = EINVAL;
    return 1;
}

char *join(stg_area *area, const char *name, std::size_t name_length, const char *value)
{
    const std::size_t value_size = std::strlen(value) + 1;
    std::size_t size = 0;
    if (__builtin_add_overflow(name_length, value_size, &size) || __builtin_add_overflow(size, std::size_t{1}, &size)) {
        errno = ENOMEM;
        return nullptr;
    }
    auto *entry = static_cast<char *>(stg_alloc(area, size));
    if (entry == nullptr)
        return nullptr;
    std::memcpy(entry, name, name_length);
    entry[name_length] = '=';
    std::memcpy(entry + name_length + 1, value, value_size);
    return entry;
}

bool append_copies(evutl_env *env, char *const *envp)
{
    for (; envp != nullptr && *envp != nullptr; ++envp) {
        char *copy = stg_area_strdup(env->area, *envp);
        if (copy == nullptr)
            return false;
        if (!append(env, copy)) {
            release(env, copy);
            return false;
        }
    }
    return true;
}

} // namespace

extern "C" {

int evutl_alloc(stg_area *area, evutl_env **out_env)
{
    auto *env = static_cast<evutl_env *>(stg_alloc(area, sizeof(evutl_env)));
    if (env == nullptr)
        return 1;
    *env = {make_array(area, capacity_initial), 1, area, 0, VLTHREAD_MUTEX_INITIALIZER};
    if (env->vars == nullptr) {
        release(env, env);
        errno = ENOMEM;
        return 1;
    }
    *out_env = env;
    return 0;
}

int evutl_copy_environ(stg_area *area, char *const *envp, evutl_env **out_env)
{
    evutl_env *env = nullptr;
    if (evutl_alloc(area, &env) != 0)
        return 1;
    if (!append_copies(env, envp)) {
        evutl_free(env);
        errno = ENOMEM;
        return 1;
    }
    *out_env = env;
    return 0;
}

const char *evutl_getenv(evutl_env *env, const char *name)
{
    require_env(env);
    std::size_t name_length = 0;
    if (!measure_name(name, name_length))
        return nullptr;
    const ks::LockGuard lock(env->lock);
    char **place = find(env, name, name_length);
    return place != nullptr ? *place + name_length + 1 : nullptr;
}

int evutl_setenv(evutl_env *env, const char *name, const char *value)
{
    require_env(env);
    here.require(value != nullptr, "value != NULL");
    std::size_t name_length = 0;
    if (!measure_name(name, name_length))
        return refuse();
    char *entry = join(env->area, name, name_length, value);
    return entry != nullptr ? store(env, entry, name_length) : 1;
}

int evutl_setenv2(evutl_env *env, const char *entry)
{
    require_env(env);
    here.require(entry != nullptr, "entry != NULL");
    const char *equals = std::strchr(entry, '=');
    if (equals == nullptr || equals == entry)
        return refuse();
    char *copy = stg_area_strdup(env->area, entry);
    return copy != nullptr ? store(env, copy, static_cast<std::size_t>(equals - entry)) : 1;
}

int evutl_unsetenv(evutl_env *env, const char *name)
{
    require_env(env);
    std::size_t name_length = 0;
    if (!measure_name(name, name_length))
        return refuse();
    const ks::LockGuard lock(env->lock);
    char **kept = env->vars;
    for (char **place = env->vars; *place != nullptr; ++place) {
        if (is_entry_of(*place, name, name_length))
            release(env, *place);
        else
            *kept++ = *place;
    }
    *kept = nullptr;
    env->count = static_cast<uint32_t>(kept - env->vars) + 1;
    return 0;
}

char **evutl_env2environ(evutl_env *env)
{
    require_env(env);
    const ks::LockGuard lock(env->lock);
    env->exported = 1;
    return env->vars;
}

void evutl_free(evutl_env *env)
{
    if (env == nullptr)
        return;
    for (char **place = env->vars; *place != nullptr; ++place)
        release(env, *place);
    release(env, header_of(env->vars));
    (void)vlthread_mutex_destroy(&env->lock); // free: its last user was this call
    release(env, env);
}
}
