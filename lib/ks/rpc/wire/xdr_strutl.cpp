// The wire form of a flag row.
#include "rpc/wire/xdr_fields.h"

#include <korvaks/ezrpc.h>
#include <korvaks/strutl.h>

extern "C" int xdr_strutl_flag_item_t(XDR *xdrs, strutl_flag_item_t *item)
{
    char *name = const_cast<char *>(item->name);
    const int is_named = xdr_ez_string8(xdrs, &name);
    item->name = name;
    // Only the low 32 bits of a value have a meaning.
    auto value = static_cast<u_int>(item->value);
    if (is_named == FALSE || !ks::xdr::pass(xdrs, value))
        return FALSE;
    item->value = value;
    return TRUE;
}
