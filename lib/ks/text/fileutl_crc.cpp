// The file checksum over memory.
//
// A step takes i = (crc >> 24) ^ byte and gives (crc << 8) ^ crctab[i], where an i of 0 stands for
// the counter's value. With an entry 0 of 0 the table would be linear: the exclusive or of two
// entries would be the entry of the exclusive or of their indexes. So for eight bytes in a row, as
// long as none of the eight indexes is 0, both the new checksum and the indexes themselves are the
// exclusive or of one table entry for each byte; the first four bytes are joined with the checksum
// beforehand. The lookups of one block do not wait for each other, and only those of the checksum
// hold up the next block. The indexes are looked at beside that: the first one that is 0 ends the
// block behind its byte.
#include <korvaks/fileutl.h>

#include <array>
#include <bit>
#include <cstring>

namespace {

constexpr uint32_t polynomial = 0xEDB88320;
// Kept exactly: every stored checksum depends on this entry.
constexpr uint32_t entry_0 = 0x7FFFFFFF;
constexpr std::size_t block_bytes = 8;

// One value for each value of a byte.
template <typename Value> using ByteTable = std::array<Value, 256>;

consteval ByteTable<uint32_t> make_linear_table()
{
    ByteTable<uint32_t> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t entry = i;
        for (int bit = 0; bit < 8; ++bit)
            entry = (entry & 1) != 0 ? (entry >> 1) ^ polynomial : entry >> 1;
        table[i] = entry;
    }
    return table;
}

consteval ByteTable<uint32_t> make_crctab(ByteTable<uint32_t> table)
{
    table[0] = entry_0;
    return table;
}

constexpr ByteTable<uint32_t> linear_table = make_linear_table();
constexpr ByteTable<uint32_t> crctab = make_crctab(linear_table);

// What each byte of a block, by its place, adds to the checksum behind the block and to the block's
// eight indexes, the first of which is the most significant byte.
struct BlockTables {
    std::array<ByteTable<uint32_t>, block_bytes> crc;
    std::array<ByteTable<uint64_t>, block_bytes> indexes;
};

consteval BlockTables make_block_tables()
{
    BlockTables tables{};
    for (std::size_t place = 0; place < block_bytes; ++place) {
        for (uint32_t byte = 0; byte < 256; ++byte) {
            uint32_t crc = 0;
            uint64_t indexes = 0;
            for (std::size_t step = 0; step < block_bytes; ++step) {
                const uint32_t index = (crc >> 24) ^ (step == place ? byte : 0);
                indexes = indexes << 8 | index;
                crc = crc << 8 ^ linear_table[index];
            }
            tables.crc[place][byte] = crc;
            tables.indexes[place][byte] = indexes;
        }
    }
    return tables;
}

constexpr BlockTables block_tables = make_block_tables();

struct State {
    uint32_t crc;
    uint32_t counter;
};

uint32_t next_counter(State &state)
{
    const uint32_t value = state.counter & 0xFF;
    state.counter = (value + 1) & 0xFF;
    return value;
}

void step(State &state, uint32_t byte)
{
    uint32_t index = (state.crc >> 24) ^ byte;
    if (index == 0)
        index = next_counter(state);
    state.crc = state.crc << 8 ^ crctab[index];
}

constexpr unsigned byte_of(uint32_t word, unsigned place)
{
    return word >> (24 - 8 * place) & 0xFF;
}

uint32_t load_be32(const unsigned char *bytes)
{
    uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    return std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
}

// Keeps the compiler from merging what is computed before and after it into one long chain of
// exclusive ors, in which the value that comes last would not be the last to be added.
uint32_t keep_apart(uint32_t value)
{
    __asm__("" : "+r"(value));
    return value;
}

// The checksum behind a block. `first` waits for the block before, `second` does not.
uint32_t crc_behind(uint32_t first, uint32_t second)
{
    const auto &table = block_tables.crc;
    const uint32_t ready = keep_apart(table[4][byte_of(second, 0)] ^ table[5][byte_of(second, 1)] ^
                                      table[6][byte_of(second, 2)] ^ table[7][byte_of(second, 3)]);
    return keep_apart(table[0][byte_of(first, 0)] ^ table[1][byte_of(first, 1)]) ^
           keep_apart(table[2][byte_of(first, 2)] ^ table[3][byte_of(first, 3)] ^ ready);
}

uint64_t indexes_of(uint32_t first, uint32_t second)
{
    const auto &table = block_tables.indexes;
    return table[0][byte_of(first, 0)] ^ table[1][byte_of(first, 1)] ^ table[2][byte_of(first, 2)] ^
           table[3][byte_of(first, 3)] ^ table[4][byte_of(second, 0)] ^ table[5][byte_of(second, 1)] ^
           table[6][byte_of(second, 2)] ^ table[7][byte_of(second, 3)];
}

constexpr uint64_t low_bits = 0x0101010101010101;
constexpr uint64_t high_bits = 0x8080808080808080;

bool has_zero_byte(uint64_t word)
{
    return ((word - low_bits) & ~word & high_bits) != 0;
}

// How many bytes stand before the first (most significant) zero byte of a word that has one.
unsigned bytes_before_zero(uint64_t word)
{
    const uint64_t zeros = ~(((word & ~high_bits) + ~high_bits) | word) & high_bits;
    return static_cast<unsigned>(std::countl_zero(zeros)) / 8;
}

// Goes on to behind the first index that is 0; returns the number of bytes that took. The checksum
// before that byte is made of the indexes before it, of which the last three still count in the next
// one, and of the block's start where there are fewer: linear_table[0] is 0.
std::size_t step_behind_zero(State &state, uint64_t indexes)
{
    const unsigned before = bytes_before_zero(indexes);
    const uint64_t passed = indexes >> 8 >> (56 - 8 * before);
    const uint64_t start = static_cast<uint64_t>(state.crc) << (8 * before);
    const uint32_t crc = static_cast<uint32_t>(start) ^ linear_table[passed & 0xFF] ^
                         linear_table[passed >> 8 & 0xFF] << 8 ^ linear_table[passed >> 16 & 0xFF] << 16;
    state.crc = crc << 8 ^ crctab[next_counter(state)];
    return before + 1;
}

void advance(State &state, const unsigned char *bytes, uint64_t length)
{
    while (length >= block_bytes) {
        const uint32_t first = state.crc ^ load_be32(bytes);
        const uint32_t second = load_be32(bytes + 4);
        const uint64_t indexes = indexes_of(first, second);
        std::size_t done = block_bytes;
        if (has_zero_byte(indexes)) [[unlikely]]
            done = step_behind_zero(state, indexes);
        else
            state.crc = crc_behind(first, second);
        bytes += done;
        length -= done;
    }
    for (; length > 0; --length)
        step(state, *bytes++);
}

} // namespace

extern "C" {

uint32_t fileutl_crc_buffer_step(const void *buf, uint64_t length, uint32_t *counter, uint32_t *crc)
{
    if (length == 0)
        return *crc;
    State state{*crc, *counter};
    advance(state, static_cast<const unsigned char *>(buf), length);
    *counter = state.counter;
    *crc = state.crc;
    return state.crc;
}

uint32_t fileutl_crc_buffer(const void *buf, uint64_t length, uint32_t *out_crc)
{
    uint32_t counter = 0;
    uint32_t crc = 0;
    (void)fileutl_crc_buffer_step(buf, length, &counter, &crc); // left in `crc`
    if (out_crc != nullptr)
        *out_crc = crc;
    return crc;
}
}
