// Message catalogues: a few stay open, and none is trusted.
//
// A catalogue is a file that others own, mapped into memory: it can be rewritten while it is in use, and its texts
// are formats. So a text is read once, checked as what it then was, and kept; what the file says later is not
// looked at until the catalogue is opened again.
#include "messages/imsg_impl.h"

#include "kernel/stg_quiet.h"

#include <korvaks/tls_impl.h>

#include <cstdint>
#include <cstring>

#include <nl_types.h>

namespace {

constexpr std::size_t name_size = 256;
constexpr std::size_t bucket_count = 64;

// What a catalogue says for a message; a heap block with both texts in it.
struct KeptText {
    KeptText *next; // in its bucket
    std::uint16_t set;
    std::uint16_t number;
    const char *default_text; // that `text` was compared with
    const char *text;         // NULL: the catalogue has none that may be used
};

// A catalogue by name; one that could not be opened keeps its place, so that it is not searched for
// again at every message.
struct Catalog {
    char name[name_size];
    nl_catd handle;
    bool is_open;
    std::uint64_t last_use; // place in the order of uses; 0: the slot is empty
    std::array<KeptText *, bucket_count> kept;
};

constinit std::array<Catalog, 5> catalogs{}; // guarded by ks_product_crit
constinit std::size_t last_used = 0;         // guarded by ks_product_crit
constinit std::uint64_t uses = 0;            // guarded by ks_product_crit

const nl_catd failed_open = reinterpret_cast<nl_catd>(-1);

// --- Catalogues ---

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

void close_catalog(Catalog &catalog)
{
    if (!catalog.is_open)
        return;
    (void)catclose(catalog.handle); // it is not used any more, whatever it answers
    for (KeptText *&bucket : catalog.kept) {
        while (bucket != nullptr) {
            KeptText *const kept = bucket;
            bucket = kept->next;
            stg_free_int(kept, 1);
        }
    }
}

void open_catalog(Catalog &catalog, const char *name)
{
    close_catalog(catalog);
    std::memcpy(catalog.name, name, std::strlen(name) + 1);
    catalog.handle = ks::imsg::find_catalog_file(name);
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

// --- Kept texts ---

// The place of a message in its bucket, or the end of the bucket.
KeptText **place_of(Catalog &catalog, std::uint16_t set, std::uint16_t number)
{
    KeptText **place = &catalog.kept[(set * 31U + number) % bucket_count];
    while (*place != nullptr && ((*place)->set != set || (*place)->number != number))
        place = &(*place)->next;
    return place;
}

// NULL when memory is exhausted. `text` may be NULL, and may change while it is copied.
KeptText *new_kept_text(const char *default_text, const char *text)
{
    const std::size_t default_length = std::strlen(default_text);
    const std::size_t length = text != nullptr ? std::strlen(text) : 0;
    auto *block = static_cast<char *>(ks::heap_try_malloc(sizeof(KeptText) + default_length + 1 + length + 1));
    if (block == nullptr)
        return nullptr;
    char *const default_copy = block + sizeof(KeptText);
    std::memcpy(default_copy, default_text, default_length + 1);
    char *const copy = default_copy + default_length + 1;
    if (text != nullptr)
        std::memcpy(copy, text, length);
    copy[length] = '\0';
    return new (block) KeptText{nullptr, 0, 0, default_copy, text != nullptr ? copy : nullptr};
}

void refuse_unsafe_text(KeptText &kept, const msg_table &table, unsigned number)
{
    const char *refusal = kept.text == nullptr ? nullptr : ks::imsg::refusal_of(kept.text, kept.default_text);
    if (refusal == nullptr)
        return;
    ks::imsg::explain("Text %u of set %u in catalogue \"%s\" is not used, as it %s: %s\n",
                      table.catalog_numbers[number], table.set, table.catalog_name, refusal, kept.text);
    kept.text = nullptr;
}

// Asks the catalogue itself; NULL when memory is exhausted.
KeptText *read_text(const Catalog &catalog, const msg_table &table, unsigned number, const char *default_text)
{
    const char *text = catgets(catalog.handle, table.set, table.catalog_numbers[number], default_text);
    KeptText *kept = new_kept_text(default_text, text != default_text ? text : nullptr);
    if (kept == nullptr)
        return nullptr;
    kept->set = table.set;
    kept->number = table.catalog_numbers[number];
    refuse_unsafe_text(*kept, table, number);
    return kept;
}

// NULL when the default text is to be used.
const char *translation_of(Catalog &catalog, const msg_table &table, unsigned number, const char *default_text)
{
    KeptText **place = place_of(catalog, table.set, table.catalog_numbers[number]);
    if (*place != nullptr && std::strcmp((*place)->default_text, default_text) == 0)
        return (*place)->text;
    KeptText *kept = read_text(catalog, table, number, default_text);
    if (kept == nullptr)
        return nullptr;
    if (KeptText *const other = *place; other != nullptr) { // compared with another table's text
        kept->next = other->next;
        stg_free_int(other, 1);
    }
    *place = kept;
    return kept->text;
}

const char *cat_lookup(const msg_table &table, unsigned number)
{
    const char *default_text = ks::imsg::default_text_of(table, number);
    if (table.catalog_numbers == nullptr)
        return default_text;
    const ks::ErrnoSaver saver; // the format may ask for its text
    Catalog *catalog = use_catalog(table.catalog_name);
    if (catalog == nullptr || !catalog->is_open)
        return default_text;
    const char *text = translation_of(*catalog, table, number, default_text);
    return text != nullptr ? text : default_text;
}

const char *cat_extractmsg(const msg_table &table, unsigned number)
{
    imsg_tls &section = ks::imsg::thread_section();
    const ks::IoLockGuard lock(ks::ks_product_crit);
    const char *text = cat_lookup(table, number);
    const char *default_text = ks::imsg::default_text_of(table, number);
    const std::size_t size = std::strlen(text) + 1;
    if (text == default_text || !ks::imsg::make_room(section.catalog_text, section.catalog_text_size, size))
        return default_text;
    std::memcpy(section.catalog_text, text, size);
    return section.catalog_text;
}

} // namespace

namespace ks::imsg {

const char *default_text_of(const msg_table &table, unsigned number)
{
    const char *text = table.default_texts == nullptr ? nullptr : table.default_texts[number];
    return text == nullptr ? "" : text;
}

const char *text_of_locked(const Message &message)
{
    return message.table == nullptr ? message.raw_format : cat_lookup(*message.table, message.number);
}

const char *text_of(const Message &message)
{
    return message.table == nullptr ? message.raw_format : cat_extractmsg(*message.table, message.number);
}

} // namespace ks::imsg
