// The counted string: from a hostile stream, and back to the bytes it came from.
#include "fuzz/fuzz_support.h"

#include <korvaks/ezrpc.h>

#include <cstring>

#include <rpc/rpc.h>

namespace {

struct Stream {
    Stream(char *bytes, std::size_t size, xdr_op operation)
    {
        xdrmem_create(&xdrs, bytes, static_cast<u_int>(size), operation);
    }
    ~Stream() { XDR_DESTROY(&xdrs); }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    XDR xdrs;
};

std::size_t padded(std::size_t count)
{
    return (count + 3) / 4 * 4;
}

std::size_t counted_length(const std::string &bytes)
{
    std::size_t length = 0;
    for (std::size_t i = 0; i < 4; ++i)
        length = length << 8 | static_cast<unsigned char>(bytes[i]);
    return length;
}

void check_round_trip(const std::string &text)
{
    const std::size_t size = 4 + padded(text.size());
    const auto wire = fuzz::exact_room(size, 'x');
    std::string copy = text;
    char *string = copy.data();
    Stream stream(wire.get(), size, XDR_ENCODE);
    FUZZ_REQUIRE(xdr_ez_string8(&stream.xdrs, &string) == 1 && XDR_GETPOS(&stream.xdrs) == size);
    FUZZ_REQUIRE(counted_length({wire.get(), size}) == text.size());
    Stream full(wire.get(), size - 4, XDR_ENCODE);
    FUZZ_REQUIRE(xdr_ez_string8(&full.xdrs, &string) == 0 && string == copy.data());
}

void check_hostile(const std::string &bytes)
{
    const auto wire = fuzz::exact_copy(bytes.data(), bytes.size());
    Stream stream(wire.get(), bytes.size(), XDR_DECODE);
    char *string = nullptr;
    const bool is_whole = bytes.size() >= 4 && padded(counted_length(bytes)) <= bytes.size() - 4;
    FUZZ_REQUIRE((xdr_ez_string8(&stream.xdrs, &string) == 1) == is_whole);
    FUZZ_REQUIRE((string != nullptr) == is_whole);
    if (!is_whole)
        return;
    const std::size_t length = counted_length(bytes);
    FUZZ_REQUIRE(XDR_GETPOS(&stream.xdrs) == 4 + padded(length));
    FUZZ_REQUIRE(std::memcmp(string, bytes.data() + 4, length) == 0 && string[length] == '\0');
    // The room behind an address is not known: nothing is read into it.
    char *const kept = string;
    FUZZ_REQUIRE(xdr_ez_string8(&stream.xdrs, &string) == 0 && string == kept);
    check_round_trip(string);
    char none[1];
    Stream freeing(none, 0, XDR_FREE);
    FUZZ_REQUIRE(xdr_ez_string8(&freeing.xdrs, &string) == 1 && string == nullptr);
}

} // namespace

FUZZ_TARGET(input)
{
    const std::string bytes = input.take_rest();
    const std::size_t size = bytes.size();
    check_hostile(bytes);
    if (size < 0x10000) // a length that fits nearly
        check_hostile(std::string{'\0', '\0', static_cast<char>(size >> 8), static_cast<char>(size)} + bytes);
}
