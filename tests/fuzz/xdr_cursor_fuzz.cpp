// Cursors: entries stored, changed, freed and asked for, against a list that is searched.
#include "fuzz/fuzz_support.h"
#include "rpc/wire/connection.h"

namespace {

// The index that a cursor is sent with; it must be admitted.
uint32_t store(std::vector<void *> &entries, void *cursor, uint32_t index)
{
    if (index == 0 && cursor != nullptr) {
        index = static_cast<uint32_t>(std::find(entries.begin() + 1, entries.end(), nullptr) - entries.begin());
        entries.resize(std::max<std::size_t>(entries.size(), index + 1));
    }
    entries[index] = index != 0 ? cursor : nullptr;
    return cursor != nullptr ? index : 0;
}

} // namespace

FUZZ_TARGET(input)
{
    ks_cursor_table *table = nullptr;
    uint32_t count = 0;
    vlthread_mutex_t mutex;
    vlthread_mutex_init(&mutex);
    std::vector<void *> entries(1);
    while (input.left() > 0) {
        const auto kind = input.take_byte();
        const bool is_sent = kind % 3 != 0;
        uint32_t index = input.take_byte() * (kind < 250 ? 1u : 0x01010101u) * (kind % 3 != 1);
        void *cursor = reinterpret_cast<void *>(std::uintptr_t{kind} / 16 * 8);
        std::string bytes = test::wire_word(index);
        test::Stream stream(bytes, is_sent ? XDR_ENCODE : XDR_DECODE);
        const bool is_admitted = index < entries.size() && (is_sent || index == 0 || entries[index] != nullptr);
        const uint32_t before = index;
        FUZZ_REQUIRE((xdr_ks_generic_cursor_t(&stream, &cursor, &index, &table, &count, &mutex) != FALSE) ==
                     is_admitted);
        FUZZ_REQUIRE(!is_admitted || is_sent || (cursor == entries[index] && index == before));
        if (is_sent && is_admitted)
            FUZZ_REQUIRE(bytes == test::wire_word(store(entries, cursor, before)) && index == 0);
    }
    FUZZ_REQUIRE(count == 0 || count == entries.size());
    stg_free(table);
}
