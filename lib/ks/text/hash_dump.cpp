// What a hash table holds, and how evenly, as trace output.
#include "util/hash_impl.h"

#include "base/msg_port.h"

#include <korvaks/imsg.h>
#include <korvaks/strutl.h>

#include <array>
#include <iterator>

namespace {

using ks::hash::require_table;

constexpr unsigned literal_format = static_cast<unsigned>(IMSG_RAW_FORMAT);
constexpr std::size_t histogram_slots = 50;

unsigned long address_number(const void *address)
{
    return reinterpret_cast<unsigned long>(address);
}

template <typename... Args> void print(const char *format, Args... args)
{
    (void)imsg_print_shared(ks::msg_trace, nullptr, format, literal_format, args...); // nobody could be told
}

// A line that is put together from parts, so that it is printed as one message.
class Line {
  public:
    template <typename... Args> void add(const char *format, Args... args)
    {
        const int length = strutl_snprintf(text_ + used_, sizeof text_ - used_, format, args...);
        if (length > 0)
            used_ += static_cast<std::size_t>(length); // every part is a few numbers
    }
    void print_it() const { print("%s", text_); }

  private:
    char text_[512]{};
    std::size_t used_ = 0;
};

const char *keytype_name(uint32_t keytype)
{
    constexpr const char *names[] = {"HASH_KEY_INT", "HASH_KEY_STR", "HASH_KEY_FLEN"};
    return keytype < std::size(names) ? names[keytype] : "*unknown*";
}

char flag(uint32_t is_set)
{
    return is_set != 0 ? 'T' : 'F';
}

void dump_record(const hash_ht *ht)
{
    print("-------------------------- Hash Table Dump ------------------------------------\n");
    print("(hash) ht 0x%016lx: bkts=0x%016lx, #bkts=%lu, #cells=%lu, dbytes=%lu,\n", address_number(ht),
          address_number(ht->bkts), ht->nbkts, ht->cells, ht->dbytes);
    Line line;
    line.add("       area=0x%016lx, keytype=%s, copyk=%c", address_number(ht->area), keytype_name(ht->keytype),
             flag(ht->copyk));
    if (ht->keytype == HASH_KEY_FLEN)
        line.add(", key_bytes=%lu", ht->key_bytes);
    line.add("%s", "\n");
    line.print_it();
    if (ht->limit != 0 || ht->order != 0)
        print("       limit=%lu, climit=%lu, order=%c, 1cell=0x%016lx, lcell=0x%016lx\n", ht->limit, ht->climit,
              flag(ht->order), address_number(ht->first_cell), address_number(ht->last_cell));
}

void dump_cell(const hash_ht *ht, hash_cell *cell)
{
    Line line;
    line.add("  cell 0x%016lx: ", address_number(cell));
    if (ht->keytype == HASH_KEY_INT)
        line.add("key=%ld, ", cell->key.integer);
    line.add("hval=%u, datap=0x%016lx, next=0x%016lx", cell->hval, address_number(ks::hash::data_of(cell)),
             address_number(cell->next));
    if (ht->order != 0) {
        const hash_cell_links links = ks::hash::links_of(cell);
        line.add(", order=0x%016lx, back=0x%016lx", address_number(links.order), address_number(links.back));
    }
    line.add("%s", "\n");
    line.print_it();
    if (ht->keytype == HASH_KEY_STR)
        print("    key=\"%s\"\n", cell->key.string == nullptr ? "(null)" : cell->key.string);
}

int chain_length(const hash_cell *cell)
{
    int length = 0;
    for (; cell != nullptr; cell = cell->next)
        ++length;
    return length;
}

} // namespace

extern "C" {

void hash_dump(const hash_ht *ht)
{
    require_table(ht);
    dump_record(ht);
    for (uint64_t bucket = 0; bucket < ht->nbkts; ++bucket) {
        if (ht->bkts[bucket] == nullptr)
            continue;
        print("bucket %lu:\n", bucket);
        for (hash_cell *cell = ht->bkts[bucket]; cell != nullptr; cell = cell->next)
            dump_cell(ht, cell);
    }
}

void hash_dump_stats(const hash_ht *ht)
{
    require_table(ht);
    print("-------------------------- Hash Table Statistics ------------------------------\n");
    std::array<int, histogram_slots> buckets_of_length{};
    for (uint64_t bucket = 0; bucket < ht->nbkts; ++bucket) {
        const int length = chain_length(ht->bkts[bucket]);
        if (length != 0)
            print("bucket %lu: %d\n", bucket, length);
        // Longer chains have their own lines above and no place in the histogram.
        if (static_cast<std::size_t>(length) < buckets_of_length.size())
            ++buckets_of_length[static_cast<std::size_t>(length)];
    }
    if (ht->free_cells != nullptr)
        print("Number of entries on free list: %d\n", chain_length(ht->free_cells));
    print("\n");
    print("number of buckets: %lu\n", ht->nbkts);
    print("number of cells: %lu\n", ht->cells);
    for (std::size_t length = 0; length < buckets_of_length.size(); ++length) {
        if (buckets_of_length[length] != 0)
            print("#buckets with %d entries: %d\n", static_cast<int>(length), buckets_of_length[length]);
    }
}
}
