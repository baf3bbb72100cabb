// Entries of the sample's depot: any bytes are an entry or refused, and a header that is read is the one that was
// written.
#include "depot_content.h"
#include "depot_report.h"
#include "fuzz/fuzz_support.h"

#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using depot::Entry;
using depot::Fault;

// What the blocks of an entry hold, or nothing.
void unpack_file(const std::string &bytes)
{
    Entry entry;
    std::size_t header_bytes = 0;
    static depot::Transfer transfer;
    const std::string header = bytes.substr(0, depot::header_bytes_max);
    const auto copy = fuzz::exact_copy(reinterpret_cast<const unsigned char *>(header.data()), header.size());
    if (read_header(copy.get(), header.size(), bytes.size(), entry, header_bytes) != Fault::none)
        return;
    FUZZ_REQUIRE(header_bytes + entry.stored_length == bytes.size());
    FUZZ_REQUIRE(entry.owner.size() <= depot::owner_bytes_max && entry.permissions <= 0777);
    FUZZ_REQUIRE(entry.stored.tv_nsec < 1000000000 && entry.changed.tv_nsec < 1000000000);
    FUZZ_REQUIRE(entry.owner.find('\0') == entry.owner.npos && entry.comment.find('\0') == entry.comment.npos);
    transfer.source_name = "entry";
    transfer.source = memfd_create("entry", MFD_CLOEXEC);
    FUZZ_REQUIRE(write(transfer.source, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    lseek(transfer.source, static_cast<off_t>(header_bytes), SEEK_SET);
    (void)unpack(transfer, entry, depot::to_nowhere);
    end_transfer(transfer);
}

// A header that vouches for itself, with the input as its fields, and the rest behind it.
std::string with_header(fuzz::Input &input)
{
    unsigned char header[depot::header_bytes_max];
    Entry entry;
    entry.length = std::uint64_t{input.take_byte()} << 14;
    entry.checksum = input.take_byte();
    entry.permissions = input.take_byte();
    entry.stored.tv_nsec = input.take_byte() << 23;
    const std::string comment = input.take_text().substr(0, depot::comment_bytes_max);
    entry.comment = comment;
    entry.stored_length = input.left();
    const std::size_t size = write_header(entry, header);
    return std::string(reinterpret_cast<const char *>(header), size) + input.take_rest();
}

} // namespace

FUZZ_TARGET(input)
{
    fuzz::suppress_messages();
    static const bool is_started = depot::start_messages("fuzz");
    FUZZ_REQUIRE(is_started);
    fuzz::Input as_file = input;
    unpack_file(as_file.take_rest());
    unpack_file(with_header(input));
}
