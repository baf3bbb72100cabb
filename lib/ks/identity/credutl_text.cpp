// Credentials and names as text: fully qualified names, machine names, and credentials for people.
#include <korvaks/credutl.h>

#include "base/msg_port.h"
#include "identity/credutl_impl.h"
#include "identity/credutl_msg.h"

#include <korvaks/imsg.h>
#include <korvaks/strutl.h>
#include <korvaks/sysutl.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *unknown_domain = "<unknown>";
constexpr const char *bogus_machname = "<credutl authunix machname too long>";

// Asked for once; callers keep what they got.
constinit std::atomic<char *> known_domain{nullptr};

// The text is cut here.
void mark_cut(char *buf)
{
    const std::size_t length = std::strlen(buf);
    if (length > 0)
        buf[length - 1] = '+';
}

// Puts a message behind what is there; false, and the mark, when that fills the buffer.
template <typename... Arguments> bool append(char *buf, std::size_t size, credutl_msg message, Arguments... arguments)
{
    const std::size_t used = std::strlen(buf);
    const int length =
        imsg_snprintf(buf + used, size - used, &_credutl_ks_msg_table, static_cast<int>(message), arguments...);
    if (length < 0) {
        buf[used] = '\0';
        return true;
    }
    if (used + static_cast<std::size_t>(length) + 1 < size)
        return true;
    mark_cut(buf);
    return false;
}

// There are more groups than room.
void mark_left_out(char *buf, std::size_t size)
{
    const std::size_t used = std::strlen(buf);
    if (used + 1 < size)
        (void)strutl_cpy_buf(buf + used, "+ ", size - used); // of which one byte may fit
    else
        mark_cut(buf);
}

void append_groups(char *buf, std::size_t size, int ngroups, const credutl_sid_t *sids)
{
    for (int i = 0; i < ngroups; ++i) {
        char text[CREDUTL_SID_STR_SIZE];
        (void)credutl_sid_to_str(&sids[i], sizeof text, text); // gives the buffer
        const std::size_t used = std::strlen(buf);
        if (used + std::strlen(text) >= size)
            return mark_left_out(buf, size);
        (void)imsg_snprintf(buf + used, size - used, &_credutl_ks_msg_table, credutl_msg_group_name,
                            text); // only its blank may not fit
    }
}

void write_credentials(char *buf, std::size_t size, const credutl_sid_t &user, const credutl_sid_t &group, int ngroups,
                       const credutl_sid_t *group_sids)
{
    char user_text[CREDUTL_SID_STR_SIZE];
    char group_text[CREDUTL_SID_STR_SIZE];
    (void)credutl_sid_to_str(&user, sizeof user_text, user_text);    // give the buffers
    (void)credutl_sid_to_str(&group, sizeof group_text, group_text); //
    buf[0] = '\0';
    if (!append(buf, size, credutl_msg_names, user_text, group_text) || ngroups <= 0)
        return;
    if (append(buf, size, credutl_msg_groups))
        append_groups(buf, size, ngroups, group_sids);
}

} // namespace

extern "C" {

const char *credutl_get_domain(void)
{
    if (const char *known = known_domain.load(std::memory_order_acquire))
        return known;
    char name[CREDUTL_NAME_SIZE];
    if (sysutl_get_host_domain_name(name, sizeof name) != 0)
        return unknown_domain;
    char *found = strdup(name);
    char *others = nullptr;
    if (found == nullptr || known_domain.compare_exchange_strong(others, found, std::memory_order_acq_rel))
        return found != nullptr ? found : unknown_domain;
    std::free(found);
    return others;
}

void credutl_crack_fq_name(const char *name, char *domain_buf, std::size_t domain_size, char *user_buf,
                           std::size_t user_size)
{
    ks::credutl::here.require(name != nullptr, "name != NULL");
    std::size_t place = 0;
    // By characters: the second byte of one may look like a backslash.
    const bool has_domain = strutl_find_char_from(name, 0, "/\\", &place, nullptr) == 0;
    // What is cut is cut: the buffers are what the caller has.
    if (has_domain)
        (void)strutl_ncpy_buf(domain_buf, name, place, domain_size);
    else
        (void)strutl_cpy_buf(domain_buf, unknown_domain, domain_size);
    (void)strutl_cpy_buf(user_buf, has_domain ? name + place + 1 : name, user_size);
}

char *credutl_creds_to_str(const credutl_sid_t *user_sid, const credutl_sid_t *group_sid, int ngroups,
                           const credutl_sid_t *group_sids, std::size_t size, char *buf)
{
    if (size > 0)
        write_credentials(buf, size, *user_sid, *group_sid, ngroups, group_sids);
    return buf;
}

void credutl_mk_authunix_machname(char *buf, std::size_t size)
{
    char host[CREDUTL_NAME_SIZE];
    if (sysutl_myhostname(host, sizeof host) != 0)
        host[0] = '\0';
    const char *domain = credutl_get_domain();
    const int length = std::snprintf(buf, size, "%s/%s", domain, host);
    if (length >= 0 && static_cast<std::size_t>(length) < size)
        return;
    (void)strutl_cpy_buf(buf, bogus_machname, size); // as much of it as fits
    (void)imsg_print(ks::msg_warning, &_credutl_ks_msg_table, credutl_msg_machname_too_long, domain, host,
                     static_cast<int>(size), bogus_machname); // the buffer says it too
}

void credutl_crack_authunix_machname(const char *machname, char *domain, std::size_t domain_size, char *host,
                                     std::size_t host_size)
{
    const char *name = machname != nullptr ? machname : "";
    const char *slash = std::strchr(name, '/');
    // What does not fit is cut.
    (void)strutl_ncpy_buf(domain, name, slash != nullptr ? static_cast<std::size_t>(slash - name) : 0, domain_size);
    (void)strutl_cpy_buf(host, slash != nullptr ? slash + 1 : name, host_size);
}
}
