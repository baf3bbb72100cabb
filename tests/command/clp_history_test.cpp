// The command history, in a host-data directory of the test's own.
#include <korvaks/clp.h>
#include <korvaks/imsg.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "harness/child.h"
#include "harness/match.h"

namespace {

// The text with "@" for the time stamp of each line that has a right one.
std::string without_stamps(const std::string &text)
{
    static const std::regex stamp("(^|\n)[0-9]{4}(:[0-9]{2}){5}\\.[0-9]{3} ");
    return std::regex_replace(text, stamp, "$1@");
}

class ClpHistory : public testing::Test {
  protected:
    void SetUp() override
    {
        if (access("/var/adm/vellum", F_OK) == 0 || access("/var/adm/korva", F_OK) == 0)
            GTEST_SKIP() << "this host has a data directory that no test may write to";
        setenv("VELM_HOSTDATA_DIR", host_.path().c_str(), 1);
        mkdir(host_.file("config").c_str(), 0755);
        mkdir(host_.file("log").c_str(), 0755);
        keep_history();
    }

    std::string marker() const { return host_.file("config/collect_history"); }
    std::string log_path() const { return host_.file("log/vellum_history"); }
    void keep_history() const { test::write_file(marker(), ""); }
    std::string log() const { return access(log_path().c_str(), F_OK) == 0 ? test::read_file(log_path()) : "no log"; }

    // What a child's records say, the time stamp checked and taken off; then the log is gone.
    std::string records_of(const std::function<void()> &body) const
    {
        const test::ChildResult result = test::run_child([&] {
            if (chdir("/") != 0)
                return 2;
            body();
            return 0;
        });
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out + result.err, "");
        const std::string text = log();
        unlink(log_path().c_str());
        return without_stamps(text);
    }

    test::TempDir host_;
};

std::string caller()
{
    return "(uid=" + std::to_string(geteuid()) + ") (pid=#) ";
}

// A record of words: "x", then these.
void log_words(std::vector<std::string> words)
{
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    clp_log_cl_args("x", static_cast<int>(argv.size()), argv.data(), nullptr);
}

TEST_F(ClpHistory, RecordsCommands)
{
    const std::string limit(256 - 1 - 3, 'w');
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { clp_log_cl_args(nullptr, -1, nullptr, "1 s"); }, " in / took 1 s "},
        {[&] {
             log_words({limit, "y"});
         },
         "x '" + limit + "' in / "},
        {[&] {
             log_words({limit + "w", "y"});
         },
         "x in / "},
        {[] {
             log_words({"a\n\x1b[2J\t\xe9", "\u0080\u009f\u00a0\xc2", "\xc2\u009b2J"});
         },
         "x 'a??[2J\t\xe9' '??\u00a0\xc2' '\xc2?2J' in / "},
        {[] {
             clp_handle *hdl = clp_create_hdl_using_string("tool -v", nullptr, STG_AREA_NULL);
             clp_log_command("name", hdl, "t");
             clp_destroy_hdl(&hdl);
         },
         "name 'tool' '-v' in / took t "},
    };
    for (const auto &[call, text] : cases)
        EXPECT_EQ(std::regex_replace(records_of(call), std::regex("pid=[0-9]+"), "pid=#"),
                  "@" + caller() + text + "\n");
}

TEST_F(ClpHistory, RemembersTheCommandWithoutKeepingHistory)
{
    unlink(marker().c_str());
    EXPECT_EQ(records_of([this] {
                  std::string before = clp_get_command();
                  log_words({"a"});
                  before += clp_get_command();
                  if (before != "No commandx 'a'")
                      std::puts(before.c_str());
                  clp_collectdatas("tag", "text"); // remembers that there is no history
                  keep_history();                  // from here on every command asks again
                  clp_collectdatas("tag", "text");
                  clp_collectdatai("text", 1); // asks for itself
                  log_words({"b"});
              }).find("@text 'text                    1': \n@(uid"),
              0u);
}

TEST_F(ClpHistory, RecordsWhatIsCollected)
{
    const std::string long_text(3000, 'x');
    EXPECT_EQ(records_of([&] {
                  clp_collectdatas(long_text.c_str(), nullptr);
                  clp_collectdatai("n", -5);
                  clp_collectdatai("none", 0);
                  clp_collectdatai(long_text.c_str(), 0);
                  clp_collectdatai(long_text.c_str(), 7);
              }),
              "@" + long_text + " '': \n@n 'n                   -5': \n@none 'none': \n@" + long_text + " '" +
                  long_text.substr(0, 1024) + "': \n@" + long_text + " '" + long_text.substr(0, 1000) +
                  "                    7': \n");
}

TEST_F(ClpHistory, RecordsTheEndOfTheProductsTools)
{
    for (const auto &[name, is_logged] : {std::pair{"veltool", true}, {"velmake", true}, {"velmak", false}}) {
        const std::string got = records_of([name = name] {
            imsg_set_app_name(name);
            timeval start;
            clp_get_starttime(&start);
            start.tv_sec -= 100;
            char word[] = "w";
            char *argv[] = {word, nullptr};
            clp_exit_log_args(1, argv, &start);
        });
        const std::string record =
            "@\\(uid=[0-9]+\\) \\(pid=[0-9]+\\) " + std::string(name) + " 'w' in / took  1[0-5][0-9]\\.[0-9]{6} s \n";
        EXPECT_TRUE(test::matches(got, is_logged ? record : "no log")) << got;
    }
}

TEST_F(ClpHistory, IsNotedWhenTheProgramNameIsTraced)
{
    setenv("TRACE_SUBSYS", "ks/imsg", 1);
    setenv("TRACE_VERBOSITY", "1", 1);
    const test::ChildResult result = test::run_child([] {
        imsg_set_app_name("/bin/prog");
        return std::strncmp(clp_get_command(), "prog", 4);
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_NE(log().find(") prog "), std::string::npos) << log();
    unsetenv("TRACE_SUBSYS");
    unsetenv("TRACE_VERBOSITY");
}

TEST_F(ClpHistory, GoesOnBehindARecordThatWasCut)
{
    const auto write_three = [] {
        // The second does not fit any more, and the third not at all; neither ends the process.
        const rlimit limit{150, 150};
        setrlimit(RLIMIT_FSIZE, &limit);
        for (const char *tag : {"one", "two", "three"})
            clp_collectdatas(tag, std::string(60, 'x').c_str());
    };
    ASSERT_EQ(test::run_child(write_three).exit_status, 0);
    ASSERT_EQ(log().size(), 150u);
    ASSERT_EQ(test::run_child([] { return clp_collectdatas("four", "4"), 0; }).exit_status, 0);
    const std::string rest = log().substr(150);
    EXPECT_TRUE(test::matches(rest, "\n[0-9:.]+ four '4': \n")) << rest;
}

// Another writer, from its look at the file's end to the end of its write.
class Writer {
  public:
    explicit Writer(const std::string &path) : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600))
    {
        EXPECT_EQ(set(F_WRLCK), 0);
    }
    ~Writer() { close(fd_); }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;
    bool write_part(const std::string &part) { return write(fd_, part.data(), part.size()) > 0 && set(F_UNLCK) == 0; }

  private:
    int set(short type)
    {
        struct flock whole {};
        whole.l_type = type;
        return fcntl(fd_, F_OFD_SETLK, &whole);
    }
    int fd_;
};

TEST_F(ClpHistory, LooksAtTheEndWhenNobodyElseWrites)
{
    const test::ChildResult result = test::run_child([this] {
        Writer other(log_path());
        const int descriptors = test::open_descriptor_count();
        std::thread one([] { clp_collectdatas("tag", "text"); });
        while (test::open_descriptor_count() == descriptors)
            std::this_thread::yield();
        const bool is_cut = other.write_part("cut");
        one.join();
        const Writer stopped(log_path());
        clp_collectdatas("not", "waited for");
        return is_cut ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(without_stamps(log()), "cut\n@tag 'text': \n");
}

TEST_F(ClpHistory, TouchesNothingButARegularFileOfItsOwn)
{
    const std::string target = host_.file("precious");
    test::write_file(target, "mine");
    const std::pair<const char *, std::function<int()>> cases[] = {
        {"symbolic link", [&] { return symlink(target.c_str(), log_path().c_str()); }},
        {"second name", [&] { return link(target.c_str(), log_path().c_str()); }},
        {"pipe", [&] { return mkfifo(log_path().c_str(), 0600); }}, // neither waits nor fails
        {"no directory", [&] { return rmdir(host_.file("log").c_str()); }},
    };
    for (const auto &[name, prepare] : cases) {
        SCOPED_TRACE(name);
        ASSERT_EQ(prepare(), 0);
        const test::ChildResult result = test::run_child([] { return clp_collectdatas("tag", "text"), 0; }, 10000);
        EXPECT_TRUE(result.exit_status == 0 && result.err.empty()) << result.err;
        EXPECT_EQ(test::read_file(target), "mine");
        unlink(log_path().c_str());
    }
}

TEST_F(ClpHistory, IsNotKeptWithoutADataDirectoryOrRoomForItsPath)
{
    std::string deep = host_.path(); // of 1016 bytes: "/config" and "/log/ve" fit, what is behind them is cut off
    while (deep.size() < 1016) {
        deep += '/' + std::string(std::min<std::size_t>(99, 1015 - deep.size()), 'd');
        mkdir(deep.c_str(), 0755);
    }
    mkdir((deep + "/config").c_str(), 0755);
    mkdir((deep + "/log").c_str(), 0755);
    for (const std::string &directory : {std::string("/nonexistent"), deep}) {
        setenv("VELM_HOSTDATA_DIR", directory.c_str(), 1);
        EXPECT_EQ(records_of([] { log_words({"a"}); }), "no log");
    }
    EXPECT_NE(access((deep + "/log/ve").c_str(), F_OK), 0);
}

} // namespace
