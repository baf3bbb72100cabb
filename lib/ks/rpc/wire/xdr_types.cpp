// The library's base types. Words of the stream's own operations only, as in xdr_fields.h.
#include "rpc/wire/xdr_fields.h"

#include <korvaks/ezrpc.h>
#include <korvaks/sysutl.h>
#include <korvaks/xdr.h>

#include <cstring>

namespace {

using ks::xdr::pass;
using ks::xdr::pass_hyper;
using ks::xdr::pass_narrow;

bool_t answer(bool is_done)
{
    return is_done ? TRUE : FALSE;
}

// A string into room that is there, its NUL included.
bool get_string_into(XDR *xdrs, char *room, std::size_t room_size)
{
    uint32_t size = 0;
    if (!ks::xdr::get_word(xdrs, size) || size >= room_size)
        return false;
    room[size] = '\0';
    return ks::xdr::get_opaque(xdrs, room, size);
}

// The family codes of the wire, which are not the system's.
enum AddressFamily : uint32_t { family_unknown = 0, family_ipv4 = 1, family_ipv6 = 2 };

bool pass_port(XDR *xdrs, in_port_t &port)
{
    uint16_t number = ntohs(port);
    if (!pass_narrow(xdrs, number))
        return false;
    port = htons(number);
    return true;
}

bool pass_ipv4(XDR *xdrs, sockaddr_in &address)
{
    uint32_t number = ntohl(address.sin_addr.s_addr);
    if (!pass(xdrs, number) || !pass_port(xdrs, address.sin_port))
        return false;
    address.sin_addr.s_addr = htonl(number);
    return true;
}

bool pass_ipv6(XDR *xdrs, sockaddr_in6 &address)
{
    for (uint8_t &byte : address.sin6_addr.s6_addr)
        if (!pass_narrow(xdrs, byte))
            return false;
    return pass_port(xdrs, address.sin6_port);
}

// Decoded into a fresh one: a failure leaves the caller's as it was.
template <typename Address> bool_t pass_address(XDR *xdrs, Address &address, sa_family_t Address::*family,
                                                sa_family_t number, bool (*pass_fields)(XDR *, Address &))
{
    if (xdrs->x_op != XDR_DECODE)
        return answer(pass_fields(xdrs, address));
    Address decoded{};
    decoded.*family = number;
    if (!pass_fields(xdrs, decoded))
        return FALSE;
    address = decoded;
    return TRUE;
}

} // namespace

extern "C" {

bool_t xdr_ks_uint32_t(XDR *xdrs, ks_uint32_t *value)
{
    return pass(xdrs, *value);
}

bool_t xdr_u_long_as_int(XDR *xdrs, u_long *value)
{
    auto word = static_cast<uint32_t>(*value);
    if (!pass(xdrs, word))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        *value = word;
    return TRUE;
}

bool_t xdr_ks_int64_t(XDR *xdrs, ks_int64_t *value)
{
    // The sign does not change the bytes of the upper word.
    return pass_hyper(xdrs, reinterpret_cast<uint64_t *>(value));
}

bool_t xdr_ks_uint64_t(XDR *xdrs, ks_uint64_t *value)
{
    return pass_hyper(xdrs, value);
}

bool_t xdr_ks_off64_t(XDR *xdrs, ks_off64_t *value)
{
    return xdr_ks_int64_t(xdrs, value);
}

bool_t xdr_ks_off32_t(XDR *xdrs, ks_off32_t *value)
{
    return pass(xdrs, *value);
}

bool_t xdr_ks_byte_t(XDR *xdrs, ks_byte_t *value)
{
    return answer(pass_narrow(xdrs, *value));
}

bool_t xdr_ks_boolean_t(XDR *xdrs, ks_boolean_t *value)
{
    return pass(xdrs, *value);
}

bool_t xdr_ks_char_t(XDR *xdrs, ks_char_t *value)
{
    return answer(pass_narrow(xdrs, *value));
}

bool_t xdr_ks_canon_pname_p_t(XDR *xdrs, ks_canon_pname_p_t *path)
{
    return xdr_ez_string8(xdrs, path);
}

bool_t xdr_ks_canon_pname_c_p_t(XDR *xdrs, ks_canon_pname_c_p_t *path)
{
    char *text = const_cast<char *>(*path);
    const bool_t is_done = xdr_ez_string8(xdrs, &text);
    *path = text;
    return is_done;
}

bool_t xdr_ks_canon_pname_t(XDR *xdrs, ks_canon_pname_t path)
{
    if (xdrs->x_op == XDR_ENCODE)
        return xdr_ez_string8(xdrs, &path);
    return answer(xdrs->x_op != XDR_DECODE || get_string_into(xdrs, path, sizeof(ks_canon_pname_t)));
}

bool_t xdr_string_pointer(XDR *xdrs, char **string)
{
    uint32_t is_there = *string != nullptr;
    if (!pass(xdrs, is_there))
        return FALSE;
    if (is_there != 0)
        return xdr_ez_string8(xdrs, string);
    *string = nullptr;
    return TRUE;
}

bool_t xdr_stg_area_rpc_ptr_t(XDR *xdrs, stg_area **area)
{
    uint32_t nothing = 0;
    if (!pass(xdrs, nothing))
        return FALSE;
    if (xdrs->x_op == XDR_DECODE)
        *area = STG_AREA_NULL;
    return TRUE;
}

bool_t xdr_ks_sockaddr_storage_t(XDR *xdrs, struct sockaddr_storage *address)
{
    if (xdrs->x_op == XDR_FREE)
        return TRUE;
    auto family = static_cast<AddressFamily>(sysutl_sa_family_to_ks_addrfamily(address->ss_family));
    if ((xdrs->x_op == XDR_ENCODE && family == family_unknown) || !pass(xdrs, family))
        return FALSE;
    if (family == family_ipv4)
        return xdr_sockaddr_in(xdrs, reinterpret_cast<sockaddr_in *>(address));
    if (family == family_ipv6)
        return xdr_sockaddr_in6(xdrs, reinterpret_cast<sockaddr_in6 *>(address));
    return FALSE;
}

bool_t xdr_sockaddr_in(XDR *xdrs, struct sockaddr_in *address)
{
    return pass_address(xdrs, *address, &sockaddr_in::sin_family, AF_INET, pass_ipv4);
}

bool_t xdr_sockaddr_in6(XDR *xdrs, struct sockaddr_in6 *address)
{
    return pass_address(xdrs, *address, &sockaddr_in6::sin6_family, AF_INET6, pass_ipv6);
}
}
