// veldepot as its users run it: the real program, on real files.
#include <korvaks/fileutl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"

namespace {

using Words = std::vector<std::string>;
using test::ChildResult;

constexpr std::size_t header_bytes = 52;

// Becomes another program; comes back only when that fails.
int exec(Words words)
{
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    return 127;
}

ChildResult run_program(const Words &words)
{
    return test::run_child([&] { return exec(words); });
}

std::string random_bytes(std::size_t count, unsigned seed)
{
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}

class DepotTest : public testing::Test {
  protected:
    void SetUp() override
    {
        for (const char *name : {"NLSPATH", "VELDEPOT_DIR", "TRACE_SUBSYS", "PRINT_SUBSYS", "PRINT_SUBSYS_OK"})
            unsetenv(name);
        ASSERT_EQ(chdir(home_.path().c_str()), 0);
    }
    void TearDown() override { ASSERT_EQ(chdir("/"), 0); }

    // A run in the test's directory, on the depot "depot".
    static std::unique_ptr<test::Child> start(
        const Words &words, const std::function<void()> &prepare = [] {})
    {
        Words command{VELDEPOT_PROGRAM, "-d", "depot"};
        command.insert(command.end(), words.begin(), words.end());
        return std::make_unique<test::Child>([&]() -> int {
            prepare();
            return exec(command);
        });
    }

    static ChildResult run(
        const Words &words, const std::function<void()> &prepare = [] {})
    {
        return start(words, prepare)->finish();
    }

    // Runs a command that must succeed without a word on standard error.
    static std::string good(const Words &words)
    {
        const ChildResult result = run(words);
        EXPECT_EQ(result.exit_status, 0) << words[0] << ": " << result.err;
        EXPECT_EQ(result.err, "");
        return result.out;
    }

    static void put(const std::string &name, const std::string &content)
    {
        test::write_file(name, content);
        good({"put", "--", name});
    }

    // The content of an entry, by way of the program.
    static std::string content_of(const std::string &name)
    {
        good({"get", "-f", "-out", "fetched", "--", name});
        return test::read_file("fetched");
    }

    static Words asides()
    {
        Words names;
        for (const auto &entry : std::filesystem::directory_iterator("depot"))
            if (entry.path().extension() != ".vde")
                names.push_back(entry.path().filename());
        return names;
    }

    // Waits until `put` has made its file aside; it then waits for its pipe.
    static bool wait_for_aside(std::size_t count = 1)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            if (std::filesystem::exists("depot") && asides().size() == count)
                return true;
            std::this_thread::yield();
        }
        return false;
    }

    test::TempDir home_;
};

TEST_F(DepotTest, KeepsFilesWithTheirNamesContentsAndTimes)
{
    const std::pair<std::string, std::string> files[] = {
        {"empty", ""},
        {"one", "x"},
        {"words", "to be or not to be, that is the question\n"},
        {"noise", random_bytes(300000, 1)},
        {"zeros", std::string(100000, '\0')},
        {"-dash and blank", "1"},
        {"line\nfeed \033[31m \001\0011B", "2"},
        {"not utf-8: \xff", "3"},
        {".veldepot-0123456789abcdef", "4"},
        {"twice.vde.vde", "5"},
        {std::string(251, 'n'), "6"},
    };
    const timespec times[] = {{0, UTIME_NOW}, {1234567890, 987654321}};
    for (const auto &[name, content] : files) {
        put(name, content);
        ASSERT_EQ(utimensat(AT_FDCWD, name.c_str(), times, 0), 0);
        good({"put", "--", name});
        std::filesystem::remove(name);
    }
    EXPECT_EQ(good({"verify"}), "11 of 11 entries are sound.\n");
    for (const auto &[name, content] : files) {
        SCOPED_TRACE(name);
        good({"get", "--", name});
        EXPECT_EQ(test::read_file(name), content);
        struct stat status = {};
        ASSERT_EQ(stat(name.c_str(), &status), 0);
        EXPECT_EQ(status.st_mtim.tv_sec, times[1].tv_sec);
        EXPECT_EQ(status.st_mtim.tv_nsec, times[1].tv_nsec);
    }
    EXPECT_EQ(asides(), Words{});
}

TEST_F(DepotTest, WritesTheFormatThatIsWrittenDown)
{
    test::write_file("abc", "abc");
    const timespec times[] = {{0, UTIME_NOW}, {0x0102030405, 0x10203}};
    ASSERT_EQ(utimensat(AT_FDCWD, "abc", times, 0), 0);
    good({"put", "abc"});

    const auto big_endian = [](std::uint64_t number, int bytes) {
        std::string text;
        while (bytes-- > 0)
            text += static_cast<char>(number >> 8 * bytes);
        return text;
    };
    const auto checksum = [&](const std::string &bytes) {
        return big_endian(fileutl_crc_buffer(bytes.data(), bytes.size(), nullptr), 4);
    };
    const std::string block("\1\0\0\0\3abc", 8);
    std::string expected = "VELDEPOT" + big_endian(1, 4) + checksum("abc") + big_endian(3, 8) + big_endian(8, 8) +
                           big_endian(0x0102030405, 8) + big_endian(0x10203, 4) + checksum(block);
    expected += checksum(expected) + block;
    EXPECT_EQ(test::read_file("depot/abc.vde"), expected);
}

TEST_F(DepotTest, ListsInColumnsAndInOrder)
{
    put("zeros", std::string(1000, '\0'));
    put("A\tlong\\name", "");
    put("a", "abc");
    EXPECT_EQ(good({"list"}), "NAME                         SIZE          STORED  CHECKSUM\n"
                              "A\\011long\\134name               0               5  00000000\n"
                              "a                               3               8  b37f2436\n"
                              "zeros                        1000              78  861b9d08\n"
                              "3 in all                     1003              91\n");
}

TEST_F(DepotTest, NoticesEveryDamage)
{
    put("sound", "untouched");
    put("hurt", "some text that is some text");
    const std::string file = "depot/hurt.vde";
    const std::string whole = test::read_file(file);
    Words damaged;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        damaged.push_back(whole);
        damaged.back()[i] = static_cast<char>(whole[i] ^ (1 << i % 8));
    }
    for (const std::size_t size : {std::size_t{0}, std::size_t{7}, header_bytes - 1, header_bytes, whole.size() - 1})
        damaged.push_back(whole.substr(0, size));
    damaged.push_back(whole + '\0');
    damaged.push_back("a stranger's file");
    for (std::size_t i = 0; i < damaged.size(); ++i) {
        SCOPED_TRACE(i);
        test::write_file(file, damaged[i]);
        const ChildResult verified = run({"verify"});
        EXPECT_EQ(verified.exit_status, 1);
        EXPECT_EQ(verified.out, "1 of 2 entries are sound.\n");
        EXPECT_NE(verified.err.find("veldepot: Error: "), std::string::npos);
        EXPECT_NE(verified.err.find("\"hurt\""), std::string::npos) << verified.err;
    }
    EXPECT_EQ(run({"get", "hurt", "-o", "target"}).exit_status, 1);
    EXPECT_FALSE(std::filesystem::exists("target"));
    EXPECT_EQ(content_of("sound"), "untouched");
    const ChildResult listed = run({"list"});
    EXPECT_EQ(listed.exit_status, 1);
    EXPECT_NE(listed.out.find("\nsound "), std::string::npos) << "the rest is still listed";
}

TEST_F(DepotTest, SaysWhatIsWrongAndGoesOn)
{
    put("here", "1");
    test::write_file("depot/README", "");
    std::filesystem::create_directory("directory");
    ASSERT_EQ(symlink("here", "link"), 0);
    const struct {
        Words words;
        std::string error;
    } cases[] = {
        {{"put", "nowhere"}, "Error: Unable to read \"nowhere\": No such file or directory\n"},
        {{"put", "directory"}, "Error: \"directory\" is not a plain file.\n"},
        {{"put", "/dev/null"}, "Error: \"/dev/null\" is not a plain file.\n"},
        {{"put", "directory/"}, "Error: \"directory/\" cannot name an entry: "},
        {{"put", "."}, "Error: \".\" cannot name an entry: "},
        {{"put", "directory/.."}, "Error: \"directory/..\" cannot name an entry: "},
        {{"put", std::string(252, 'n')}, "cannot name an entry: "},
        {{"get", "nowhere"}, "Error: No entry \"nowhere\" in the depot.\n"},
        {{"get", "../here"}, "Error: \"../here\" cannot name an entry: "},
        {{"get", "here"}, "Error: \"here\" exists; use -f to replace it.\n"},
        {{"get", "here", "-f", "-o", "link"}, "Error: \"link\" is not a plain file.\n"},
        {{"get", "here", "-f", "-o", "/dev/null"}, "Error: \"/dev/null\" is not a plain file.\n"},
        {{"get", "here", "-o", "nowhere/x"}, "Error: Unable to write \"nowhere/x\": No such file or directory\n"},
        {{"remove", ""}, "Error: \"\" cannot name an entry: "},
        {{"remove", "nowhere"}, "Error: No entry \"nowhere\" in the depot.\n"},
        {{"verify", "here", "nowhere"}, "Error: No entry \"nowhere\" in the depot.\n"},
        {{"mend"}, "Error: Unknown command \"mend\"; try \"veldepot help\".\n"},
        {{"get"}, "Error: Too few arguments for \"get\"; try \"veldepot help\".\n"},
        {{"list", "x"}, "Error: Too many arguments for \"list\": \"x\"; try \"veldepot help\".\n"},
        {{"list", "-q"}, "Error: Bad option: \"-q\"; try \"veldepot help\".\n"},
        {{"list", "--quiet"}, "Error: Bad option: \"quiet\"; try \"veldepot help\".\n"},
        {{"list", "-o", "x"}, "Error: Bad option: \"-o\"; try \"veldepot help\".\n"},
        {{"get", "here", "-o"}, "Error: Option -o needs a value; try \"veldepot help\".\n"},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.words));
        const ChildResult result = run(one.words);
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_EQ(result.err.find("veldepot: "), 0u) << result.err;
        EXPECT_NE(result.err.find(one.error), std::string::npos) << result.err;
    }
    test::write_file("more", "2");
    EXPECT_EQ(run({"put", "nowhere", "more"}).out, "Stored \"more\": 1 bytes in 6.\n");
    EXPECT_EQ(run({"remove", "nowhere", "more"}).out, "Removed \"more\".\n");
    const ChildResult warned = run({"verify"});
    EXPECT_EQ(warned.exit_status, 0);
    EXPECT_EQ(warned.err, "veldepot: Warning: \"README\" in the depot's directory is not part of the depot.\n");
    EXPECT_EQ(run({"list"}, [] { dup2(open("/dev/full", O_WRONLY), 1); }).exit_status, 1);
}

TEST_F(DepotTest, TakesItsDepotFromTheEnvironmentAndCommandsCutOff)
{
    put("file", "1");
    std::filesystem::rename("depot", "other");
    const ChildResult none = run_program({VELDEPOT_PROGRAM, "list"});
    EXPECT_EQ(none.err, "veldepot: Error: No depot: give its directory with -d or in VELDEPOT_DIR.\n");
    setenv("VELDEPOT_DIR", "other", 1);
    EXPECT_EQ(run_program({VELDEPOT_PROGRAM, "V"}).out, "1 of 1 entries are sound.\n");
    unsetenv("VELDEPOT_DIR");
    EXPECT_EQ(run_program({VELDEPOT_PROGRAM, "v", "--dep", "other"}).out, "1 of 1 entries are sound.\n");
    EXPECT_NE(run({"list"}).err.find("Unable to open depot \"depot\": No such file or directory\n"), std::string::npos);
    for (const Words &words : {Words{VELDEPOT_PROGRAM}, Words{VELDEPOT_PROGRAM, "help"}}) {
        const ChildResult result = run_program(words);
        EXPECT_EQ(result.exit_status, 0);
        EXPECT_EQ(result.out.find("usage: veldepot "), 0u);
    }
}

TEST_F(DepotTest, SpeaksTheLanguageOfItsCatalogue)
{
    test::write_file("veldepot.msg", "$set 1\n$quote \"\n16 \"Kein Eintrag \\\"%s\\\".\\n\"\n");
    const ChildResult made = run_program({GENCAT_PROGRAM, "veldepot.cat", "veldepot.msg"});
    ASSERT_EQ(made.exit_status, 0) << made.err;
    setenv("NLSPATH", (home_.path() + "/%N.cat").c_str(), 1);
    put("file", "1");
    EXPECT_EQ(run({"get", "nowhere"}).err, "veldepot: Error: Kein Eintrag \"nowhere\".\n");
}

TEST_F(DepotTest, AFullDiskLeavesTheOldEntry)
{
    put("file", "old");
    test::write_file("file", random_bytes(100000, 2));
    const ChildResult result = run({"put", "file"}, [] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
    });
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "veldepot: Error: Unable to write \"file\": File too large\n");
    EXPECT_EQ(asides(), Words{});
    EXPECT_EQ(content_of("file"), "old");
}

TEST_F(DepotTest, AnInterruptLeavesNoHalfFile)
{
    put("pipe", "old");
    std::filesystem::remove("pipe");
    ASSERT_EQ(mkfifo("pipe", 0666), 0);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(signal);
        const auto child = start({"put", "pipe"});
        ASSERT_TRUE(wait_for_aside());
        const int writer = open("pipe", O_WRONLY);
        ASSERT_EQ(write(writer, "half", 4), 4);
        kill(child->pid(), signal);
        const ChildResult result = child->finish();
        close(writer);
        EXPECT_EQ(result.exit_status, 4) << result.err;
        EXPECT_EQ(asides(), Words{});
        EXPECT_EQ(content_of("pipe"), "old");
    }
}

TEST_F(DepotTest, RemovesWhatAKilledPutLeftAndNothingOfALivingOne)
{
    ASSERT_EQ(mkfifo("pipe", 0666), 0);
    const auto living = start({"put", "pipe"});
    ASSERT_TRUE(wait_for_aside());
    const Words of_living = asides();
    const auto killed = start({"put", "pipe"});
    ASSERT_TRUE(wait_for_aside(2));
    kill(killed->pid(), SIGKILL);
    killed->finish();
    EXPECT_EQ(good({"list"}).find(".veldepot"), std::string::npos);
    put("file", "1");
    EXPECT_EQ(asides(), of_living);

    const int writer = open("pipe", O_WRONLY);
    ASSERT_EQ(write(writer, "whole", 5), 5);
    close(writer);
    EXPECT_EQ(living->finish().exit_status, 0);
    EXPECT_EQ(content_of("pipe"), "whole");
    EXPECT_EQ(asides(), Words{});
}

TEST_F(DepotTest, AKillAtAnyMomentLeavesTheOldOrTheNewEntryWhole)
{
    const std::string old_content = random_bytes(400000, 3);
    const std::string new_content = random_bytes(500000, 4);
    std::mt19937 generator(5);
    using Clock = std::chrono::steady_clock;
    put("file", new_content);
    const auto begin = Clock::now();
    good({"put", "file"});
    const auto whole_run = Clock::now() - begin;
    int kept = 0;
    constexpr int rounds = 20;
    for (int round = 0; round < rounds; ++round) {
        put("file", old_content);
        test::write_file("file", new_content);
        const auto child = start({"put", "file"});
        const auto end = Clock::now() + whole_run * (generator() % 1000) / 1000;
        while (Clock::now() < end)
            std::this_thread::yield();
        kill(child->pid(), SIGKILL);
        child->finish();
        ASSERT_EQ(good({"verify"}), "1 of 1 entries are sound.\n");
        const std::string content = content_of("file");
        ASSERT_TRUE(content == old_content || content == new_content);
        kept += content == old_content ? 1 : 0;
    }
    EXPECT_GT(kept, 0) << "no kill came before the end";
    put("file", old_content);
    EXPECT_EQ(asides(), Words{});
}

TEST_F(DepotTest, SeveralAtOnceDamageNothing)
{
    constexpr int writers = 4;
    Words contents;
    for (int i = 0; i < writers; ++i) {
        const std::string directory = "from" + std::to_string(i);
        std::filesystem::create_directory(directory);
        contents.push_back(random_bytes(50000, static_cast<unsigned>(10 + i)));
        test::write_file(directory + "/file", contents.back());
    }
    for (int round = 0; round < 10; ++round) {
        std::vector<std::unique_ptr<test::Child>> children;
        for (int i = 0; i < writers; ++i)
            children.push_back(start({"put", "from" + std::to_string(i) + "/file"}));
        for (const auto &child : children) {
            const ChildResult result = child->finish();
            ASSERT_EQ(result.exit_status, 0) << result.err;
        }
        EXPECT_EQ(std::ranges::count(contents, content_of("file")), 1);
        EXPECT_EQ(asides(), Words{});
    }
}

} // namespace
