// Replies of strangers: what a client makes of them is what the layout of RFC 5531 says.
#include "fuzz/fuzz_support.h"
#include "rpc/client/clnt_impl.h"
#include "rpc/wire/xdr_memory.h"

#include <cstring>

#include <arpa/inet.h>

namespace {

// Status, and the two numbers that belong to it.
struct Expected {
    clnt_stat status;
    uint32_t numbers[2];
};

// Of bytes that a server has sent for a call with a word as its result.
Expected expect(const std::string &bytes)
{
    constexpr Expected cut{RPC_CANTDECODERES, {}};
    constexpr clnt_stat accepted[] = {RPC_SUCCESS,     RPC_PROGUNAVAIL,    RPC_PROGVERSMISMATCH,
                                      RPC_PROCUNAVAIL, RPC_CANTDECODEARGS, RPC_SYSTEMERROR};
    const std::size_t count = bytes.size() / 4;
    std::vector<uint32_t> words(count + 110); // and a verifier that is not there
    std::memcpy(words.data(), bytes.data(), count * 4);
    for (uint32_t &word : words)
        word = ntohl(word);
    const bool is_denied = words[2] == 1;
    const std::size_t at = is_denied ? 3 : 5 + (words[4] + 3) / 4;
    if (count < 3 || words[1] != 1 || words[2] > 1 || (!is_denied && words[4] > 400) || at >= count)
        return cut;
    const uint32_t detail = words[at];
    if (detail == (is_denied ? 0 : 2))
        return at + 2 < count ? Expected{is_denied ? RPC_VERSMISMATCH : accepted[2], {words[at + 1], words[at + 2]}}
                              : cut;
    if (is_denied)
        return detail == 1 && at + 1 < count ? Expected{RPC_AUTHERROR, {words[at + 1], 0}} : cut;
    if (detail == 0 && at + 1 >= count)
        return cut;
    return detail < std::size(accepted) ? Expected{accepted[detail], {}} : Expected{RPC_FAILED, {0, detail}};
}

bool_t decode_word(XDR *xdrs, uint32_t *word)
{
    return xdr_ks_uint32_t(xdrs, word);
}

} // namespace

// As a client does it, which takes up what a server gives for its credential.
FUZZ_TARGET(input)
{
    const std::string bytes = input.take_rest();
    const auto copy = fuzz::exact_copy(bytes.data(), bytes.size());
    XDR stream;
    ks::make_memory_stream(stream, copy.get(), static_cast<u_int>(bytes.size()), XDR_DECODE);
    ks::clnt::Client client{};
    client.handle.cl_auth = ks_authunix_create("h", 1, 2, 0, nullptr);
    client.error.re_status = RPC_CANTDECODERES;
    ks::clnt::Reply reply;
    uint32_t result = 0;
    ks::clnt::Results wanted{reinterpret_cast<xdrproc_t>(decode_word), &result};
    if (xdr_ks_replymsg(&stream, &reply.message) != FALSE)
        FUZZ_REQUIRE(ks::clnt::settle(client, stream, reply, wanted));
    const Expected expected = expect(bytes);
    FUZZ_REQUIRE(client.error.re_status == expected.status);
    FUZZ_REQUIRE(std::memcmp(&client.error.ru, expected.numbers, sizeof expected.numbers) == 0);
    auth_destroy(client.handle.cl_auth);
}
