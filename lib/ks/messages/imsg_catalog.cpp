// Message catalogues: a few stay open, and none is trusted with the arguments of a format.
#include "messages/imsg_impl.h"

#include <korvaks/strutl.h>
#include <korvaks/tls_impl.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include <nl_types.h>

namespace {

constexpr std::size_t name_size = 256;

// A catalogue by name; one that could not be opened keeps its place, so that it is not searched for
// again at every message.
struct Catalog {
    char name[name_size];
    nl_catd handle;
    bool is_open;
    uint64_t last_use; // place in the order of uses; 0: the slot is empty
};

constinit std::array<Catalog, 5> catalogs{}; // guarded by ks_product_crit
constinit std::size_t last_used = 0;         // guarded by ks_product_crit
constinit uint64_t uses = 0;                 // guarded by ks_product_crit

// Answers of has_same_directives(), which is asked for the same few texts again and again. A text
// moves only when its catalogue is closed, and then all answers are forgotten.
struct Verdict {
    const char *text;
    const char *default_text;
    bool is_same;
};
constinit std::array<Verdict, 256> verdicts{}; // guarded by ks_product_crit

const nl_catd failed_open = reinterpret_cast<nl_catd>(-1);

Catalog *find_catalog(const char *name)
{
    if (catalogs[last_used].last_use != 0 && std::strcmp(catalogs[last_used].name, name) == 0)
        return &catalogs[last_used];
    for (Catalog &catalog : catalogs) {
        if (catalog.last_use != 0 && std::strcmp(catalog.name, name) == 0)
            return &catalog;
    }
    return nullptr;
}

// An empty slot, or the one used longest ago.
Catalog &slot_to_fill()
{
    Catalog *oldest = &catalogs[0];
    for (Catalog &catalog : catalogs) {
        if (catalog.last_use < oldest->last_use)
            oldest = &catalog;
    }
    return *oldest;
}

void open_catalog(Catalog &catalog, const char *name)
{
    if (catalog.is_open) {
        (void)catclose(catalog.handle); // its texts are not used any more, whatever it answers
        verdicts.fill({});
    }
    std::memcpy(catalog.name, name, std::strlen(name) + 1);
    // With flag 0 the search follows LANG, even where that locale is not installed.
    catalog.handle = catopen(name, 0);
    catalog.is_open = catalog.handle != failed_open;
}

// NULL for a name that no catalogue can have.
Catalog *use_catalog(const char *name)
{
    if (name == nullptr || *name == '\0' || std::strlen(name) >= name_size)
        return nullptr;
    Catalog *catalog = find_catalog(name);
    if (catalog == nullptr) {
        catalog = &slot_to_fill();
        open_catalog(*catalog, name);
    }
    last_used = static_cast<std::size_t>(catalog - catalogs.data());
    catalog->last_use = ++uses;
    return catalog;
}

bool is_safe_in_place_of(const char *text, const char *default_text)
{
    const auto address = reinterpret_cast<std::uintptr_t>(text);
    Verdict &verdict = verdicts[(address ^ address >> 8) % verdicts.size()];
    if (verdict.text != text || verdict.default_text != default_text)
        verdict = {text, default_text, ks::imsg::has_same_directives(text, default_text)};
    return verdict.is_same;
}

// What one directive asks of the argument list.
struct Arguments {
    strutl_printf_kind kind = strutl_printf_kind_null; // null: no directive is left
    int star_width = 0;
    int star_precision = 0;
    bool is_wide = false; // the length takes another argument than the kind tells: "%ls", "%lc", "%llf"
    bool operator==(const Arguments &) const = default;
};

// A number of five digits or more: a catalogue must not make a message of gigabytes.
bool has_long_number(std::string_view directive)
{
    std::size_t digits = 0;
    for (const char c : directive) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 4)
            return true;
    }
    return false;
}

bool is_wide(std::string_view directive, strutl_printf_kind kind)
{
    const char conversion = directive.back();
    directive.remove_suffix(1);
    if (kind == strutl_printf_kind_double)
        return directive.ends_with("ll");
    return directive.ends_with('l') && (conversion == 's' || conversion == 'c');
}

// The next directive that takes an argument; false where one cannot be read or is not to be used.
bool next_arguments(const char *format, std::size_t &at, Arguments &out)
{
    char directive[64];
    do {
        out = {};
        if (strutl_find_printf_directive(format, at, sizeof directive, directive, &at, &out.kind, &out.star_width,
                                         &out.star_precision) == 0) {
            out = {};
            return format[at] == '\0';
        }
        const std::string_view text = directive;
        if (text.size() == sizeof directive - 1 || has_long_number(text))
            return false;
    } while (out.kind == strutl_printf_kind_percent && out.star_width == 0 && out.star_precision == 0);
    out.is_wide = is_wide(directive, out.kind);
    return true;
}

} // namespace

namespace ks::imsg {

const char *default_text_of(const msg_table &table, unsigned number)
{
    const char *text = table.default_texts == nullptr ? nullptr : table.default_texts[number];
    return text == nullptr ? "" : text;
}

bool has_same_directives(const char *text, const char *default_text)
{
    if (std::strcmp(text, default_text) == 0)
        return true;
    std::size_t text_at = 0;
    std::size_t default_at = 0;
    for (;;) {
        Arguments of_text;
        Arguments of_default;
        if (!next_arguments(text, text_at, of_text) || !next_arguments(default_text, default_at, of_default) ||
            !(of_text == of_default))
            return false;
        if (of_text.kind == strutl_printf_kind_null)
            return true;
    }
}

const char *cat_lookup(const msg_table &table, unsigned number)
{
    const char *default_text = default_text_of(table, number);
    if (table.catalog_numbers == nullptr)
        return default_text;
    const Catalog *catalog = use_catalog(table.catalog_name);
    if (catalog == nullptr || !catalog->is_open)
        return default_text;
    const char *text = catgets(catalog->handle, table.set, table.catalog_numbers[number], default_text);
    return text == default_text || is_safe_in_place_of(text, default_text) ? text : default_text;
}

const char *cat_extractmsg(const msg_table &table, unsigned number)
{
    imsg_tls &section = thread_section();
    LockGuard lock(ks_product_crit);
    const char *text = cat_lookup(table, number);
    const char *default_text = default_text_of(table, number);
    const std::size_t size = std::strlen(text) + 1;
    if (text == default_text || !make_room(section.catalog_text, section.catalog_text_size, size))
        return default_text;
    std::memcpy(section.catalog_text, text, size);
    return section.catalog_text;
}

} // namespace ks::imsg
