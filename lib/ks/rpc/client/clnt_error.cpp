// The texts of RPC errors.
#include "rpc/client/clnt_impl.h"

#include "rpc/wire/xdr_fields.h"

#include <korvaks/imsg.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include <unistd.h>

namespace {

using Text = const char *;

constexpr std::array<Text, 18> ks_rpc_errlist{
    "RPC: Success",
    "RPC: Can't encode arguments",
    "RPC: Can't decode result",
    "RPC: Unable to send",
    "RPC: Unable to receive",
    "RPC: Timed out",
    "RPC: Incompatible versions of RPC",
    "RPC: Authentication error",
    "RPC: Program unavailable",
    "RPC: Program/version mismatch",
    "RPC: Procedure unavailable",
    "RPC: Server can't decode arguments",
    "RPC: Remote system error",
    "RPC: Unknown host",
    "RPC: Port mapper failure",
    "RPC: Program not registered",
    "RPC: Failed (unspecified error)",
    "RPC: Unknown protocol",
};

// Kept exactly: reasons 2 and 4 say "ks_rejected".
constexpr std::array<Text, 8> ks_auth_errlist{
    "Authentication OK",       "Invalid client credential",   "Server ks_rejected credential",
    "Invalid client verifier", "Server ks_rejected verifier", "Client credential too weak",
    "Invalid server verifier", "Failed (unspecified error)",
};

template <std::size_t count> Text find_text(const std::array<Text, count> &texts, unsigned number, Text otherwise)
{
    return number < count ? texts[number] : otherwise;
}

// A text that is cut where its buffer ends.
class Writer {
  public:
    explicit Writer(char (&buffer)[256]) : buffer_(buffer) { buffer_[0] = '\0'; }

    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        const int length = std::vsnprintf(buffer_ + used_, sizeof buffer_ - used_, format, arguments);
        va_end(arguments);
        if (length > 0)
            used_ = std::min(used_ + static_cast<std::size_t>(length), sizeof buffer_ - 1);
    }

    char *text() const { return buffer_; }

  private:
    char (&buffer_)[256];
    std::size_t used_ = 0;
};

void begin(Writer &text, const char *prefix, clnt_stat status)
{
    text.add("%s: %s", prefix != nullptr ? prefix : "", ks_clnt_sperrno(status));
}

void add_reason(Writer &text, const rpc_err &error)
{
    const uint32_t reason = ks::xdr::word_of(error.re_why); // the server's: it need not have a name
    const Text known = find_text(ks_auth_errlist, reason, nullptr);
    text.add("; why = ");
    if (known != nullptr)
        text.add("%s", known);
    else
        text.add("(unknown authentication error - %d)", static_cast<int>(reason));
}

void add_details(Writer &text, const rpc_err &error)
{
    switch (error.re_status) {
    case RPC_CANTSEND:
    case RPC_CANTRECV:
        text.add("; errno = %s", imsg_strerror(error.re_errno));
        return;
    case RPC_VERSMISMATCH:
    case RPC_PROGVERSMISMATCH:
        text.add("; low version = %u, high version = %u", static_cast<unsigned>(error.re_vers.low),
                 static_cast<unsigned>(error.re_vers.high));
        return;
    case RPC_AUTHERROR:
        add_reason(text, error);
        return;
    default:
        if (ks::xdr::word_of(error.re_status) >= ks_rpc_errlist.size())
            text.add("; s1 = %u, s2 = %u", static_cast<unsigned>(error.re_lb.s1),
                     static_cast<unsigned>(error.re_lb.s2));
    }
}

void print_line(const char *text)
{
    (void)std::fprintf(stderr, "%s\n", text); // there is nowhere else to say it
}

} // namespace

char *ks_clnt_sperrno(enum clnt_stat stat)
{
    return const_cast<char *>(find_text(ks_rpc_errlist, ks::xdr::word_of(stat), "RPC: (unknown error code)"));
}

void ks_clnt_perrno(enum clnt_stat stat)
{
    print_line(ks_clnt_sperrno(stat));
}

char *ks_clnt_sperror(CLIENT *client, const char *prefix)
{
    rpc_err error{};
    clnt_geterr(client, &error);
    Writer text(ks::clnt::thread_section().text);
    begin(text, prefix, error.re_status);
    add_details(text, error);
    return text.text();
}

void ks_clnt_perror(CLIENT *client, const char *prefix)
{
    print_line(ks_clnt_sperror(client, prefix));
}

char *ks_clnt_spcreateerror(const char *prefix)
{
    const rpc_thread &thread = ks::clnt::thread_section();
    const ks_rpc_createerr &creation = thread.creation;
    Writer text(ks::clnt::thread_section().text);
    begin(text, prefix, creation.cf_stat);
    if (creation.cf_stat == RPC_SYSTEMERROR)
        text.add(" - %s", imsg_strerror(creation.cf_error.re_errno));
    else if (creation.cf_stat == RPC_PMAPFAILURE)
        text.add(" - %s", ks_clnt_sperrno(creation.cf_error.re_status));
    return text.text();
}

void ks_clnt_pcreateerror(const char *prefix)
{
    print_line(ks_clnt_spcreateerror(prefix));
}
