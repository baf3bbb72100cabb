// Users and groups by name, with a database that stands in for the system's; the client's record; and whom a server
// takes a caller for.
#include "identity/caller.h"

#include <korvaks/auth.h>
#include <korvaks/credutl.h>
#include <korvaks/sysutl.h>

#include <map>
#include <numeric>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <pwd.h>

namespace {

using namespace std::string_literals;
using test::Answer;
using test::call;
using test::wire_word;

// Users who are asked for by name: number, size of the entry's strings, error in the place of an entry.
using Entry = std::tuple<unsigned, std::size_t, int>;
const std::map<std::string, Entry> users{{"root", {0, 64, 0}},         {"ali", {1001, 64, 0}},
                                         {"wide", {1002, 3 << 20, 0}}, {"endless", {3, SIZE_MAX, 0}},
                                         {"ill", {4, 64, EIO}},        {"gone", {5, 64, ESRCH}}};

} // namespace

// Every second call is interrupted.
extern "C" int getpwnam_r(const char *name, passwd *entry, char *, size_t room, passwd **found)
{
    static bool is_interrupted = false;
    *found = nullptr;
    if ((is_interrupted = !is_interrupted) || users.count(name) == 0)
        return is_interrupted ? EINTR : 0;
    const auto &[uid, size, error] = users.at(name);
    entry->pw_uid = uid;
    *found = error == 0 && room >= size ? entry : nullptr;
    return error == 0 && room < size ? ERANGE : error;
}

namespace {

std::string name_of(credutl_sid_t sid)
{
    char *name = credutl_sid_to_name(&sid);
    const std::string copy = name != nullptr ? name : "errno " + std::to_string(errno);
    free(name);
    return copy;
}

TEST(Names, AreFoundWhateverTheSizeOfTheEntry)
{
    credutl_sid_t sid;
    for (const auto &[gid, name] : {std::pair{0UL, "root"},
                                    {999999, "UNIX:GID-999999"},
                                    {-1UL, "DONTCARE"},
                                    {0xFFFFFFFE, "NOBODY"},
                                    {1UL << 32, "NOBODY"}})
        EXPECT_EQ((credutl_gid_to_sid(gid, &sid), name_of(sid)), name);
    EXPECT_EQ(name_of({4, 9, {0, 255}}) + name_of({7, 2, {0, 0, 0, 1, 3}}), "SID:9.00fferrno 22");
    const std::map<std::string, std::pair<int, int>> rows = {{"wide", {1002, 0}},
                                                             {"UNIX:UID-0", {0, 0}},
                                                             {"UNIX:UID--3", {-3, 0}},
                                                             {"DONTCARE", {-1, 0}},
                                                             {"NOBODY", {-2, 0}},
                                                             {"unheard", {-2, 2}},
                                                             {"gone", {-2, 2}},
                                                             {"ill", {-2, EIO}},
                                                             {"endless", {-2, ERANGE}},
                                                             {"", {-2, 2}},
                                                             {"UNIX:GID-0", {-2, 2}},
                                                             {"UNIX:UID-0 ", {-2, 2}},
                                                             {"UNIX:UID-4294967296", {-2, 2}}};
    for (const auto &[name, expected] : rows) {
        errno = 0;
        EXPECT_EQ(credutl_user_name_to_sid(name.c_str(), &sid), expected.second != 0) << name;
        EXPECT_EQ(std::pair(int(credutl_sid_to_uid(&sid)), errno), expected) << name;
    }
}

TEST(Credentials, StayTheSameInEachShape)
{
    for (int count = 0; count <= 32; ++count) {
        credutl_credentials_t numbers{1001, 0, count, {}}, back{};
        std::iota(numbers.groups, numbers.groups + count, 5);
        credutl_sid_credentials_t sids{};
        credutl_string_credentials_t strings{};
        credutl_whole_credentials_t whole{};
        credutl_credentials_to_sid_credentials(&numbers, &sids);
        EXPECT_EQ(credutl_sid_credentials_to_whole_credentials(&sids, STG_AREA_HEAP, &whole), 0);
        EXPECT_EQ(credutl_whole_credentials_to_sid_credentials(&whole, &sids), 0);
        EXPECT_EQ(credutl_sid_credentials_to_string_credentials(&sids, &strings), 0);
        EXPECT_EQ(credutl_string_credentials_to_sid_credentials(&strings, &sids), 0);
        EXPECT_EQ(credutl_sid_credentials_to_credentials(&sids, &back), 0);
        EXPECT_EQ(std::memcmp(&back, &numbers, sizeof back), 0);
        credutl_free_string_credentials(&strings);
        stg_free(whole.group_sids);
    }
}

std::string own_host()
{
    char host[CREDUTL_NAME_SIZE];
    EXPECT_EQ(sysutl_myhostname(host, sizeof host), 0);
    return host;
}

const std::string nobody = "UID: NOBODY GID: NOBODY ";

// What the handle of such a client sends.
std::string body_of(std::vector<std::string> names, std::string host = own_host(), int kind = 1)
{
    credutl_auth_vellum_t record{credutl_auth_vellum_kind_t(kind), "dom", "", {}};
    (void)host.copy(record.host_name, sizeof record.host_name - 1);
    record.credentials = {names[0].data(), names[1].data(), int(names.size()) - 2, {}};
    for (std::size_t i = 2; i < std::min<std::size_t>(names.size(), 34); ++i)
        record.credentials.group_names[i - 2] = names[i].data();
    const credutl_client_t client{CREDUTL_AUTH_FAMILY_VELLUM, &record};
    AUTH *auth = credutl_auth_create_for(&client);
    if (auth == nullptr)
        return "errno " + std::to_string(errno);
    test::Stream out(1000, XDR_ENCODE);
    opaque_auth verifier{AUTH_SHORT, nullptr, 0};
    EXPECT_TRUE(auth_marshall(auth, &out) && auth_validate(auth, &verifier) && !auth_refresh(auth, nullptr));
    const std::string sent(out.x_base, XDR_GETPOS(&out)), body(auth->ah_cred.oa_base, auth->ah_cred.oa_length);
    EXPECT_EQ(sent, wire_word(CREDUTL_AUTH_FLAVOUR) + wire_word(u_int(body.size())) + body + std::string(8, '\0'));
    auth_destroy(auth);
    return body;
}

TEST(OwnFlavour, TellsWhoCalls)
{
    const std::string body = body_of({"ali", "daemon", "bin", "root", "unheard", "bin", "UNIX:GID-7"});
    EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, body).checked, AUTH_REJECTEDCRED);
    EXPECT_EQ(credutl_svc_auth_register() + 2 * credutl_svc_auth_register(), 2);
    const Answer ali = call(CREDUTL_AUTH_FLAVOUR, body, "192.0.2.1");
    EXPECT_EQ(ali.user, "UID: UNIX:UID-1001 GID: UNIX:GID-1 Groups: UNIX:GID-0 UNIX:GID-2 UNIX:GID-7 ");
    EXPECT_TRUE(ali.claim == "ali@dom/" + own_host() && ali.cracked == nobody && ali.cracked_status == 1);
    for (const char *name : {"unheard", "DONTCARE", "ill"}) {
        const Answer unknown = call(CREDUTL_AUTH_FLAVOUR, body_of({name, "root", "root"}));
        EXPECT_TRUE(unknown.user == nobody && unknown.status == (name == "ill"s ? CREDUTL_CALLER_ERROR : 0)) << name;
    }
    const Answer untold = call(CREDUTL_AUTH_FLAVOUR, body_of({"ali", "bin"}, "a\nb\x7f", 0));
    EXPECT_TRUE(untold.status == CREDUTL_CALLER_UNTOLD && untold.user == nobody && untold.claim == "@dom/a?b?");
    for (const unsigned count : {0u, 26u, 27u, 28u, 32u}) { // of 12 bytes each, behind 76 of the rest
        const std::vector<std::string> names(count + 2, "nobodys");
        EXPECT_EQ(body_of(names, std::string(28, 'h')).size(), 76 + 12 * std::min(27u, count));
    }
    EXPECT_EQ(body_of(std::vector<std::string>(35, "ali")) + body_of({std::string(400, 'a'), ""}), "errno 22errno 90");
    const std::string name = wire_word(3) + "ali\0"s, start = wire_word(1) + wire_word(1) + name + name + name;
    for (const std::string &bad :
         {name + wire_word(33) + std::string(132, '\0'), name + "\0\0\0\0x"s, wire_word(3) + "a\0i\0\0\0\0\0"s})
        EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, start + bad).checked, AUTH_BADCRED);
}

Answer unix_call(const std::string &host, uid_t uid, const std::string &address)
{
    const gid_t groups[] = {9, 8};
    AUTH *auth = ks_authunix_create(("dom/" + host).c_str(), uid, 7, 2, groups);
    const std::string body(auth->ah_cred.oa_base, auth->ah_cred.oa_length);
    auth_destroy(auth);
    return call(AUTH_UNIX, body, address);
}

TEST(Callers, ArePrivilegedOnlyOnThisHost)
{
    ASSERT_GE(credutl_svc_auth_register(), 0);
    const std::string groups = " GID: UNIX:GID-7 Groups: UNIX:GID-9 UNIX:GID-8 ", here = own_host();
    std::string upper = here, own = "127.0.0.1";
    std::transform(upper.begin(), upper.end(), upper.begin(), [](char c) { return char(std::toupper(c)); });
    ifaddrs *list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    for (const ifaddrs *at = list; at != nullptr; at = at->ifa_next) // the last is not loopback, where there is another
        if (at->ifa_addr != nullptr && at->ifa_addr->sa_family == AF_INET)
            own = inet_ntoa(reinterpret_cast<sockaddr_in *>(at->ifa_addr)->sin_addr);
    freeifaddrs(list);
    for (const std::string &host : {here, upper, here + "x", ""s})
        for (const std::string &address : {"127.9.9.9"s, "::1"s, "::ffff:127.0.0.1"s, own, "::ffff:" + own,
                                           "192.0.2.1"s, "2001:db8::1"s, "::ffff:192.0.2.1"s}) {
            SCOPED_TRACE(host + " " + address);
            const bool is_named = host == here || host == upper,
                       is_own = address.find("2.0.2.1") + address.find("db8") == 2 * std::string::npos;
            const Answer root = unix_call(host, 0, address);
            EXPECT_EQ(root.user, is_named && is_own ? "UID: UNIX:UID-0" + groups : nobody);
            EXPECT_EQ(root.cracked, is_named ? "UID: UNIX:UID-0" + groups : nobody); // whatever the address is
            EXPECT_EQ(root.claim, "UNIX:UID-0@dom/" + host);
            for (const char *name : {"root", "UNIX:UID-0"})
                EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, body_of({name, "root"}, host), address).user,
                          is_named && is_own ? "UID: UNIX:UID-0 GID: UNIX:GID-0 " : nobody);
            EXPECT_EQ(unix_call(host, 1001, address).user, "UID: UNIX:UID-1001" + groups);
            EXPECT_EQ(unix_call(host, -1u, address).user + unix_call(host, -2u, address).cracked, nobody + nobody);
        }
    const Answer none = call(AUTH_NONE, "");
    EXPECT_TRUE(none.status == 2 && none.cracked_status == 2 && none.user + none.cracked == nobody + nobody);
}

TEST(Clients, AreMadeAndTakenApart)
{
    credutl_auth_vellum_t record;
    credutl_client_t client{};
    credutl_string_credentials_t strings{};
    char place[2][CREDUTL_NAME_SIZE];
    credutl_sid_t user{2, 0, {}};
    for (const int kind : {0, 1}) {
        ASSERT_EQ(credutl_mk_client_vellum(credutl_auth_vellum_kind_t(kind), &record, &client), 0);
        ASSERT_EQ(
            credutl_crack_client_vellum(&client, place[0], CREDUTL_NAME_SIZE, place[1], CREDUTL_NAME_SIZE, &strings),
            0);
        EXPECT_EQ(place[0] + "/"s + place[1] + strings.user_name,
                  credutl_get_domain() + "/"s + own_host() + name_of(user));
        credutl_free_string_credentials(&strings);
        credutl_free_client(&client);
        EXPECT_TRUE(client.record == nullptr && *record.host_name == '\0' && record.credentials.user_name == nullptr);
        credutl_uid_to_sid(geteuid(), &user);
    }
}

} // namespace
