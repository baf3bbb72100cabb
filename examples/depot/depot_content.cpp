#include "depot_content.h"

#include "depot_report.h"

#include <korvaks/compress.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>

#include <algorithm>
#include <cerrno>

#include <unistd.h>

namespace depot {

namespace {

bool fail_to_read(const Transfer &transfer, int failure)
{
    return fail(msg_cannot_read, transfer.source_name, failure);
}

bool make_room(Transfer &transfer)
{
    if (transfer.room == nullptr)
        transfer.room = static_cast<unsigned char *>(stg_malloc(block_content_bytes));
    return transfer.room != nullptr || fail_to_read(transfer, ENOMEM);
}

void drop(unsigned char *&block)
{
    stg_free(block);
    block = nullptr;
}

// Storing.

int write_block(Transfer &transfer, const unsigned char *stored, std::size_t size, Checksum &sum)
{
    add_block(sum, stored, size);
    unsigned char head[block_head_bytes];
    write_block_head({static_cast<std::uint32_t>(size), sum.value()}, head);
    if (const int failure = write_aside(transfer.aside, head, sizeof head); failure != 0)
        return failure;
    return write_aside(transfer.aside, stored, size);
}

// What packing does not make shorter is stored as it is.
bool pack_block(Transfer &transfer, std::size_t size, Entry &entry, Checksum &sum)
{
    std::size_t packed_size = 0;
    transfer.result = compress_compress(size, transfer.room, &packed_size);
    if (transfer.result == nullptr)
        return fail_to_read(transfer, ENOMEM);
    const bool is_shorter = packed_size < size;
    const std::size_t stored_size = is_shorter ? packed_size : size;
    const int failure = write_block(transfer, is_shorter ? transfer.result : transfer.room, stored_size, sum);
    drop(transfer.result);
    entry.stored_length += block_head_bytes + stored_size;
    return failure == 0 || fail(msg_cannot_write, transfer.target_name, failure);
}

bool pack_waiting(Transfer &transfer, Packing &packing, Entry &entry)
{
    packing.content.add(transfer.room, packing.waiting);
    if (!pack_block(transfer, packing.waiting, entry, packing.stored))
        return false;
    entry.length += packing.waiting;
    packing.waiting = 0;
    return true;
}

// Fetching.

// Reads bytes that have to be there.
bool read_stored(Transfer &transfer, unsigned char *to, std::size_t size)
{
    std::size_t count = 0;
    if (const int failure = read_fully(transfer.source, to, size, count); failure != 0)
        return fail_to_read(transfer, failure);
    return count == size || fail(Fault::size, transfer.source_name);
}

// Restores a compressed block, which has been checked.
bool restore(Transfer &transfer, const unsigned char *block, std::size_t block_size, std::size_t size)
{
    std::size_t restored_size = 0;
    transfer.result = compress_uncompress_quiet(block_size, block, &restored_size);
    if (transfer.result == nullptr && errno == ENOMEM)
        return fail(Fault::memory, transfer.source_name);
    return (transfer.result != nullptr && restored_size == size) || fail(Fault::content, transfer.source_name);
}

bool give(Transfer &transfer, const unsigned char *data, std::size_t size, Sink sink)
{
    const int failure = sink(transfer, data, size);
    if (failure == EPIPE)
        return false; // whoever read it has seen enough
    return failure == 0 || fail(msg_cannot_write, transfer.target_name, failure);
}

bool unpack_block(Transfer &transfer, std::size_t size, Position &position, Sink sink)
{
    unsigned char bytes[block_head_bytes];
    if (!read_stored(transfer, bytes, sizeof bytes))
        return false;
    const BlockHead head = read_block_head(bytes);
    if (head.stored_bytes > size)
        return fail(Fault::block, transfer.source_name);
    if (!read_stored(transfer, transfer.room, head.stored_bytes))
        return false;
    add_block(position.stored_sum, transfer.room, head.stored_bytes);
    position.stored += block_head_bytes + head.stored_bytes;
    if (position.stored_sum.value() != head.checksum)
        return fail(Fault::block, transfer.source_name);
    const bool is_packed = head.stored_bytes < size;
    if (is_packed && !restore(transfer, transfer.room, head.stored_bytes, size))
        return false;
    const unsigned char *const data = is_packed ? transfer.result : transfer.room;
    position.content.add(data, size);
    position.given += size;
    const bool is_given = give(transfer, data, size, sink);
    drop(transfer.result);
    return is_given;
}

// A checksum of any length, with checks for Ctrl-C.
std::uint32_t checksum_of(const unsigned char *data, std::size_t size)
{
    Checksum sum;
    while (size > 0) {
        pfm_test_raise(nullptr);
        const std::size_t piece = std::min(size, block_content_bytes);
        sum.add(data, piece);
        data += piece;
        size -= piece;
    }
    return sum.value();
}

// Older entries are one block, which needs memory for all of it and for the content.
bool unpack_whole(Transfer &transfer, const Entry &entry, Sink sink)
{
    transfer.whole = static_cast<unsigned char *>(stg_malloc(entry.stored_length));
    if (transfer.whole == nullptr)
        return fail(Fault::memory, transfer.source_name);
    if (!read_stored(transfer, transfer.whole, entry.stored_length))
        return false;
    if (checksum_of(transfer.whole, entry.stored_length) != entry.stored_checksum)
        return fail(Fault::block, transfer.source_name);
    if (!restore(transfer, transfer.whole, entry.stored_length, entry.length))
        return false;
    if (checksum_of(transfer.result, entry.length) != entry.checksum)
        return fail(Fault::content, transfer.source_name);
    for (std::size_t given = 0; given < entry.length;) {
        const std::size_t size = std::min<std::size_t>(entry.length - given, block_content_bytes);
        if (!give(transfer, transfer.result + given, size, sink))
            return false;
        given += size;
    }
    return true;
}

} // namespace

void end_transfer(Transfer &transfer)
{
    discard_aside(transfer.aside);
    close_descriptor(transfer.source);
    close_descriptor(transfer.target_directory);
    drop(transfer.result);
    drop(transfer.whole);
}

void release(Transfer &transfer)
{
    end_transfer(transfer);
    drop(transfer.room);
}

bool add_content(Transfer &transfer, Packing &packing, Entry &entry, const unsigned char *data, std::size_t size)
{
    if (!make_room(transfer))
        return false;
    while (size > 0) {
        const std::size_t count = std::min(size, block_content_bytes - packing.waiting);
        std::copy_n(data, count, transfer.room + packing.waiting);
        packing.waiting += count;
        data += count;
        size -= count;
        if (packing.waiting == block_content_bytes && !pack_waiting(transfer, packing, entry))
            return false;
    }
    return true;
}

bool end_content(Transfer &transfer, Packing &packing, Entry &entry)
{
    if (packing.waiting > 0 && !pack_waiting(transfer, packing, entry))
        return false;
    entry.checksum = packing.content.value();
    entry.stored_checksum = packing.stored.value();
    return true;
}

bool pack(Transfer &transfer, Entry &entry)
{
    if (!make_room(transfer))
        return false;
    Packing packing;
    for (;;) {
        const int failure = read_fully(transfer.source, transfer.room, block_content_bytes, packing.waiting);
        if (failure != 0)
            return fail_to_read(transfer, failure);
        if (packing.waiting < block_content_bytes) // a shorter one is the last
            return end_content(transfer, packing, entry);
        if (!pack_waiting(transfer, packing, entry))
            return false;
        show_progress(transfer.source_name, entry.length);
    }
}

int to_nowhere(Transfer &, const unsigned char *, std::size_t)
{
    return 0;
}

int to_aside(Transfer &transfer, const unsigned char *data, std::size_t size)
{
    return write_aside(transfer.aside, data, size);
}

int to_output(Transfer &, const unsigned char *data, std::size_t size)
{
    return write_to_stream(STDOUT_FILENO, data, size);
}

bool unpack_next(Transfer &transfer, const Entry &entry, Position &position, Sink sink)
{
    if (!entry.is_in_blocks) {
        position.given = entry.length;
        return unpack_whole(transfer, entry, sink);
    }
    const std::uint64_t left = entry.length - position.given;
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(left, block_content_bytes));
    if (size > 0 && (!make_room(transfer) || !unpack_block(transfer, size, position, sink)))
        return false;
    show_progress(transfer.source_name, position.given);
    if (position.given < entry.length)
        return true;
    return (position.stored == entry.stored_length && position.stored_sum.value() == entry.stored_checksum) ||
           fail(Fault::block, transfer.source_name);
}

bool unpack(Transfer &transfer, const Entry &entry, Sink sink)
{
    Position position;
    do {
        if (!unpack_next(transfer, entry, position, sink))
            return false;
    } while (position.given < entry.length);
    const bool is_checked = !entry.is_in_blocks; // by unpack_whole()
    return is_checked || position.content.value() == entry.checksum || fail(Fault::content, transfer.source_name);
}

bool fail(Fault fault, const char *name)
{
    constexpr Msg messages[] = {msg_count,    msg_not_an_entry, msg_unknown_version, msg_bad_header,
                                msg_bad_size, msg_bad_block,    msg_bad_content,     msg_no_memory};
    return fail(messages[static_cast<std::size_t>(fault)], name);
}

} // namespace depot
