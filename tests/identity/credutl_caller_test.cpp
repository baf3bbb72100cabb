// Users and groups by name, with a database that stands in for the system's; the client's record; and whom a server
// takes a caller for.
#include "harness/misuse.h"
#include "rpc/wire/connection.h"

#include <korvaks/auth.h>
#include <korvaks/credutl.h>
#include <korvaks/sysutl.h>

#include <map>
#include <random>

#include <arpa/inet.h>
#include <grp.h>
#include <ifaddrs.h>
#include <pwd.h>

namespace {

using namespace std::string_literals;

// --- The database ---

struct Known {
    unsigned id;
    std::size_t size; // of the entry's strings
    int error;        // in the place of an entry
};

const std::map<std::string, Known> known_users{{"root", {0, 64, 0}},
                                               {"ali", {1001, 64, 0}},
                                               {"wide", {1002, std::size_t{3} << 20, 0}},
                                               {"endless", {1003, SIZE_MAX, 0}},
                                               {"ill", {1004, 64, EIO}},
                                               {"gone", {1005, 64, ESRCH}}};

template <typename Entry> int answer(bool is_known, const Known &known, std::size_t size, Entry **found, Entry *entry)
{
    static bool was_interrupted = false;
    *found = nullptr;
    if ((was_interrupted = !was_interrupted))
        return EINTR;
    if (!is_known || known.error != 0)
        return is_known ? known.error : 0;
    if (size < known.size)
        return ERANGE;
    *found = entry;
    return 0;
}

auto with_id(unsigned id)
{
    return std::find_if(known_users.begin(), known_users.end(), [id](auto &row) { return row.second.id == id; });
}

template <typename Entry> int fill(decltype(known_users.begin()) at, std::size_t size, Entry **found, Entry *entry,
                                   char *Entry::*name, unsigned Entry::*id)
{
    const bool is_known = at != known_users.end();
    if (is_known) {
        entry->*name = const_cast<char *>(at->first.c_str());
        entry->*id = at->second.id;
    }
    return answer(is_known, is_known ? at->second : Known{}, size, found, entry);
}

// The groups are named as the users are; all others have names that tell their numbers.
constexpr unsigned numbered = 10000;

} // namespace

extern "C" {

int getpwuid_r(uid_t uid, passwd *entry, char *, size_t size, passwd **found)
{
    return fill(with_id(uid), size, found, entry, &passwd::pw_name, &passwd::pw_uid);
}

int getpwnam_r(const char *name, passwd *entry, char *, size_t size, passwd **found)
{
    return fill(known_users.find(name), size, found, entry, &passwd::pw_name, &passwd::pw_uid);
}

int getgrgid_r(gid_t gid, group *entry, char *buffer, size_t size, group **found)
{
    if (gid < numbered)
        return fill(with_id(gid), size, found, entry, &group::gr_name, &group::gr_gid);
    (void)snprintf(entry->gr_name = buffer, size, "grp%05u", gid);
    *found = entry;
    return 0;
}

int getgrnam_r(const char *name, group *entry, char *, size_t size, group **found)
{
    if (std::strncmp(name, "grp", 3) != 0)
        return fill(known_users.find(name), size, found, entry, &group::gr_name, &group::gr_gid);
    entry->gr_gid = static_cast<gid_t>(std::stoul(name + 3));
    *found = entry;
    return 0;
}
}

namespace {

// --- Names ---

std::string text_of(const credutl_sid_t &sid)
{
    char text[CREDUTL_SID_STR_SIZE];
    return credutl_sid_to_str(&sid, sizeof text, text);
}

credutl_sid_t uid_sid(credutl_uid_t uid)
{
    credutl_sid_t sid;
    credutl_uid_to_sid(uid, &sid);
    return sid;
}

std::string name_of(const credutl_sid_t &sid)
{
    char *name = credutl_sid_to_name(&sid);
    const std::string copy = name != nullptr ? name : "errno " + std::to_string(errno);
    free(name);
    return copy;
}

TEST(NamesInTheDatabase, AreFoundWhateverTheSizeOfTheEntry)
{
    credutl_sid_t wide_group;
    credutl_gid_to_sid(1002, &wide_group);
    EXPECT_EQ(name_of(uid_sid(0)) + name_of(uid_sid(1002)) + name_of(wide_group), "rootwidewide");
    EXPECT_EQ(name_of(uid_sid(1003)), "errno " + std::to_string(ERANGE));
    EXPECT_EQ(name_of(uid_sid(1004)), "errno " + std::to_string(EIO));
    EXPECT_EQ(name_of(uid_sid(1005)) + name_of(uid_sid(77)), "UNIX:UID-1005UNIX:UID-77");
    EXPECT_EQ(name_of(uid_sid(-1UL)) + name_of(uid_sid(0xFFFFFFFE)) + name_of(uid_sid(1UL << 32)),
              "DONTCARENOBODYNOBODY");
    EXPECT_EQ(name_of({4, 9, {0, 255}}) + name_of({7, 2, {0, 0, 0, 1, 3}}),
              "SID:9.00fferrno " + std::to_string(EINVAL));
    const struct {
        const char *name, *text;
        int error;
    } rows[] = {{"ali", "UNIX:UID-1001", 0},         {"UNIX:UID-0", "UNIX:UID-0", 0}, {"UNIX:UID--3", "UNIX:UID--3", 0},
                {"UNIX:UID--2", "NOBODY", 0},        {"DONTCARE", "DONTCARE", 0},     {"NOBODY", "NOBODY", 0},
                {"nobody-knows", "NOBODY", 2},       {"gone", "NOBODY", 2},           {"ill", "NOBODY", EIO},
                {"endless", "NOBODY", ERANGE},       {nullptr, "NOBODY", 2},          {"", "NOBODY", 2},
                {"UNIX:GID-0", "NOBODY", 2},         {"UNIX:UID-0 ", "NOBODY", 2},    {"UNIX:UID-", "NOBODY", 2},
                {"UNIX:UID-4294967296", "NOBODY", 2}};
    for (const auto &row : rows) {
        credutl_sid_t sid;
        errno = 0;
        EXPECT_EQ(credutl_user_name_to_sid(row.name, &sid), row.error != 0) << row.name;
        EXPECT_TRUE(text_of(sid) == row.text && errno == row.error) << row.name << text_of(sid) << errno;
    }
}

TEST(Credentials, StayTheSameInEachShape)
{
    std::mt19937 random(13);
    for (int round = 0; round < 300; ++round) {
        credutl_gid_t groups[32];
        credutl_credentials_t numbers{}, back{};
        for (auto &gid : groups)
            gid = random() % 4 == 0 ? random() % 9000 : 10000 + random() % 90;
        ASSERT_EQ(credutl_init_credentials_throttled(32, random() % 2000, random() % 90, int(random() % 33), groups,
                                                     &numbers.uid, &numbers.gid, &numbers.ngroups, numbers.groups),
                  0);
        credutl_sid_credentials_t sids{}, again{};
        credutl_string_credentials_t strings{};
        credutl_whole_credentials_t whole{};
        credutl_credentials_to_sid_credentials(&numbers, &sids);
        const int status = credutl_sid_credentials_to_string_credentials(&sids, &strings);
        const bool is_asked_in_vain = numbers.uid == 1003 || numbers.uid == 1004;
        ASSERT_EQ(status, is_asked_in_vain || credutl_has_group(1003, &numbers) || credutl_has_group(1004, &numbers));
        if (status != 0)
            continue;
        std::string wire = test::encode(xdr_credutl_string_credentials_t, strings);
        credutl_free_string_credentials(&strings);
        test::Stream in(wire, XDR_DECODE);
        EXPECT_TRUE(xdr_credutl_string_credentials_t(&in, &strings));
        EXPECT_EQ(credutl_string_credentials_to_sid_credentials(&strings, &again), 0);
        credutl_free_string_credentials(&strings);
        EXPECT_EQ(credutl_sid_credentials_to_whole_credentials(&again, STG_AREA_HEAP, &whole), 0);
        std::memset(&again, 0, sizeof again);
        EXPECT_EQ(credutl_whole_credentials_to_sid_credentials(&whole, &again), 0);
        stg_free(whole.group_sids);
        EXPECT_EQ(std::memcmp(&again, &sids, sizeof sids), 0);
        EXPECT_EQ(credutl_sid_credentials_to_credentials(&again, &back), 0);
        EXPECT_EQ(std::memcmp(&back, &numbers, sizeof back), 0);
    }
    credutl_sid_t many[33]{};
    const credutl_whole_credentials_t whole{{}, {}, 33, many};
    credutl_sid_credentials_t sids{};
    EXPECT_TRUE(credutl_whole_credentials_to_sid_credentials(&whole, &sids) == 1 && errno == EOVERFLOW);
}

// --- Calls ---

std::string own_host()
{
    char host[CREDUTL_NAME_SIZE];
    EXPECT_EQ(sysutl_myhostname(host, sizeof host), 0);
    return host;
}

struct Answer {
    auth_stat checked;
    int status;
    std::string user; // and its groups
    std::string place;
    std::string claim;
};

// A call with a credential, from an address.
Answer call(int flavour, std::string body, const char *address = "127.0.0.1")
{
    alignas(8) char cooked[KS_SVC_CREDENTIAL_SIZE];
    sockaddr_storage remote{};
    auto &in4 = reinterpret_cast<sockaddr_in &>(remote);
    auto &in6 = reinterpret_cast<sockaddr_in6 &>(remote);
    const bool is_in4 = inet_pton(AF_INET, address, &in4.sin_addr) == 1;
    remote.ss_family = is_in4 ? AF_INET : AF_INET6;
    EXPECT_TRUE(is_in4 || inet_pton(AF_INET6, address, &in6.sin6_addr) == 1) << address;
    SVCXPRT transport{};
    transport.xp_rtaddr = {sizeof remote, is_in4 ? u_int(sizeof in4) : u_int(sizeof in6), &remote};
    svc_req request{0, 0, 0, {}, cooked, &transport, nullptr, nullptr};
    rpc_msg message{};
    message.rm_call.cb_cred = {flavour, body.data(), u_int(body.size())};
    Answer result{_ks_authenticate(&request, &message), 0, "", "", ""};
    if (result.checked != AUTH_OK)
        return result;
    credutl_caller_t caller;
    result.status = credutl_identify_caller(&request, &caller);
    const auto &who = caller.credentials;
    char text[512];
    result.user = credutl_creds_to_str(&who.user_sid, &who.group_sid, who.ngroups, who.group_sids, sizeof text, text);
    result.place = caller.domain_name + "/"s + caller.host_name;
    result.claim = caller.claimed_user;
    return result;
}

const std::string nobody = "UID: NOBODY GID: NOBODY ";

struct Client {
    credutl_auth_vellum_t record{CREDUTL_AUTH_VELLUM_CREDENTIALS, "dom", "", {}};
    std::vector<std::string> names;

    Client(std::vector<std::string> user_and_groups, const std::string &host = own_host()) : names(user_and_groups)
    {
        (void)host.copy(record.host_name, sizeof record.host_name - 1);
        record.credentials = {names[0].data(), names[1].data(), int(names.size()) - 2, {}};
        for (std::size_t i = 2; i < names.size() && i < 34; ++i)
            record.credentials.group_names[i - 2] = names[i].data();
    }

    // What its handle sends: the body of the credential.
    std::string body()
    {
        const credutl_client_t client{CREDUTL_AUTH_FAMILY_VELLUM, &record};
        AUTH *auth = credutl_auth_create_for(&client);
        if (auth == nullptr)
            return "";
        test::Stream out(1000, XDR_ENCODE);
        EXPECT_EQ(auth_marshall(auth, &out), TRUE);
        const std::string sent(out.x_base, XDR_GETPOS(&out));
        opaque_auth verifier{AUTH_SHORT, nullptr, 0};
        EXPECT_TRUE(auth_validate(auth, &verifier) && !auth_refresh(auth, nullptr));
        const std::string body(auth->ah_cred.oa_base, auth->ah_cred.oa_length);
        auth_destroy(auth);
        EXPECT_EQ(sent, test::wire_word(CREDUTL_AUTH_FLAVOUR) + test::wire_word(u_int(body.size())) + body +
                            std::string(8, '\0'));
        return body;
    }
};

TEST(OwnFlavour, TellsWhoCalls)
{
    const std::string body = Client({"ali", "ali", "wide", "root", "unheard", "ali", "UNIX:GID-7"}).body();
    EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, body).checked, AUTH_REJECTEDCRED);
    EXPECT_EQ(credutl_svc_auth_register() + 2 * credutl_svc_auth_register(), 2);
    const Answer ali = call(CREDUTL_AUTH_FLAVOUR, body, "192.0.2.1");
    EXPECT_EQ(ali.user, "UID: UNIX:UID-1001 GID: UNIX:GID-1001 Groups: UNIX:GID-0 UNIX:GID-7 UNIX:GID-1002 ");
    EXPECT_EQ(ali.claim + " " + ali.place, "ali dom/" + own_host());
    EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, Client({"unheard", "ali", "ali"}).body()).user, "UID: NOBODY GID: NOBODY ");
    EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, Client({"DONTCARE", "ali"}).body()).user, nobody);
    EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, Client({"ill", "ali"}).body()).status, CREDUTL_CALLER_ERROR);
    Client host_only({"ali", "ali"}, "a\nb\x7f");
    host_only.record.kind = CREDUTL_AUTH_VELLUM_HOST;
    const Answer untold = call(CREDUTL_AUTH_FLAVOUR, host_only.body());
    EXPECT_TRUE(untold.status == CREDUTL_CALLER_UNTOLD && untold.user == nobody && untold.place == "dom/a?b?");
}

TEST(OwnFlavour, SendsAsManyGroupsAsFit)
{
    ASSERT_GE(credutl_svc_auth_register(), 0);
    for (const unsigned count : {0u, 26u, 27u, 28u, 32u}) {
        std::vector<std::string> names{"ali", "ali"};
        std::string expected = "UID: UNIX:UID-1001 GID: UNIX:GID-1001 ";
        for (unsigned i = 0; i < count; ++i) {
            names.push_back("grp100" + std::to_string(10 + i));
            if (i < 27) // 12 bytes each, behind 68 of the rest
                expected += (i == 0 ? "Groups: UNIX:GID-100" : "UNIX:GID-100") + std::to_string(10 + i) + " ";
        }
        const std::string body = Client(names, std::string(28, 'h')).body();
        EXPECT_EQ(body.size(), 68 + 12 * std::min(27u, count));
        EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, body).user, expected);
    }
    EXPECT_TRUE(Client(std::vector<std::string>(35, "ali")).body().empty() && errno == EINVAL);
    EXPECT_TRUE(Client({std::string(400, 'a'), "ali", "ali"}).body().empty() && errno == EMSGSIZE);
}

TEST(OwnFlavour, RefusesWhatIsNoRecord)
{
    ASSERT_GE(credutl_svc_auth_register(), 0);
    using test::wire_word;
    const std::string name = wire_word(3) + "ali"s + '\0', start = wire_word(1) + wire_word(1) + name + name;
    const auto check = [](const std::string &body) { return call(CREDUTL_AUTH_FLAVOUR, body).checked; };
    EXPECT_EQ(check(start + name + name + wire_word(0)), AUTH_OK);
    EXPECT_EQ(check(start + name + name + wire_word(32) + std::string(128, '\0')), AUTH_OK);
    for (const std::string &body :
         {""s, wire_word(2) + wire_word(0) + name + name, wire_word(1) + wire_word(2) + name + name,
          wire_word(1) + wire_word(0) + wire_word(256) + std::string(256, 'a') + name,
          wire_word(1) + wire_word(0) + name + name + wire_word(0),
          start + name + name + wire_word(33) + std::string(132, '\0'), start + name + name + wire_word(UINT32_MAX),
          start + name + wire_word(1024), start + wire_word(3) + "a\0i\0"s + name + wire_word(0),
          start + name + name + wire_word(0) + '\0'})
        EXPECT_EQ(check(body), AUTH_BADCRED) << testing::PrintToString(body);
}

// A credential of AUTH_UNIX.
std::string unix_body(const std::string &machine, std::vector<unsigned> ids)
{
    std::string body = test::wire_word(1) + test::wire_word(u_int(machine.size())) + machine;
    body.resize((body.size() + 3) / 4 * 4);
    body += test::wire_word(ids[0]) + test::wire_word(ids[1]) + test::wire_word(u_int(ids.size()) - 2);
    for (std::size_t i = 2; i < ids.size(); ++i)
        body += test::wire_word(ids[i]);
    return body;
}

TEST(Callers, ArePrivilegedOnlyOnThisHost)
{
    ASSERT_GE(credutl_svc_auth_register(), 0);
    std::string upper = own_host(), any_own = "::1";
    std::transform(upper.begin(), upper.end(), upper.begin(), [](char c) { return char(std::toupper(c)); });
    ifaddrs *list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    for (const ifaddrs *at = list; at != nullptr; at = at->ifa_next)
        if (at->ifa_addr != nullptr && at->ifa_addr->sa_family == AF_INET)
            any_own =
                inet_ntoa(reinterpret_cast<sockaddr_in *>(at->ifa_addr)->sin_addr); // not loopback, where there is one
    freeifaddrs(list);
    const struct {
        std::string host;
        std::string address;
        bool is_believed;
    } rows[] = {{own_host(), "127.0.0.1", true},
                {upper, "127.9.9.9", true},
                {own_host(), "::1", true},
                {own_host(), "::ffff:127.0.0.1", true},
                {own_host(), any_own, true},
                {own_host(), "::ffff:" + (any_own == "::1" ? "127.0.0.1" : any_own), true},
                {own_host(), "192.0.2.1", false},
                {own_host(), "2001:db8::1", false},
                {own_host(), "::ffff:192.0.2.1", false},
                {own_host() + "x", "127.0.0.1", false},
                {"", "127.0.0.1", false}};
    const std::string root = "UID: UNIX:UID-0 GID: UNIX:GID-0 Groups: UNIX:GID-5 ";
    for (const auto &row : rows) {
        SCOPED_TRACE(row.host + " " + row.address);
        const std::string &expected = row.is_believed ? root : nobody;
        const auto unix_call = call(AUTH_UNIX, unix_body("dom/" + row.host, {0, 0, 5}), row.address.c_str());
        EXPECT_EQ(unix_call.user, expected);
        EXPECT_EQ(unix_call.claim + unix_call.place, "UNIX:UID-0dom/" + row.host);
        for (const char *name : {"root", "UNIX:UID-0"}) {
            Client client({name, "root", "UNIX:GID-5"}, row.host);
            EXPECT_EQ(call(CREDUTL_AUTH_FLAVOUR, client.body(), row.address.c_str()).user, expected);
        }
    }
    EXPECT_EQ(call(AUTH_UNIX, unix_body("far", {1001, 7, 9, 8}), "192.0.2.1").user,
              "UID: UNIX:UID-1001 GID: UNIX:GID-7 Groups: UNIX:GID-9 UNIX:GID-8 ");
    for (const unsigned id : {-1u, -2u})
        EXPECT_EQ(call(AUTH_UNIX, unix_body(own_host(), {id, 7, 9})).user, nobody);
    EXPECT_EQ(call(AUTH_NONE, "").status, CREDUTL_CALLER_UNTOLD);
}

TEST(Callers, AreCrackedByNameAlone)
{
    authunix_parms parms{0, nullptr, 0, 4, 0, nullptr};
    gid_t groups[] = {9, 8};
    svc_req request{0, 0, 0, {AUTH_UNIX, nullptr, 0}, &parms, nullptr, nullptr, nullptr};
    std::string machine = "dom/" + own_host();
    const auto crack = [&](int expected) {
        credutl_whole_credentials_t whole{};
        char domain[8] = "#", host[CREDUTL_NAME_SIZE] = "#";
        parms.aup_machname = machine.data();
        EXPECT_EQ(
            credutl_crack_whole_rpc_auth(&request, STG_AREA_HEAP, &whole, domain, sizeof domain, host, sizeof host),
            expected);
        EXPECT_EQ(domain + "/"s + host, expected == 0 ? machine : "/");
        const std::string user = text_of(whole.user_sid) + " " + text_of(whole.group_sid);
        EXPECT_TRUE(whole.ngroups == 0 || (text_of(whole.group_sids[0]) == "UNIX:GID-9" && whole.ngroups == 2));
        stg_free(whole.group_sids);
        return user;
    };
    EXPECT_EQ(crack(0), "UNIX:UID-0 UNIX:GID-4");
    machine += ".";
    parms.aup_len = 2;
    parms.aup_gids = groups;
    EXPECT_EQ(crack(0), "NOBODY NOBODY");
    parms.aup_uid = 7;
    EXPECT_EQ(crack(0), "UNIX:UID-7 UNIX:GID-4");
    for (const auto &[flavour, status] : {std::pair{int(AUTH_NONE), 2}, {int(AUTH_DH), 1}, {CREDUTL_AUTH_FLAVOUR, 1}}) {
        request.rq_cred.oa_flavor = flavour;
        EXPECT_EQ(crack(status), "NOBODY NOBODY");
    }
}

TEST(Clients, AreMadeAndTakenApart)
{
    credutl_auth_vellum_t record;
    credutl_client_t client{};
    credutl_string_credentials_t strings{};
    char domain[CREDUTL_NAME_SIZE], host[CREDUTL_NAME_SIZE];
    for (const auto kind : {CREDUTL_AUTH_VELLUM_HOST, CREDUTL_AUTH_VELLUM_CREDENTIALS}) {
        ASSERT_EQ(credutl_mk_client_vellum(kind, &record, &client), 0);
        ASSERT_EQ(credutl_crack_client_vellum(&client, domain, sizeof domain, host, sizeof host, &strings), 0);
        EXPECT_EQ(domain + "/"s + host, credutl_get_domain() + "/"s + own_host());
        const std::string user = kind == CREDUTL_AUTH_VELLUM_HOST ? "NOBODY" : name_of(uid_sid(geteuid()));
        EXPECT_EQ(strings.user_name, user);
        credutl_free_string_credentials(&strings);
        credutl_free_client(&client);
        EXPECT_TRUE(client.record == nullptr && *record.host_name == '\0' && record.credentials.user_name == nullptr);
    }
    AUTH *auth = credutl_auth_create();
    ASSERT_NE(auth, nullptr);
    auth_destroy(auth);
    test::expect_misuse({{[&] { credutl_auth_create_for(&client); },
                          "(client_p->auth_family == CREDUTL_AUTH_FAMILY_VELLUM) failed: 'lib/ks/credutl'"}});
}

} // namespace
