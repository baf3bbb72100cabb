// Flag sets to text and back.
#include "util/strutl_impl.h"

#include "kernel/ks_guard.h"

#include <korvaks/tls_impl.h>

#include <algorithm>
#include <span>
#include <type_traits>

static_assert(std::is_standard_layout_v<strutl_flag_item_t> && std::is_trivially_copyable_v<strutl_flag_item_t>);
static_assert(offsetof(strutl_flag_item_t, name) == 0 && offsetof(strutl_flag_item_t, value) == 8);

namespace {

using ks::strutl::store;

constexpr std::size_t text_size = 1024;

std::span<const strutl_flag_item_t> rows_of(const strutl_flag_item_t *items, int count)
{
    return {items, static_cast<std::size_t>(std::max(count, 0))};
}

unsigned bits_of(const strutl_flag_item_t &row)
{
    return static_cast<unsigned>(row.value);
}

const char *separator_or_blank(const char *sep)
{
    return sep == nullptr || *sep == '\0' ? " " : sep;
}

// A growing heap vector of heap strings. It lives where raises are held off.
struct NameVector {
    char **names = nullptr;
    std::size_t count = 0;
    std::size_t capacity = 0;

    bool reserve(std::size_t wanted)
    {
        constexpr std::size_t first_capacity = 8;
        if (wanted <= capacity)
            return true;
        const std::size_t grown = capacity == 0 ? first_capacity : std::max(2 * capacity, wanted);
        auto *moved = static_cast<char **>(stg_realloc(names, grown * sizeof *names));
        if (moved == nullptr)
            return false;
        names = moved;
        capacity = grown;
        return true;
    }

    bool add(const char *name)
    {
        if (!reserve(count + 1))
            return false;
        names[count] = stg_strdup(name);
        if (names[count] == nullptr)
            return false;
        ++count;
        return true;
    }

    void free_all()
    {
        for (std::size_t i = 0; i < count; ++i)
            stg_free(names[i]);
        stg_free(names);
    }
};

bool collect_names(unsigned flags, std::span<const strutl_flag_item_t> rows, NameVector &vector)
{
    if (!vector.reserve(1))
        return false;
    for (const strutl_flag_item_t &row : rows) {
        const unsigned bits = bits_of(row);
        if (bits != 0 && (flags & bits) == bits && !vector.add(row.name))
            return false;
        // Kept exactly: bits of a row that is set in part never reach the unknown ones.
        flags &= ~bits;
    }
    if (flags == 0)
        return true;
    char unknown[text_size];
    (void)strutl_snprintf(unknown, sizeof unknown, " UNKNOWN(0x%x)", flags); // always fits
    return vector.add(unknown);
}

const strutl_flag_item_t *find_row(const char *word, bool case_sensitive, std::span<const strutl_flag_item_t> rows)
{
    for (const strutl_flag_item_t &row : rows) {
        if ((case_sensitive ? std::strcmp(word, row.name) : strutl_stricoll(word, row.name)) == 0)
            return &row;
    }
    return nullptr;
}

} // namespace

extern "C" {

char *strutl_flags_to_str(unsigned flags, const char *sep, const strutl_flag_item_t *items, int count)
{
    ks_tls *tls = ks_tls_get();
    char *&text = tls->strutl.flags_text;
    if (text == nullptr)
        text = static_cast<char *>(stg_alloc_nr(tls->area, text_size));
    if (text == nullptr)
        return nullptr;
    *text = '\0';
    const char *between = "";
    for (const strutl_flag_item_t &row : rows_of(items, count)) {
        if ((flags & bits_of(row)) == 0)
            continue;
        (void)strutl_concat(text, text_size, 3, text, between, row.name); // an over-long text is cut
        between = separator_or_blank(sep);
        flags &= ~bits_of(row);
    }
    if (flags != 0) {
        char unknown[32];
        (void)strutl_snprintf(unknown, sizeof unknown, " UNKNOWN(0x%x)", flags); // always fits
        (void)strutl_concat(text, text_size, 2, text, unknown);                  // as above
    }
    return text;
}

unsigned strutl_flags_to_str_list(unsigned flags, const strutl_flag_item_t *items, int count, char ***out_names,
                                  int *out_n)
{
    const ks::InhibitGuard no_raises;
    NameVector vector;
    if (!collect_names(flags, rows_of(items, count), vector)) {
        vector.free_all();
        errno = ENOMEM;
        return 1;
    }
    *out_names = vector.names;
    *out_n = static_cast<int>(vector.count);
    return 0;
}

unsigned strutl_flags_from_str(const char *text, int case_sensitive, const char *sep, const strutl_flag_item_t *items,
                               size_t count, const char **out_bad_word)
{
    char copy[text_size];
    (void)strutl_cpy_buf(copy, text, sizeof copy); // the rest of a longer text is not read
    const char *separator = separator_or_blank(sep);
    const std::size_t separator_length = std::strlen(separator);
    store(out_bad_word, static_cast<const char *>(nullptr));
    unsigned flags = 0;
    for (std::size_t start = 0; copy[start] != '\0';) {
        std::size_t end = 0;
        const bool is_last = strutl_find_str(copy, start, separator, &end) != 0;
        if (!is_last)
            copy[end] = '\0';
        const strutl_flag_item_t *row = find_row(copy + start, case_sensitive != 0, {items, count});
        if (row == nullptr) {
            store(out_bad_word, text + start);
            return 0;
        }
        flags |= bits_of(*row);
        if (is_last)
            break;
        start = end + separator_length;
    }
    return flags;
}
}
