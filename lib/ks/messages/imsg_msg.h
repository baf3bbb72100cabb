// Messages of the message module, by event. The numbers left out are reserved: nothing settles their texts.
#pragma once

#include <korvaks/imsg.h>

enum ImsgMsg : unsigned {
    imsg_msg_unknown_kind = 0,      // kind, file, line
    imsg_msg_daemon_log_failed = 2, // path
    imsg_msg_unable_to_open = 3,    // path, error text
    imsg_msg_default_follows = 4,
    imsg_msg_dot_accepts_default = 5,
    imsg_msg_input_failed = 6, // error text
    imsg_msg_input_overflow = 7,
    imsg_msg_ambiguous = 8,
    imsg_msg_answer_one_of = 9,
    imsg_msg_yes = 10,
    imsg_msg_no = 11,
    imsg_msg_abort = 12,
    imsg_msg_proceed = 13,
    imsg_msg_head_ok = 14,
    imsg_msg_head_warning = 15,
    imsg_msg_head_error = 16,
    imsg_msg_head_system = 17,
    imsg_msg_null_message = 18, // where
    imsg_msg_bad_number = 19,   // where, table address (long), number

    // Errors of sockets, named for the error numbers.
    imsg_msg_sock_eintr = 20,
    imsg_msg_sock_ebadf,
    imsg_msg_sock_eacces,
    imsg_msg_sock_efault,
    imsg_msg_sock_einval,
    imsg_msg_sock_emfile,
    imsg_msg_sock_ewouldblock,
    imsg_msg_sock_einprogress,
    imsg_msg_sock_ealready,
    imsg_msg_sock_enotsock,
    imsg_msg_sock_edestaddrreq,
    imsg_msg_sock_emsgsize,
    imsg_msg_sock_eprototype,
    imsg_msg_sock_enoprotoopt,
    imsg_msg_sock_eprotonosupport,
    imsg_msg_sock_esocktnosupport,
    imsg_msg_sock_eopnotsupp,
    imsg_msg_sock_epfnosupport,
    imsg_msg_sock_eafnosupport,
    imsg_msg_sock_eaddrinuse,
    imsg_msg_sock_eaddrnotavail,
    imsg_msg_sock_enetdown,
    imsg_msg_sock_enetunreach,
    imsg_msg_sock_enetreset,
    imsg_msg_sock_econnaborted,
    imsg_msg_sock_econnreset,
    imsg_msg_sock_enobufs,
    imsg_msg_sock_eisconn,
    imsg_msg_sock_enotconn,
    imsg_msg_sock_eshutdown,
    imsg_msg_sock_etoomanyrefs,
    imsg_msg_sock_etimedout,
    imsg_msg_sock_econnrefused,
    imsg_msg_sock_eloop,
    imsg_msg_sock_enametoolong,
    imsg_msg_sock_ehostdown,
    imsg_msg_sock_ehostunreach,
    imsg_msg_sock_enotempty,
    imsg_msg_sock_eproclim,
    imsg_msg_sock_eusers,
    imsg_msg_sock_edquot,
    imsg_msg_sock_estale,
    imsg_msg_sock_eremote,
    imsg_msg_sock_sysnotready,
    imsg_msg_sock_vernotsupported,
    imsg_msg_sock_notinitialised,
    imsg_msg_sock_ediscon,
    // Errors of name services.
    imsg_msg_host_not_found,
    imsg_msg_host_not_found_here,
    imsg_msg_no_recovery,
    imsg_msg_no_data,

    imsg_msg_log_header = 71, // date, host, pid, user
    imsg_msg_not_daemon_drain = 99,
    imsg_msg_not_daemon_blocking = 100,
    imsg_msg_not_daemon_fd = 101,
    imsg_msg_log_not_open = 102,
    imsg_msg_buffer_too_small = 103,

    imsg_msg_count,
};
