// A client of the platform's library calls servers of this one, in each of their modes.
#include "rpc/client/client_fixture.h"
#include "rpc/server/server_fixture.h"

#include <numeric>

namespace {

using test::ClientOwner;

// Its records are of many fragments.
ClientOwner make_client(const std::string &netid, uint16_t port)
{
    constexpr u_int fragment_size = 512;
    const int family = netid.back() == '6' ? AF_INET6 : AF_INET;
    const bool is_stream = netid[0] == 't';
    test::SocketAddress address = test::loopback(family, port);
    netbuf server{address.size, address.size, address.get()};
    const int fd = socket(family, (is_stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    CLIENT *client = is_stream ? clnt_vc_create(fd, &server, PROBE_PROGRAM, PROBE_HIGHEST, fragment_size, 0)
                               : clnt_dg_create(fd, &server, PROBE_PROGRAM, PROBE_HIGHEST, 9000, 9000);
    EXPECT_TRUE(client != nullptr && clnt_control(client, CLSET_FD_CLOSE, nullptr));
    return ClientOwner(client);
}

bool_t xdr_numbers(XDR *xdrs, std::vector<u_int> *numbers)
{
    for (u_int &number : *numbers)
        if (!xdr_u_int(xdrs, &number))
            return FALSE;
    return TRUE;
}

using Numbers = std::vector<u_int>;

clnt_stat call(const ClientOwner &client, uint32_t procedure, Numbers arguments, Numbers &results,
               int timeout_ms = 20000)
{
    return test::call(client, procedure, xdr_numbers, &arguments, xdr_numbers, &results, test::ms(timeout_ms));
}

void echo_all_sizes(const ClientOwner &client, bool is_stream)
{
    for (const std::size_t size : {0u, 1u, 2u, 3u, 4u, 5u, 511u, 512u, 8000u, 60000u}) {
        std::string received = "nothing";
        const std::string sent(size, 'e');
        if (size > 8000 && !is_stream)
            continue;
        EXPECT_EQ(test::echo(client, sent, received), RPC_SUCCESS) << size;
        EXPECT_TRUE(received == sent) << size;
    }
}

void show_credentials(const ClientOwner &client)
{
    gid_t groups[] = {4, 5, 6};
    Numbers nobody(5);
    EXPECT_EQ(call(client, PROBE_WHO, {}, nobody), RPC_SUCCESS);
    EXPECT_EQ(nobody, Numbers(5, 0));
    AUTH *none = client->cl_auth;
    char machine[] = "box.";
    client->cl_auth = authunix_create(machine, 7, 8, 3, groups);
    Numbers who(9);
    EXPECT_EQ(call(client, PROBE_WHO, {}, who), RPC_SUCCESS);
    EXPECT_EQ(who, (Numbers{AUTH_UNIX, 7, 8, 4, 'b' << 24 | 'o' << 16 | 'x' << 8 | '.', 3, 4, 5, 6}));
    auth_destroy(client->cl_auth);
    client->cl_auth = none;
}

void be_refused(const ClientOwner &client)
{
    struct Row {
        uint32_t program, version, procedure;
        clnt_stat status;
        uint32_t numbers[2] = {};
    };
    const Row rows[] = {
        {PROBE_PROGRAM, 2, 0, RPC_PROGVERSMISMATCH, {PROBE_LOWEST, PROBE_HIGHEST}},
        {PROBE_PROGRAM, 9, 0, RPC_PROGVERSMISMATCH, {PROBE_LOWEST, PROBE_HIGHEST}},
        {PROBE_PROGRAM + 1, PROBE_HIGHEST, 0, RPC_PROGUNAVAIL},
        {PROBE_PROGRAM, PROBE_HIGHEST, 99, RPC_PROCUNAVAIL},
        {PROBE_PROGRAM, PROBE_LOWEST, PROBE_ECHO, RPC_CANTDECODEARGS}, // without arguments
        {PROBE_PROGRAM, PROBE_LOWEST, test::WEAK, RPC_AUTHERROR, {AUTH_TOOWEAK, 0}},
        {PROBE_PROGRAM, PROBE_LOWEST, test::FAIL, RPC_SYSTEMERROR},
        {PROBE_PROGRAM, PROBE_HIGHEST, 0, RPC_SUCCESS},
    };
    Numbers none;
    for (const Row &row : rows) {
        EXPECT_TRUE(test::set(client, CLSET_PROG, row.program) && test::set(client, CLSET_VERS, row.version));
        EXPECT_EQ(call(client, row.procedure, {}, none), row.status) << row.procedure;
        const rpc_err error = test::error_of(client);
        const bool has_numbers = row.numbers[0] != 0;
        EXPECT_TRUE(!has_numbers || std::memcmp(&error.ru, row.numbers, row.numbers[1] != 0 ? 8 : 4) == 0);
    }
}

// Calls without a reply, which the client does not wait for.
void send_batch(const ClientOwner &client, bool is_stream)
{
    Numbers count(1);
    Numbers none;
    EXPECT_EQ(call(client, PROBE_COUNT, {}, count), RPC_SUCCESS);
    const u_int expected = count[0] + 100;
    Numbers number{5};
    for (int i = 0; i < 20; ++i)
        (void)clnt_call(client.get(), PROBE_BUMP, reinterpret_cast<xdrproc_t>(xdr_numbers), &number, nullptr, nullptr,
                        test::ms(is_stream ? 0 : 1)); // datagrams without a time are not sent at all
    for (int i = 0; i < 1000 && count[0] != expected; ++i)
        EXPECT_EQ(call(client, PROBE_COUNT, {}, count), RPC_SUCCESS);
    EXPECT_EQ(count[0], expected);
}

void take_stream(const ClientOwner &client, u_int count)
{
    Numbers numbers(count + 1);
    Numbers expected(count + 1);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(call(client, test::STREAM, {count}, numbers), RPC_SUCCESS);
    EXPECT_EQ(numbers, expected);
}

TEST(SvcInterop, APlatformClientIsServedInEachMode)
{
    for (const test::Mode &mode : test::modes) {
        const test::Server server(mode);
        for (const std::string &netid : test::Server::netids()) {
            SCOPED_TRACE(netid + ", " + to_string(mode));
            const bool is_stream = netid[0] == 't';
            const ClientOwner client = make_client(netid, server.port(netid));
            echo_all_sizes(client, is_stream);
            show_credentials(client);
            be_refused(client);
            send_batch(client, is_stream);
            take_stream(client, is_stream ? 50000 : 1000);
        }
    }
}

TEST(SvcInterop, RefusesWhatItCannotUnderstand)
{
    struct Row {
        const char *what;
        std::string message;
        std::string reply; // "": none, and a connection ends
    };
    const std::string rejected = test::words({1, 1, 1, 1, AUTH_REJECTEDCRED});
    const std::string bad = test::words({1, 1, 1, 1, AUTH_BADCRED});
    const auto with_credential = [](const std::vector<uint32_t> &credential) {
        return test::call_message(0, "", 1, test::words(credential));
    };
    const Row rows[] = {
        {"short hand", with_credential({AUTH_SHORT, 4, 1}), rejected},
        {"a flavour that nobody knows", with_credential({77, 0}), rejected},
        {"17 groups", with_credential({AUTH_UNIX, 22 * 4, 0, 0, 1,  2,  17, 1,  2,  3,  4,  5,
                                       6,         7,      8, 9, 10, 11, 12, 13, 14, 15, 16, 17}),
         bad},
        {"a credential that is cut", with_credential({AUTH_UNIX, 8, 0, 40}), bad},
        {"a credential of 401 bytes", with_credential({AUTH_UNIX, 401}) + std::string(400, 'x'), ""},
        {"a reply", test::words({1, 1, 0, 0, 0, 0, 0, 0, 0, 0}), ""},
        {"another version of RPC", test::words({1, 0, 3, PROBE_PROGRAM, PROBE_HIGHEST, 0, 0, 0, 0, 0}), ""},
        {"less than a call", test::call_message(0).substr(0, 16), ""},
        {"nothing", "", ""},
    };
    for (const test::Mode &mode : test::modes) {
        const test::Server server(mode);
        for (const Row &row : rows)
            for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
                SCOPED_TRACE(row.what + (", " + to_string(mode)));
                const test::Caller caller(server.port(type == SOCK_STREAM ? "tcp" : "udp"), type);
                EXPECT_TRUE(caller.send_call(row.message));
                const bool is_refused = !row.reply.empty();
                EXPECT_TRUE(is_refused ? caller.receive() == row.reply : type == SOCK_DGRAM || caller.is_ended());
                // Another reply that came before would be taken for it.
                EXPECT_TRUE((type == SOCK_STREAM && !is_refused) || caller.is_served());
            }
    }
}

} // namespace
