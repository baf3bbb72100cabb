// AUTH_NONE on the client: one handle for all. Also what every flavour's client half needs.
#include <korvaks/auth.h>

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"
#include "rpc/wire/auth_impl.h"
#include "rpc/wire/xdr_memory.h"

#include <atomic>

namespace {

constexpr u_int marshalled_max = 20;

extern "C" void ks_authnone_verf(AUTH *) {}

extern "C" int ks_authnone_marshal(AUTH *auth, XDR *xdrs);

extern "C" int ks_authnone_validate(AUTH *, opaque_auth *)
{
    return TRUE;
}

extern "C" int ks_authnone_refresh(AUTH *, void *)
{
    return FALSE;
}

extern "C" void ks_authnone_destroy(AUTH *) {}

AUTH::auth_ops none_ops = {ks_authnone_verf,
                           ks_authnone_marshal,
                           ks_authnone_validate,
                           ks_authnone_refresh,
                           ks_authnone_destroy,
                           ks::auth::ks_auth_pass_through,
                           ks::auth::ks_auth_pass_through};

// Made once, under ks_authnone_lock, and read without it afterwards.
struct NoneAuth {
    AUTH handle{};
    char marshalled[marshalled_max]{};
    u_int marshalled_size = 0;
};

constinit NoneAuth none;
constinit std::atomic<bool> is_made{false};

extern "C" int ks_authnone_marshal(AUTH *, XDR *xdrs)
{
    return XDR_PUTBYTES(xdrs, none.marshalled, none.marshalled_size);
}

void make_handle()
{
    none.handle.ah_ops = &none_ops;
    none.marshalled_size = ks::auth::marshal(none.handle, none.marshalled, sizeof none.marshalled);
    ks::auth::here.require(none.marshalled_size != 0, "none.marshalled_size != 0");
}

} // namespace

namespace ks::auth {

u_int marshal(AUTH &auth, void *bytes, u_int size)
{
    XDR xdrs;
    make_memory_stream(xdrs, bytes, size, XDR_ENCODE);
    const bool is_whole = xdr_ks_opaque_auth(&xdrs, &auth.ah_cred) && xdr_ks_opaque_auth(&xdrs, &auth.ah_verf);
    return is_whole ? XDR_GETPOS(&xdrs) : 0;
}

extern "C" int ks_auth_pass_through(AUTH *, XDR *xdrs, xdrproc_t routine, caddr_t where)
{
    return routine(xdrs, where);
}

} // namespace ks::auth

extern "C" AUTH *ks_authnone_create(void)
{
    if (!is_made.load(std::memory_order_acquire)) {
        const ks::LockGuard lock(ks::ks_authnone_lock);
        if (!is_made.load(std::memory_order_relaxed))
            make_handle();
        is_made.store(true, std::memory_order_release);
    }
    return &none.handle;
}
