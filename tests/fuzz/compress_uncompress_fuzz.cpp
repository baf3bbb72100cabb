// Compressed blocks: any data comes back, and any bytes as a block are read as a plain decoder reads them.
#include "fuzz/fuzz_support.h"
#include "harness/compress_model.h"

#include <korvaks/compress.h>

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
    const fuzz::Given<unsigned char> data(compress_uncompress(block.size(), copy.get(), &length));
    FUZZ_REQUIRE(data != nullptr || length == 0);
    return data != nullptr ? std::optional(Bytes(data.get(), data.get() + length)) : std::nullopt;
}

void check_round_trip(const Bytes &data)
{
    const auto copy = fuzz::exact_copy(data.data(), data.size());
    std::size_t size = 0;
    const fuzz::Given<unsigned char> packed(compress_compress(data.size(), copy.get(), &size));
    FUZZ_REQUIRE(packed != nullptr && size <= data.size() + data.size() / 8 + 6);
    Bytes block(packed.get(), packed.get() + size);
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

FUZZ_TARGET(input)
{
    fuzz::suppress_messages();
    const std::string text = input.take_rest();
    const Bytes bytes(text.begin(), text.end());
    check_hostile(bytes);
    if (bytes.size() < 0x10000) { // a plausible header, so that the bits are read
        Bytes block = {1, 0, 0, static_cast<unsigned char>(bytes.size() >> 8),
                       static_cast<unsigned char>(bytes.size())};
        block.insert(block.end(), bytes.begin(), bytes.end());
        check_hostile(block);
    }
    check_round_trip(bytes);
}
