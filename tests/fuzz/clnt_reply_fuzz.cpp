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

Expected meaning_of(uint32_t kind, uint32_t detail, uint32_t first, uint32_t second)
{
    constexpr clnt_stat accepted[] = {RPC_SUCCESS,     RPC_PROGUNAVAIL,    RPC_PROGVERSMISMATCH,
                                      RPC_PROCUNAVAIL, RPC_CANTDECODEARGS, RPC_SYSTEMERROR};
    if (kind > 1)
        return {RPC_FAILED, {kind, 0}};
    if (kind == 0 && detail < std::size(accepted))
        return detail == 2 ? Expected{accepted[2], {first, second}} : Expected{accepted[detail], {}};
    if (kind == 1 && detail < 2)
        return detail == 0 ? Expected{RPC_VERSMISMATCH, {first, second}} : Expected{RPC_AUTHERROR, {first, 0}};
    return {RPC_FAILED, {kind, detail}};
}

// Of bytes that a server has sent for a call with a word as its result; status 2 where they are cut.
Expected expect(const std::string &bytes)
{
    constexpr Expected cut{RPC_CANTDECODERES, {}};
    std::vector<uint32_t> words(bytes.size() / 4 + 110); // of a verifier that is not there too
    const std::size_t count = bytes.size() / 4;
    std::memcpy(words.data(), bytes.data(), count * 4);
    for (uint32_t &word : words)
        word = ntohl(word);
    const bool is_denied = words[2] == 1;
    if (count < 3 || words[1] != 1 || words[2] > 1 || (!is_denied && words[4] > 400))
        return cut;
    const std::size_t at = is_denied ? 3 : 5 + (words[4] + 3) / 4;
    const uint32_t detail = words[at];
    const std::size_t behind = is_denied ? (detail == 0 ? 2 : 1) : (detail == 2 ? 2 : detail == 0 ? 1 : 0);
    if (at + 1 + behind > count || (is_denied && detail > 1))
        return cut;
    return meaning_of(words[2], detail, words[at + 1], behind == 2 ? words[at + 2] : 0);
}

void require_same(const rpc_err &error, const Expected &expected)
{
    FUZZ_REQUIRE(error.re_status == expected.status);
    FUZZ_REQUIRE(std::memcmp(&error.ru, expected.numbers, sizeof expected.numbers) == 0);
}

bool_t decode_word(XDR *xdrs, uint32_t *word)
{
    return xdr_ks_uint32_t(xdrs, word);
}

// As a client does it, which takes up what a server gives for its credential.
void receive(const std::string &bytes)
{
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
    require_same(client.error, expect(bytes));
    auth_destroy(client.handle.cl_auth);
}

// Of numbers that need not be ones that can be decoded.
void map(const uint32_t (&numbers)[4])
{
    rpc_msg message{};
    reply_body &body = message.rm_reply;
    std::memcpy(&body.rp_stat, &numbers[0], 4);
    if (numbers[0] == 0) {
        std::memcpy(&body.rp_acpt.ar_stat, &numbers[1], 4);
        body.rp_acpt.ar_vers = {numbers[2], numbers[3]};
    } else {
        std::memcpy(&body.rp_rjct.rj_stat, &numbers[1], 4);
        std::memcpy(&body.rp_rjct.rj_vers, &numbers[2], 8);
    }
    rpc_err error;
    std::memset(&error, 0xff, sizeof error);
    _ks_seterr_reply(&message, &error);
    require_same(error, meaning_of(numbers[0], numbers[1], numbers[2], numbers[3]));
}

} // namespace

FUZZ_TARGET(input)
{
    uint32_t numbers[4];
    for (uint32_t &number : numbers) {
        const uint32_t byte = input.take_byte();
        number = byte < 128 ? byte : 0u - (256 - byte); // small ones, of either sign
    }
    map(numbers);
    receive(input.take_rest());
}
