// Client records, and the client's half of the product's own flavour, whose credential is such a record.
//
// A record is encoded and released before anything is traced or printed, as either may jump away.
#include <korvaks/credutl.h>

#include "base/msg_port.h"
#include "identity/credutl_impl.h"
#include "rpc/wire/xdr_memory.h"

#include <korvaks/imsg.h>
#include <korvaks/strutl.h>

#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace {

using ks::credutl::here;

constexpr std::size_t opaque_head = 8; // flavour and length

// What is sent with each call: a credential with its record, and a verifier without a body. One block.
struct VellumAuth {
    AUTH handle;
    u_int marshalled_size;
    char marshalled[opaque_head + KS_MAX_AUTH_BYTES + opaque_head];
};

// A record as the body of a credential.
struct Body {
    char bytes[KS_MAX_AUTH_BYTES];
    u_int size;
    int groups_sent;
};

extern AUTH::auth_ops vellum_ops;

VellumAuth *private_of(AUTH *auth)
{
    here.require(auth != nullptr && auth->ah_ops == &vellum_ops, "auth->ah_ops == &credutl_auth_ops");
    return static_cast<VellumAuth *>(auth->ah_private);
}

extern "C" void vellum_nextverf(AUTH *) {}

extern "C" int vellum_marshal(AUTH *auth, XDR *xdrs)
{
    VellumAuth *own = private_of(auth);
    return XDR_PUTBYTES(xdrs, own->marshalled, own->marshalled_size);
}

extern "C" int vellum_validate(AUTH *, opaque_auth *)
{
    return TRUE; // the server proves nothing either
}

extern "C" int vellum_refresh(AUTH *, void *)
{
    return FALSE; // another try would say the same
}

extern "C" void vellum_destroy(AUTH *auth)
{
    std::free(private_of(auth));
}

extern "C" int vellum_pass_through(AUTH *, XDR *xdrs, xdrproc_t routine, caddr_t where)
{
    return routine(xdrs, where);
}

constinit AUTH::auth_ops vellum_ops = {vellum_nextverf, vellum_marshal,      vellum_validate,    vellum_refresh,
                                       vellum_destroy,  vellum_pass_through, vellum_pass_through};

bool encode(const credutl_auth_vellum_t &record, Body &out)
{
    auto copy = record; // encoding writes nothing
    credutl_client_t client{CREDUTL_AUTH_FAMILY_VELLUM, &copy};
    XDR xdrs;
    ks::make_memory_stream(xdrs, out.bytes, sizeof out.bytes, XDR_ENCODE);
    if (xdr_credutl_client_t(&xdrs, &client) == FALSE)
        return false;
    out.size = XDR_GETPOS(&xdrs);
    out.groups_sent = record.credentials.ngroups;
    return true;
}

// With as many groups as fit, from the first on; 0 or an error.
int encode_with_most_groups(const credutl_auth_vellum_t &record, Body &out)
{
    const bool has_credentials = record.kind == CREDUTL_AUTH_VELLUM_CREDENTIALS;
    credutl_auth_vellum_t cut = record;
    int &ngroups = cut.credentials.ngroups;
    if (!has_credentials)
        ngroups = 0;
    if (ngroups != ks::credutl::held_groups(ngroups))
        return EINVAL; // more than a record holds: nothing of it is sent
    for (; ngroups >= 0; --ngroups)
        if (encode(cut, out))
            return 0;
    return EMSGSIZE;
}

void trace_cut(const Body &body, int ngroups)
{
    if (body.groups_sent < ngroups && ks::is_traced("credutl", 1))
        (void)imsg_print_shared(ks::msg_trace, nullptr, "client record: %d of %d groups are sent\n",
                                static_cast<unsigned>(IMSG_RAW_FORMAT), body.groups_sent,
                                ngroups); // nobody could be told
}

AUTH *refuse(int error)
{
    errno = error;
    return nullptr;
}

AUTH *make_handle(Body &body)
{
    auto *own = static_cast<VellumAuth *>(std::calloc(1, sizeof(VellumAuth)));
    if (own == nullptr)
        return refuse(ENOMEM);
    own->handle.ah_ops = &vellum_ops;
    own->handle.ah_private = own;
    opaque_auth credential{CREDUTL_AUTH_FLAVOUR, body.bytes, body.size};
    XDR xdrs;
    ks::make_memory_stream(xdrs, own->marshalled, sizeof own->marshalled, XDR_ENCODE);
    here.require(xdr_ks_opaque_auth(&xdrs, &credential) && xdr_ks_opaque_auth(&xdrs, &own->handle.ah_verf),
                 "xdr_ks_opaque_auth(&xdrs, &auth->ah_cred)"); // there is room for the longest
    own->marshalled_size = XDR_GETPOS(&xdrs);
    own->handle.ah_cred = {CREDUTL_AUTH_FLAVOUR, own->marshalled + opaque_head, body.size};
    return &own->handle;
}

// The process's credentials by name.
int name_process(credutl_string_credentials_t &out)
{
    credutl_sid_credentials_t sids;
    const int status = credutl_get_sid_credentials(&sids);
    return status != 0 ? status : credutl_sid_credentials_to_string_credentials(&sids, &out);
}

int copy_name(const char *name, char *&out)
{
    out = strdup(name != nullptr ? name : "");
    return out != nullptr ? 0 : 1;
}

int copy_names(const credutl_string_credentials_t &from, credutl_string_credentials_t &out)
{
    if (copy_name(from.user_name, out.user_name) != 0 || copy_name(from.group_name, out.group_name) != 0)
        return 1;
    for (; out.ngroups < ks::credutl::held_groups(from.ngroups); ++out.ngroups)
        if (copy_name(from.group_names[out.ngroups], out.group_names[out.ngroups]) != 0)
            return 1;
    return 0;
}

int copy_credentials(const credutl_string_credentials_t &from, credutl_string_credentials_t &out)
{
    credutl_string_credentials_t made{};
    if (copy_names(from, made) != 0) {
        credutl_free_string_credentials(&made);
        errno = ENOMEM;
        return 1;
    }
    out = made;
    return 0;
}

void require_vellum(const credutl_client_t &client)
{
    here.require(client.auth_family == CREDUTL_AUTH_FAMILY_VELLUM,
                 "client_p->auth_family == CREDUTL_AUTH_FAMILY_VELLUM");
}

} // namespace

extern "C" {

int credutl_mk_client_vellum(credutl_auth_vellum_kind_t kind, credutl_auth_vellum_t *record,
                             credutl_client_t *client_out)
{
    *record = {};
    (void)strutl_cpy_buf(record->domain_name, credutl_get_domain(), sizeof record->domain_name); // cut to 256 bytes
    if (gethostname(record->host_name, sizeof record->host_name) != 0)
        return 1;
    record->host_name[sizeof record->host_name - 1] = '\0';
    record->kind = kind;
    const int status = kind == CREDUTL_AUTH_VELLUM_CREDENTIALS ? name_process(record->credentials) : 0;
    if (status == 0)
        *client_out = {CREDUTL_AUTH_FAMILY_VELLUM, record};
    return status;
}

int credutl_crack_client_vellum(const credutl_client_t *client, char *domain, std::size_t domain_size, char *host,
                                std::size_t host_size, credutl_string_credentials_t *out_creds)
{
    require_vellum(*client);
    const credutl_auth_vellum_t &record = *client->record;
    const credutl_sid_credentials_t nobody = ks::credutl::nobody();
    const int status = record.kind == CREDUTL_AUTH_VELLUM_CREDENTIALS
                           ? copy_credentials(record.credentials, *out_creds)
                           : credutl_sid_credentials_to_string_credentials(&nobody, out_creds);
    // What does not fit is cut; a size of 0 stores nothing.
    (void)strutl_cpy_buf(domain, record.domain_name, domain_size);
    (void)strutl_cpy_buf(host, record.host_name, host_size);
    return status;
}

void credutl_free_client(credutl_client_t *client)
{
    credutl_auth_vellum_t *record = client->record;
    if (client->auth_family == CREDUTL_AUTH_FAMILY_VELLUM && record != nullptr) {
        record->domain_name[0] = '\0';
        record->host_name[0] = '\0';
        if (record->kind == CREDUTL_AUTH_VELLUM_CREDENTIALS)
            credutl_free_string_credentials(&record->credentials);
    }
    *client = {};
}

AUTH *credutl_auth_create_for(const credutl_client_t *client)
{
    require_vellum(*client);
    Body body;
    const int error = encode_with_most_groups(*client->record, body);
    if (error != 0)
        return refuse(error);
    if (client->record->kind == CREDUTL_AUTH_VELLUM_CREDENTIALS)
        trace_cut(body, client->record->credentials.ngroups);
    return make_handle(body);
}

AUTH *credutl_auth_create(void)
{
    credutl_auth_vellum_t record;
    credutl_client_t client;
    if (credutl_mk_client_vellum(CREDUTL_AUTH_VELLUM_CREDENTIALS, &record, &client) != 0)
        return nullptr;
    const int ngroups = record.credentials.ngroups;
    Body body;
    const int error = encode_with_most_groups(record, body);
    credutl_free_client(&client);
    if (error != 0)
        return refuse(error);
    trace_cut(body, ngroups);
    return make_handle(body);
}
}
