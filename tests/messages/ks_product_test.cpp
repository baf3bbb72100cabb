#include <korvaks/ks_product.h>

#include <korvaks/evutl.h>
#include <korvaks/imsg.h>
#include <korvaks/imsg_prompt.h>
#include <korvaks/pfm.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <sys/auxv.h>
#include <unistd.h>

#include "harness/child.h"

namespace {

namespace fs = std::filesystem;

constexpr int refused = 77; // the machine does not let a child do what the test needs

void set_or_unset(const char *name, const char *value)
{
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

// exit() would run the test program's own handlers in the child.
void leave_at_once(int status)
{
    fflush(nullptr);
    _exit(status);
}

TEST(KsProductDir, FirstVariableThatIsSetEvenToNothing)
{
    const std::string large(KS_PATH_SIZE + 100, 'l');
    const struct {
        const char *vellumhome, *korvahome; // NULL: unset
        std::string directory;
    } cases[] = {{"/v", "/k", "/v"},
                 {nullptr, "/k", "/k"},
                 {"", "/k", ""},
                 {nullptr, nullptr, "/opt/vellum"},
                 {large.c_str(), nullptr, large.substr(0, KS_PATH_SIZE - 1)}};
    for (const auto &c : cases) {
        const auto result = test::run_child([&c] {
            char path[KS_PATH_SIZE];
            for (const char *vellumhome : {c.vellumhome, "/later"}) {
                set_or_unset("VELLUMHOME", vellumhome);
                set_or_unset("KORVAHOME", c.korvahome);
                puts(ks_product_dir(path, nullptr));
            }
        });
        EXPECT_EQ(result.out, c.directory + "\n" + c.directory + "\n");
    }
}

TEST(KsProductDir, PathsBelowIt)
{
    const auto result = test::run_child([] {
        setenv("VELLUMHOME", "/p", 1);
        char path[KS_PATH_SIZE];
        puts(ks_product_dir(path, "sub"));
        puts(ks_product_dir(path, ""));
        puts(ks_product_tool_dir(path, "x"));
        puts(ks_product_tool_dir(path, nullptr));
        puts(ks_product_tool_dir_quoted(path, "x y"));
        // A path of exactly the buffer's size is whole, the next one is none.
        for (const size_t length : {KS_PATH_SIZE - 4u, KS_PATH_SIZE - 3u}) {
            const std::string sub(length, 's');
            char bounded[KS_PATH_SIZE + 1];
            bounded[KS_PATH_SIZE] = '#';
            printf("%zu%c\n", strlen(ks_product_dir(bounded, sub.c_str())), bounded[KS_PATH_SIZE]);
        }
    });
    EXPECT_EQ(result.out, "/p/sub\n/p/\n/p/bin/x\n/p/bin\n\"/p/bin/x y\"\n1023#\n0#\n");
}

TEST(KsProductDir, TrustsTheEnvironmentUnlessPrivileged)
{
    const bool is_privileged = getauxval(AT_SECURE) != 0;
    const test::TempDir dir;
    const auto result = test::run_child([&dir] {
        setenv("VELLUMHOME", "/from/environment", 1);
        setenv("VELLUM_IMSG_CAPTURE_LOG", dir.file("capture").c_str(), 1);
        imsg_initialize();
        char path[KS_PATH_SIZE];
        const char *secure = getenv_safe("VELLUMHOME", path, sizeof path, EVUTL_GETENV_SECURE);
        puts(secure != nullptr ? secure : "(unset)");
        puts(getenv_safe("VELLUMHOME", path, sizeof path, 0));
        puts(ks_product_dir(path, nullptr));
    });
    EXPECT_EQ(result.out, is_privileged ? "(unset)\n/from/environment\n/opt/vellum\n"
                                        : "/from/environment\n/from/environment\n/from/environment\n");
    EXPECT_EQ(fs::is_empty(dir.path()), is_privileged);
    printf("privileged: %d\n", is_privileged);
}

// The test above in a process that is.
TEST(KsProductDir, SetUserIdProcessIsPrivileged)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make a program set-user-ID to another user";
    const test::TempDir dir;
    const std::string program = dir.file("program");
    constexpr uid_t nobody = 65534;
    fs::permissions(dir.path(), fs::perms(0755));
    fs::copy_file("/proc/self/exe", program);
    ASSERT_EQ(chown(program.c_str(), nobody, nobody), 0);
    fs::permissions(program, fs::perms(04755));
    const auto result = test::run_child([&program] {
        execl(program.c_str(), "program", "--gtest_filter=*TrustsTheEnvironmentUnlessPrivileged", nullptr);
        return refused;
    });
    // Its status is that of the leak checker, where there is one: it cannot trace such a process.
    for (const char *line : {"privileged: 1\n", "[  PASSED  ] 1 test."})
        EXPECT_NE(result.out.find(line), std::string::npos) << result.out << result.err;
}

class KsHostdataDir : public testing::Test {
  protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can give a process another root";
    }
};

// Runs `body` with a new root in which the given directories exist.
test::ChildResult run_in_root(const std::vector<std::string> &directories, const std::function<int()> &body)
{
    const test::TempDir root;
    for (const auto &directory : directories)
        fs::create_directories(root.path() + directory);
    return test::run_child([&] {
        if (chroot(root.path().c_str()) != 0 || chdir("/") != 0)
            return refused;
        setenv("VELM_HOSTDATA_DIR", "/other", 1);
        (void)pfm_set_exit(leave_at_once);
        return body();
    });
}

TEST_F(KsHostdataDir, FirstThatExistsAndIsKept)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"/var/adm/vellum", "/var/adm/korva", "/other"}, "/var/adm/vellum"},
        {{"/var/adm/korva", "/other"}, "/var/adm/korva"},
        {{"/other"}, "/other"},
    };
    for (const auto &[directories, expected] : cases) {
        SCOPED_TRACE(expected);
        const auto result = run_in_root(directories, [] {
            char path[KS_PATH_SIZE];
            if (ks_has_hostdata_dir() == 0)
                return 1;
            setenv("VELM_HOSTDATA_DIR", "/gone", 1);
            fs::remove_all("/var");
            fs::remove_all("/other");
            puts(ks_hostdata_dir(path, nullptr, nullptr));
            puts(ks_hostdata_dir(path, "a", nullptr));
            puts(ks_hostdata_dir(path, nullptr, "b"));
            puts(ks_hostdata_dir(path, "a", "b"));
            puts(ks_host_config_dir(path, "a"));
            puts(ks_host_config_dir(path, nullptr));
            return 0;
        });
        EXPECT_EQ(result.out, expected + "\n" + expected + "/a\n" + expected + "/b\n" + expected + "/a/b\n" + expected +
                                  "/config/a\n" + expected + "/config\n");
    }
}

TEST_F(KsHostdataDir, WithoutAnyTheProcessEnds)
{
    const auto result = run_in_root({}, [] {
        char path[KS_PATH_SIZE];
        puts(ks_hostdata_dir(path, nullptr, nullptr));
        return 0;
    });
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "noname: Error: This product is not installed correctly.\n"
                          "noname: Error: Can't find host data directory, tried: \"/var/adm/vellum\".\n"
                          "noname: Error: Can't find host data directory, tried: \"/var/adm/korva\".\n");
}

// A front end is asked to proceed to the end; where the exit returns, the path is empty.
TEST_F(KsHostdataDir, AFrontEndIsTold)
{
    const auto result = run_in_root({}, [] {
        imsg_redirect_output([](void *, const char *) {}, nullptr, nullptr, nullptr);
        imsg_prompt_procs procs{};
        procs.proceed = [](int, const char *question, unsigned mask, unsigned dflt, void *) {
            return printf("%s%u %u\n", question, mask, dflt), IMSG_CHOICE_PROCEED;
        };
        imsg_use_prompt_procs(&procs, &procs);
        (void)pfm_set_exit([](int status) { printf("exit %d\n", status); });
        char path[KS_PATH_SIZE] = "unchanged";
        printf("\"%s\"\n", ks_host_config_dir(path, "a"));
        return 0;
    });
    EXPECT_EQ(result.out, "The application will exit ... 2 2\nexit 2\n\"\"\n");
}

struct Switch {
    int (*query)(void);
    int (*set)(int);
    std::string name;
};
const Switch switches[] = {{ks_force_gui, ks_set_force_gui, "FORCE_GUI"},
                           {ks_web_gui, ks_set_web_gui, "WEB_GUI"},
                           {ks_cte_dynamic, ks_set_cte_dynamic, "CTE_DYNAMIC"},
                           {ks_web_velprompt, ks_set_web_velprompt, "WEB_VELPROMPT"},
                           {ks_no_bold, nullptr, "NO_BOLD"}};

TEST(KsSwitch, FirstVariableUnlessEmptyAndAnyValueButANumberOfZero)
{
    using Values = std::pair<const char *, const char *>; // VELM_, KORVA_; NULL: unset
    const std::vector<Values> off = {{nullptr, nullptr}, {"0", "1"}, {"", "0"}, {"000", "1"}, {"0x1", nullptr}};
    const std::vector<Values> on = {{"", "yes"}, {"no", nullptr}, {"00012", "0"}, {"-0", nullptr}, {" 0", nullptr}};
    const std::vector<Values> on_for_bold = {{nullptr, ""}, {"", ""}};
    const auto expect = [](const Switch &s, const std::vector<Values> &cases, int expected) {
        for (const auto &[velm, korva] : cases) {
            SCOPED_TRACE(s.name + ": " + (velm ? velm : "(unset)") + ", " + (korva ? korva : "(unset)"));
            const auto result = test::run_child([&, velm = velm, korva = korva] {
                set_or_unset(("VELM_" + s.name).c_str(), velm);
                set_or_unset(("KORVA_" + s.name).c_str(), korva);
                return s.query();
            });
            EXPECT_EQ(result.exit_status, expected);
        }
    };
    for (const auto &s : switches) {
        expect(s, off, 0);
        expect(s, on, 1);
        expect(s, on_for_bold, s.query == ks_no_bold ? 1 : 0);
    }
}

TEST(KsSwitch, SettersReachTheEnvironmentAndNotTheAnswerGiven)
{
    for (const auto &s : switches) {
        if (s.set == nullptr)
            continue;
        SCOPED_TRACE(s.name);
        const auto answered = test::run_child([&] {
            printf("%d", s.query());
            for (const int on : {1, 0}) {
                const int failed = s.set(on);
                printf(" %d '%s' '%s' %d", failed, getenv(("VELM_" + s.name).c_str()),
                       getenv(("KORVA_" + s.name).c_str()), s.query());
            }
        });
        EXPECT_EQ(answered.out, "0 0 '1' '1' 0 0 '' '' 0");
        const auto unanswered = test::run_child([&] { return s.set(0) == 0 && s.set(7) == 0 ? s.query() : 2; });
        EXPECT_EQ(unanswered.exit_status, 1);
    }
}

} // namespace
