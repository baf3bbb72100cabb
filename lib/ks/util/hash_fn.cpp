// The built-in functions of the kinds of keys.
#include "util/hash_mix.h"

#include <korvaks/hash.h>
#include <korvaks/strutl.h>

#include <cctype>

namespace {

int64_t integer_at(const void *key)
{
    return *static_cast<const int64_t *>(key);
}

} // namespace

extern "C" {

uint32_t hash_int_hash_key_fn(const void *key)
{
    return static_cast<uint32_t>(integer_at(key) >> 2);
}

int hash_int_compare_keys_fn(const void *a, const void *b)
{
    return integer_at(a) == integer_at(b) ? 1 : 0;
}

// Kept exactly: bytes from 0x80 on are negative here, while the functions for fixed-length keys and
// without white space take them without a sign. Callers know keys by the values they have had.
uint32_t hash_str_hash_key_fn(const void *key)
{
    const auto *string = static_cast<const char *>(key);
    return ks::hash::mix<signed char>(string, std::strlen(string));
}

int hash_str_compare_keys_fn(const void *a, const void *b)
{
    return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0 ? 1 : 0;
}

uint32_t hash_str_hash_key_ignore_whitespace_fn(const void *key)
{
    uint32_t h = 0;
    for (const auto *at = static_cast<const unsigned char *>(key); *at != '\0'; ++at) {
        if (std::isspace(*at) == 0)
            h += h << 7 ^ *at;
    }
    return h;
}

int hash_str_compare_keys_ignore_whitespace_fn(const void *a, const void *b)
{
    return strutl_cmp_ignore_whitespace(static_cast<const char *>(a), static_cast<const char *>(b)) == 0 ? 1 : 0;
}
}
