// The counted string: from a hostile stream, and back to the bytes it came from.
#include "fuzz/fuzz_support.h"
#include "rpc/wire/connection.h"

#include <korvaks/ezrpc.h>

namespace {

void check(std::string bytes)
{
    const auto wire = fuzz::exact_copy(bytes.data(), bytes.size());
    XDR stream;
    xdrmem_create(&stream, wire.get(), static_cast<u_int>(bytes.size()), XDR_DECODE);
    std::size_t length = SIZE_MAX;
    if (bytes.size() >= 4)
        length = ntohl(*reinterpret_cast<const uint32_t *>(bytes.data()));
    char *string = nullptr;
    const bool is_whole = length <= bytes.size() && (length + 3) / 4 * 4 <= bytes.size() - 4;
    FUZZ_REQUIRE((xdr_ez_string8(&stream, &string) == 1) == is_whole);
    FUZZ_REQUIRE((string != nullptr) == is_whole);
    if (!is_whole)
        return;
    FUZZ_REQUIRE(XDR_GETPOS(&stream) == 4 + (length + 3) / 4 * 4);
    FUZZ_REQUIRE(bytes.compare(4, length, string, length) == 0 && string[length] == '\0');
    // The room behind an address is not known: nothing is read into it.
    char *const kept = string;
    FUZZ_REQUIRE(xdr_ez_string8(&stream, &string) == 0 && string == kept);
    std::string back = test::encode(xdr_ez_string8, string);
    FUZZ_REQUIRE(back.substr(0, 4 + std::strlen(string)) == test::wire_word(uint32_t(std::strlen(string))) + string);
    back.resize(back.size() - 4);
    test::Stream full(back, XDR_ENCODE);
    FUZZ_REQUIRE(xdr_ez_string8(&full, &string) == 0 && string == kept);
    test::release(xdr_ez_string8, string);
    FUZZ_REQUIRE(string == nullptr);
}

} // namespace

FUZZ_TARGET(input)
{
    const std::string bytes = input.take_rest();
    check(bytes);
    check(test::wire_word(static_cast<uint32_t>(bytes.size())) + bytes); // a length that fits nearly
}
