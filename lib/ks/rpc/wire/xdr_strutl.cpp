// The wire form of a flag row.
//
// Only the stream's own operations are called: whoever has a stream has loaded the platform's RPC library,
// and whoever has none does without it and the Kerberos that comes with it.
#include "rpc/wire/rpc_platform.h"

#include <korvaks/ezrpc.h>
#include <korvaks/strutl.h>

namespace {

// xdr_u_int() over the operations of the stream.
bool_t pass_word(XDR *xdrs, u_int *word)
{
    auto value = static_cast<int32_t>(*word);
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    if (xdrs->x_op == XDR_ENCODE)
        return XDR_PUTINT32(xdrs, &value);
    if (XDR_GETINT32(xdrs, &value) == FALSE)
        return FALSE;
    *word = static_cast<u_int>(value);
    return TRUE;
}

} // namespace

extern "C" int xdr_strutl_flag_item_t(XDR *xdrs, strutl_flag_item_t *item)
{
    char *name = const_cast<char *>(item->name);
    const int is_named = xdr_ez_string8(xdrs, &name);
    item->name = name;
    // Only the low 32 bits of a value have a meaning.
    auto value = static_cast<u_int>(item->value);
    if (is_named == FALSE || pass_word(xdrs, &value) == FALSE)
        return FALSE;
    item->value = value;
    return TRUE;
}
