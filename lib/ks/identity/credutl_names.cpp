// Names of users and groups, from the system's database.
//
// An entry is as large as it is: a group has all its members in it. So the room for its strings grows until it fits.
#include <korvaks/credutl.h>

#include "identity/credutl_impl.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <grp.h>
#include <pwd.h>

namespace {

constexpr std::size_t first_room = 1024;
constexpr std::size_t room_growth = 4;
constexpr std::size_t room_max = std::size_t{64} << 20;

constexpr std::string_view nobody_text = "NOBODY";
constexpr std::string_view dontcare_text = "DONTCARE";

// How the system says that there is no such entry, beside a plain "not found".
bool is_missing(int error)
{
    return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

// One of getpwuid_r() and its like.
template <typename Entry, typename Key> using Ask = int (*)(Key, Entry *, char *, std::size_t, Entry **);

template <typename Entry, typename Key, typename Take>
int ask_with_room(Ask<Entry, Key> ask, Key key, char *room, std::size_t size, Take take)
{
    Entry entry;
    Entry *found = nullptr;
    int error = 0;
    do {
        error = ask(key, &entry, room, size, &found);
    } while (error == EINTR);
    if (found != nullptr)
        return take(*found);
    return is_missing(error) ? ENOENT : error;
}

// Hands the entry of the key to `take`, whose answer is given: 0 or an error. ENOENT: there is no such entry.
template <typename Entry, typename Key, typename Take> int look_up(Ask<Entry, Key> ask, Key key, Take take)
{
    char small[first_room];
    int error = ask_with_room(ask, key, small, sizeof small, take);
    for (std::size_t size = first_room * room_growth; error == ERANGE && size <= room_max; size *= room_growth) {
        auto *room = static_cast<char *>(std::malloc(size));
        if (room == nullptr)
            return ENOMEM;
        error = ask_with_room(ask, key, room, size, take);
        std::free(room);
    }
    return error;
}

int copy_name(const char *name, char *&out_name)
{
    out_name = strdup(name);
    return out_name != nullptr ? 0 : ENOMEM;
}

int look_up_name(const credutl_sid_t &sid, char *&out_name)
{
    if (ks::credutl::is_unix_sid(sid, CREDUTL_SID_UNIX_UID))
        return look_up<passwd>(getpwuid_r, static_cast<uid_t>(credutl_sid_to_uid(&sid)),
                               [&](const passwd &user) { return copy_name(user.pw_name, out_name); });
    if (ks::credutl::is_unix_sid(sid, CREDUTL_SID_UNIX_GID))
        return look_up<group>(getgrgid_r, static_cast<gid_t>(credutl_sid_to_gid(&sid)),
                              [&](const group &entry) { return copy_name(entry.gr_name, out_name); });
    return ENOENT; // only the system's own have names
}

// A UNIX identity whose text would end the process.
bool is_of_unknown_type(const credutl_sid_t &sid)
{
    credutl_sid_t as_user = sid;
    as_user.body[sizeof(uint32_t)] = CREDUTL_SID_UNIX_UID;
    return ks::credutl::is_unix_sid(as_user, CREDUTL_SID_UNIX_UID) &&
           !ks::credutl::is_unix_sid(sid, CREDUTL_SID_UNIX_UID) && !ks::credutl::is_unix_sid(sid, CREDUTL_SID_UNIX_GID);
}

// --- Names to identities ---

// No name of the database is empty, has its field separator in it, or is none to print: such a one is a stranger's
// invention, which no directory service is asked about.
bool may_be_name(std::string_view name)
{
    constexpr char last_control = 0x1F;
    constexpr char delete_char = 0x7F;
    return !name.empty() && std::none_of(name.begin(), name.end(), [](char c) {
        return c == ':' || (c >= 0 && c <= last_control) || c == delete_char;
    });
}

// The number in "UNIX:UID-1234", written signed.
bool read_number(std::string_view text, std::string_view head, unsigned long &out_id)
{
    if (!text.starts_with(head))
        return false;
    text.remove_prefix(head.size());
    int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size())
        return false;
    out_id = static_cast<uint32_t>(number);
    return true;
}

// What the names of users and of groups have of their own.
struct Kind {
    std::string_view head; // of a number that is written in the place of a name
    void (*to_sid)(unsigned long id, credutl_sid_t *out_sid);
    int (*look_up_id)(const char *name, unsigned long &out_id);
};

int look_up_user(const char *name, unsigned long &out_id)
{
    return look_up<passwd>(getpwnam_r, name, [&](const passwd &user) { return out_id = user.pw_uid, 0; });
}

int look_up_group(const char *name, unsigned long &out_id)
{
    return look_up<group>(getgrnam_r, name, [&](const group &entry) { return out_id = entry.gr_gid, 0; });
}

constexpr Kind users{"UNIX:UID-", credutl_uid_to_sid, look_up_user};
constexpr Kind groups{"UNIX:GID-", credutl_gid_to_sid, look_up_group};

// The number behind a name; an error, with nobody's.
int find_id(const Kind &kind, const char *name, unsigned long &out_id)
{
    out_id = ks::credutl::nobody_id;
    if (name == nullptr || name == nobody_text)
        return name != nullptr ? 0 : ENOENT;
    if (name == dontcare_text) {
        out_id = ks::credutl::dontcare_id;
        return 0;
    }
    if (read_number(name, kind.head, out_id))
        return 0;
    return may_be_name(name) ? kind.look_up_id(name, out_id) : ENOENT;
}

int name_to_sid(const Kind &kind, const char *name, credutl_sid_t *out_sid)
{
    unsigned long id;
    const int error = find_id(kind, name, id);
    kind.to_sid(id, out_sid);
    if (error == 0)
        return 0;
    errno = error;
    return 1;
}

} // namespace

extern "C" {

char *credutl_sid_to_name(const credutl_sid_t *sid)
{
    char *name = nullptr;
    const int error = is_of_unknown_type(*sid) ? EINVAL : look_up_name(*sid, name);
    if (error == ENOENT) {
        char text[CREDUTL_SID_STR_SIZE];
        name = strdup(credutl_sid_to_str(sid, sizeof text, text));
        errno = name != nullptr ? errno : ENOMEM;
    } else if (error != 0) {
        errno = error;
    }
    return name;
}

int credutl_user_name_to_sid(const char *name, credutl_sid_t *out_sid)
{
    return name_to_sid(users, name, out_sid);
}

int credutl_group_name_to_sid(const char *name, credutl_sid_t *out_sid)
{
    return name_to_sid(groups, name, out_sid);
}
}
