// Identities decoded under exhaustion: each is refused, and what was decoded in part is released whole.
#include "harness/fault_sweep.h"
#include "rpc/wire/connection.h"

#include <korvaks/credutl.h>

TEST(FaultCredutl, Decoders)
{
    static credutl_client_t client;
    static credutl_whole_string_credentials_t whole;
    static std::string bytes;
    for (int i = 0; i < 98; ++i) // all names are of one byte, and the second record has 40 groups
        bytes += test::wire_word(i == 17 ? 40 : 1);
    test::fault::Operation("decoders of identities")
        .act([] {
            test::Stream stream(bytes, XDR_DECODE);
            const bool is_done =
                xdr_credutl_client_t(&stream, &client) && xdr_credutl_whole_string_credentials_t(&stream, &whole);
            test::release(xdr_credutl_client_t, client);
            test::release(xdr_credutl_whole_string_credentials_t, whole);
            return is_done;
        })
        .notices()
        .sweep();
}
