// Streams, decoders and handles under exhaustion: each refuses, keeps what it had and loses nothing.
#include "harness/fault_sweep.h"
#include "rpc/wire/connection.h"

#include <korvaks/auth.h>
#include <korvaks/imsg.h>

#include <optional>

#include <grp.h>

#include <gtest/gtest.h>

namespace {

using test::Connection;
using test::fragment;
using test::Stream;
using test::wire_word;
using test::fault::Operation;

constexpr const char *no_memory = "No more memory available.\n";

Connection connection;
std::optional<Stream> stream;
rpc_msg call;
authunix_parms parms;
char *text;

Operation over_stream(const char *name, std::function<void()> setup)
{
    return Operation(name).setup(setup).cleanup([] { stream.reset(); }).notices();
}

TEST(FaultXdr, Streams)
{
    over_stream("ks_xdrrec_create", [] {})
        .act([] { return stream.emplace(connection, XDR_ENCODE, 0, 0).x_private != nullptr; })
        .says("ks_xdrrec_create: out of memory\n")
        .sweep();
    over_stream("xdrstg_create", [] {})
        .act([] { return stream.emplace(100u, XDR_ENCODE).x_base != nullptr; })
        .keeps([] { return test::fault::has_said("Operation stg_malloc: Cannot allocate memory\n"); })
        .says(no_memory)
        .sweep();
    over_stream("growth of a storage stream", [] { stream.emplace(4u, XDR_ENCODE).put(7); })
        .act([] { return stream->put(8); })
        .gives([] { return stream->put(9) && std::memcmp(stream->x_base + 8, "\0\0\0\11", 4) == 0; })
        .keeps(
            [] { return test::fault::has_said("Operation stg_realloc: Cannot allocate memory\n") && stream->put(8); })
        .says(no_memory)
        .sweep();
    static xprt_stat status;
    static const std::string record = fragment(std::string(5000, 'x'), true);
    over_stream("growth of a record",
                [] {
                    connection = {};
                    connection.incoming = record;
                    __ks_xdrrec_setnonblock(&stream.emplace(connection, XDR_DECODE, 0u, 100u), 6000);
                })
        .act([] { return __ks_xdrrec_getrec(&*stream, &status, TRUE) != FALSE; })
        .keeps([] { return status == XPRT_DIED && connection.at == 4; })
        .sweep();
}

// What was decoded in part is freed with XDR_FREE.
TEST(FaultXdr, Decoders)
{
    static const std::string auth = wire_word(1) + wire_word(4) + "body";
    static std::string bytes = wire_word(1) + wire_word(0) + wire_word(2) + wire_word(3) + wire_word(4) + wire_word(5) +
                               auth + auth + wire_word(9) + wire_word(4) + "name" + wire_word(1) + wire_word(2) +
                               wire_word(1) + wire_word(3) + wire_word(1) + wire_word(4) + "path";
    over_stream("decoders that allocate", [] { stream.emplace(bytes, XDR_DECODE); })
        .act([] {
            return xdr_ks_callmsg(&*stream, &call) && xdr_ks_authunix_parms(&*stream, &parms) &&
                   xdr_string_pointer(&*stream, &text);
        })
        .cleanup([] {
            xdr_free(reinterpret_cast<xdrproc_t>(xdr_ks_callmsg), &call);
            xdr_free(reinterpret_cast<xdrproc_t>(xdr_ks_authunix_parms), &parms);
            xdr_free(reinterpret_cast<xdrproc_t>(xdr_string_pointer), &text);
            stream.reset();
        })
        .sweep();
    static ks_cursor_table *table;
    static uint32_t count;
    static vlthread_mutex_t mutex;
    static char room[40];
    vlthread_mutex_init(&mutex);
    over_stream("cursors", [] { xdrmem_create(&stream.emplace(0u, XDR_FREE), room, sizeof room, XDR_ENCODE); })
        .act([] {
            for (uint32_t sent = count > 0 ? count - 1 : 0; sent < 5; ++sent) {
                uint32_t index = 0;
                void *cursor = &table;
                if (!xdr_ks_generic_cursor_t(&*stream, &cursor, &index, &table, &count, &mutex))
                    return false;
            }
            return true;
        })
        .keeps([] { return count == 0 || count == 4; })
        .says(no_memory)
        .cleanup([] {
            stg_free(std::exchange(table, nullptr));
            count = 0;
            stream.reset();
        })
        .sweep();
}

TEST(FaultAuth, HandlesOfAProcessInManyGroupsAreMadeOrRefused)
{
    static AUTH *auth;
    static int group_count = 0;
    Operation("ks_authunix_create_default, traced")
        .setup([] {
            constexpr gid_t groups[17]{};
            group_count = setgroups(17, groups) == 0 ? 16 : getgroups(0, nullptr); // which may not be permitted
            imsg_set_trace_verbosity(1);
            imsg_set_trace_subsys("ks/rpc");
            auth = nullptr;
        })
        .act([] { return (auth = ks_authunix_create_default()) != nullptr; })
        .gives([] {
            return auth->ah_cred.oa_base[auth->ah_cred.oa_length - 4 * static_cast<u_int>(group_count) - 1] ==
                   group_count;
        })
        .says("ks_authunix_create: out of memory\n")
        .cleanup([] {
            if (auth != nullptr)
                auth_destroy(auth);
        })
        .sweep()
        .sweep_raises();
}

} // namespace
