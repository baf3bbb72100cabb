// Users and groups by name, with a database that stands in for the system's; the client's record; and whom a server
// takes a caller for.
#include "identity/caller.h"

#include <korvaks/auth.h>
#include <korvaks/credutl.h>
#include <korvaks/sysutl.h>

#include <cstdlib>
#include <map>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <pwd.h>

#include <gtest/gtest.h>

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
    const std::unique_ptr<char, void (*)(void *)> name(credutl_sid_to_name(&sid), std::free);
    return name != nullptr ? name.get() : "errno " + std::to_string(errno);
}

std::string name_of_group(credutl_gid_t gid)
{
    credutl_sid_t sid;
    return credutl_gid_to_sid(gid, &sid), name_of(sid) + " ";
}

std::string user_of(const char *name)
{
    credutl_sid_t sid;
    errno = 0;
    const int status = credutl_user_name_to_sid(name, &sid);
    EXPECT_EQ(status, errno != 0);
    return std::to_string(int(credutl_sid_to_uid(&sid))) + (errno != 0 ? "/" + std::to_string(errno) + " " : " ");
}

TEST(Names, AreFoundWhateverTheSizeOfTheEntry)
{
    EXPECT_EQ(name_of_group(0) + name_of_group(999999), "root UNIX:GID-999999 ");
    EXPECT_EQ(name_of_group(-1UL) + name_of_group(0xFFFFFFFE) + name_of_group(1UL << 32), "DONTCARE NOBODY NOBODY ");
    EXPECT_EQ(name_of({4, 9, {0, 255}}) + name_of({7, 2, {0, 0, 0, 1, 3}}), "SID:9.00fferrno 22");
    EXPECT_EQ(user_of("wide") + user_of("UNIX:UID-0") + user_of("UNIX:UID--3") + user_of("DONTCARE"), "1002 0 -3 -1 ");
    EXPECT_EQ(user_of("NOBODY") + user_of("unheard") + user_of("gone") + user_of("ill"), "-2 -2/2 -2/2 -2/5 ");
    EXPECT_EQ(user_of("endless") + user_of("") + user_of(nullptr) + user_of("a:b"), "-2/34 -2/2 -2/2 -2/2 ");
    EXPECT_EQ(user_of("UNIX:GID-0") + user_of("UNIX:UID-0 ") + user_of("UNIX:UID-4294967296"), "-2/2 -2/2 -2/2 ");
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
    AUTH *own = credutl_auth_create();
    const std::string own_body(own->ah_cred.oa_base, own->ah_cred.oa_length);
    auth_destroy(own);
    EXPECT_TRUE(call(CREDUTL_AUTH_FLAVOUR, own_body).claim.ends_with("@"s + credutl_get_domain() + "/" + own_host()));
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
    const std::vector<std::string> addresses{"192.0.2.1", "2001:db8::1", "::ffff:192.0.2.1", "127.9.9.9",
                                             "::1",       own,           "::ffff:" + own};
    for (const std::string &host : {here, upper, upper + "x", ""s})
        for (std::size_t i = 0; i < addresses.size(); ++i) {
            const std::string &address = addresses[i];
            SCOPED_TRACE(host + " " + address);
            const bool is_named = host == here || host == upper, is_own = i > 2;
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

} // namespace
