// Names of the host and of the user.
#include <korvaks/sysutl.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace {

constexpr std::string_view no_nis_domain = "(none)"; // what the kernel starts with
constexpr std::size_t passwd_bytes = 16384;          // for the strings of one entry

int give(std::string_view name, char *buf, std::size_t size)
{
    if (name.size() >= size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(buf, name.data(), name.size());
    buf[name.size()] = '\0';
    return 0;
}

int give_number(uid_t uid, char *buf, std::size_t size)
{
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof digits, uid).ptr;
    return give({digits, static_cast<std::size_t>(end - digits)}, buf, size);
}

// An entry of the user database with its strings.
struct User {
    passwd entry;
    char strings[passwd_bytes];
};

// Asks getpwuid_r() or getpwnam_r(), also again when interrupted: true, or false with what they said.
template <typename Key>
bool find_user(int (*ask)(Key, passwd *, char *, std::size_t, passwd **), Key key, User &user, int &out_error)
{
    passwd *found = nullptr;
    do {
        out_error = ask(key, &user.entry, user.strings, sizeof user.strings, &found);
    } while (out_error == EINTR);
    return found != nullptr;
}

// How getpwuid_r() and getpwnam_r() say that there is no such user, beside a plain "not found".
bool is_unknown_user(int error)
{
    return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

} // namespace

extern "C" {

int sysutl_myhostname(char *buf, std::size_t size)
{
    utsname system;
    if (uname(&system) != 0)
        return -1;
    return give(system.nodename, buf, size);
}

int sysutl_get_host_domain_name(char *buf, std::size_t size)
{
    utsname system;
    if (uname(&system) != 0)
        return -1;
    const std::string_view nis_domain = system.domainname;
    if (!nis_domain.empty() && nis_domain != no_nis_domain)
        return give(nis_domain, buf, size);
    std::string_view host = system.nodename;
    const std::size_t dot = host.find('.');
    if (dot == std::string_view::npos || dot + 1 == host.size()) {
        errno = ENOENT;
        return -1;
    }
    host.remove_prefix(dot + 1);
    return give(host, buf, size);
}

int sysutl_user_name(char *buf, std::size_t size)
{
    const uid_t uid = getuid();
    User found;
    int error = 0;
    if (find_user(getpwuid_r, uid, found, error))
        return give(found.entry.pw_name, buf, size);
    if (is_unknown_user(error))
        return give_number(uid, buf, size);
    errno = error;
    return -1;
}

int sysutl_home_dir(const char *user, char *buf, std::size_t size)
{
    User found;
    int error = 0;
    if (find_user(getpwnam_r, user, found, error))
        return give(found.entry.pw_dir, buf, size);
    errno = is_unknown_user(error) ? ENOENT : error;
    return -1;
}
}
