// Compressed blocks: any data comes back, and any bytes as a block are read as a plain decoder reads them.
#include "fuzz/fuzz_support.h"
#include "harness/compress_model.h"

#include <korvaks/compress.h>
#include <korvaks/imsg.h>
#include <korvaks/stg.h>

#include <optional>

namespace {

using test::compress::Bytes;
using test::compress::declared_length;
using test::compress::decode;
using test::compress::header_size;

std::optional<Bytes> uncompress(const Bytes &block)
{
    const auto copy = fuzz::exact_copy(block.data(), block.size());
    std::size_t length = 77;
    unsigned char *data = compress_uncompress(block.size(), copy.get(), &length);
    if (data == nullptr) {
        FUZZ_REQUIRE(length == 0);
        return std::nullopt;
    }
    Bytes made(data, data + length);
    stg_free(data);
    return made;
}

void check_round_trip(const Bytes &data)
{
    const auto copy = fuzz::exact_copy(data.data(), data.size());
    std::size_t size = 0;
    unsigned char *packed = compress_compress(data.size(), copy.get(), &size);
    FUZZ_REQUIRE(packed != nullptr && size <= data.size() + data.size() / 8 + 6);
    Bytes block(packed, packed + size);
    stg_free(packed);
    FUZZ_REQUIRE(block[0] == 1 && declared_length(block) == data.size());
    FUZZ_REQUIRE(uncompress(block) == data);
    FUZZ_REQUIRE(decode(block) == data);
    block.push_back('x'); // what follows is ignored
    FUZZ_REQUIRE(uncompress(block) == data);
    block.resize(size - 1);
    FUZZ_REQUIRE(data.empty() || !uncompress(block).has_value());
}

void check_hostile(const Bytes &block)
{
    constexpr std::size_t data_max = 1 << 20; // no block of a fuzzer's size holds more
    const std::optional<Bytes> made = uncompress(block);
    if (block.size() >= header_size && declared_length(block) > data_max)
        FUZZ_REQUIRE(!made.has_value());
    else
        FUZZ_REQUIRE(made == decode(block));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    // A block that is refused is reported each time.
    imsg_redirect_output(IMSG_PROC_SUPPRESS, nullptr, IMSG_PROC_SUPPRESS, nullptr);
    const Bytes bytes(data, data + size);
    check_hostile(bytes);
    if (size < 0x10000) { // a plausible header, so that the bits are read
        Bytes block = {1, 0, 0, static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)};
        block.insert(block.end(), bytes.begin(), bytes.end());
        check_hostile(block);
    }
    check_round_trip(bytes);
    return 0;
}
