// veldepot's depots: what it keeps, and what nothing that happens to it may damage.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <random>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "e2e/depot_fixture.h"

namespace {

using test::abc_block;
using test::ChildResult;
using test::DepotTest;
using test::entry_in_blocks;
using test::EveryDepot;
using test::first_part;
using test::random_bytes;
using test::second_fields;
using test::second_part;
using test::user_name;
using test::Words;

TEST_P(EveryDepot, KeepsFilesWithTheirNamesContentsAndTimes)
{
    const std::pair<std::string, std::string> files[] = {{"empty", ""},
                                                         {"one", "x"},
                                                         {"words", "to be or not to be, that is the question\n"},
                                                         {"noise", random_bytes(300000, 1)},
                                                         {"zeros", std::string(100000, '\0')},
                                                         {"-dash and blank", "1"},
                                                         {"line\nfeed \033[31m \001\0011B", "2"},
                                                         {"two  blanks and 'it\"s' \"", "7"},
                                                         {"*", "8"},
                                                         {"not utf-8: \xff", "3"},
                                                         {".veldepot-0123456789abcdef", "4"},
                                                         {"twice.vde.vde", "5"},
                                                         {std::string(251, 'n'), "6"}};
    const timespec times[] = {{0, UTIME_NOW}, {1234567890, 987654321}};
    for (const auto &[name, content] : files) {
        put(name, content);
        ASSERT_EQ(utimensat(AT_FDCWD, name.c_str(), times, 0), 0);
        good({"put", "--", name});
        std::filesystem::remove(name);
    }
    EXPECT_EQ(good({"verify"}), "13 of 13 entries are sound.\n");
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

TEST_P(EveryDepot, WritesTheFormatThatIsWrittenDown)
{
    test::write_file("abc", "abc");
    ASSERT_EQ(chmod("abc", 0755), 0);
    const timespec times[] = {{0, UTIME_NOW}, {0x0102030405, 0x10203}};
    ASSERT_EQ(utimensat(AT_FDCWD, "abc", times, 0), 0);
    const time_t before = time(nullptr);
    good({"put", "-comment", "why not", "-c", "\xff", "abc"});
    const time_t after = time(nullptr);

    const std::string bytes = test::read_file("depot/abc.vde");
    constexpr std::size_t first = 52;
    ASSERT_GT(bytes.size(), first + 12);
    timespec stored = {};
    for (std::size_t i = 0; i < 12; ++i) {
        auto &field = i < 8 ? stored.tv_sec : stored.tv_nsec;
        field = field << 8 | static_cast<unsigned char>(bytes[first + i]);
    }
    EXPECT_GE(stored.tv_sec, before - 1); // time() may lag behind by a tick
    EXPECT_LE(stored.tv_sec, after + 1);
    EXPECT_EQ(bytes, entry_in_blocks(times[1], second_fields(stored, user_name(), "why not\n\xff", "\1\355")));
}

TEST_P(EveryDepot, ReadsEntriesOfTheOlderVersions)
{
    put_entry_file("older", first_part(2, {1, 2}) + second_part({3, 4}, "o", "c") + abc_block);
    EXPECT_EQ(content_of("older"), "abc");
    good({"remove", "older"});
    put_entry_file("old", first_part(1, {1234567890, 5}) + abc_block);
    EXPECT_EQ(content_of("old"), "abc");
    struct stat status = {};
    ASSERT_EQ(stat("fetched", &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1234567890);
    EXPECT_EQ(good({"list", "-fmt", "%d %m %u '%c'"}), "2009-02-14T00:31:30+01:00 2009-02-14T00:31:30+01:00 - ''");
}

TEST_P(EveryDepot, ListsInColumnsAndInOrder)
{
    put("zeros", std::string(1000, '\0'));
    put("a", "abc");
    put(std::string(41, 'l'), "");
    EXPECT_EQ(good({"list"}), "NAME                SIZE          STORED  CHECKSUM\n"
                              "a                      3              11  b37f2436\n" +
                                  std::string(41, 'l') +
                                  "               0               0  00000000\n"
                                  "zeros               1000              86  861b9d08\n"
                                  "3 in all            1003              97\n");
}

TEST_P(EveryDepot, NoticesEveryDamage)
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
    for (std::size_t size = 0; size < whole.size(); ++size)
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

TEST_P(EveryDepot, SaysWhatIsWrongAndGoesOn)
{
    put("here", "1");
    test::write_file("depot/README", "");
    std::filesystem::create_directory("directory");
    ASSERT_EQ(symlink("here", "link"), 0);
    const struct {
        Words words;
        std::string error;
        int exit_status = 1;
    } cases[] = {
        {{"put", "nowhere"}, "Error: Unable to read \"nowhere\": No such file or directory\n"},
        {{"put", "directory"}, "Error: \"directory\" is not a plain file.\n"},
        {{"put", "directory/"}, "Error: \"directory/\" cannot name an entry: "},
        {{"put", "."}, "Error: \".\" cannot name an entry: "},
        {{"put", std::string(252, 'n')}, "cannot name an entry: "},
        {{"get", "nowhere"}, "Error: No entry \"nowhere\" in the depot.\n"},
        {{"get", "../here"}, "Error: \"../here\" cannot name an entry: "},
        {{"get", "here"}, "Error: \"here\" exists; use -f to replace it.\n"},
        {{"get", "here", "-f", "-o", "link"}, "Error: \"link\" is not a plain file.\n"},
        {{"get", "here", "-o", "nowhere/x"}, "Error: Unable to write \"nowhere/x\": No such file or directory\n"},
        {{"verify", "here", "nowhere"}, "Error: No entry \"nowhere\" in the depot.\n"},
        {{"list", "he*", "nowhere", "*x"},
         "No entry \"nowhere\" in the depot.\nveldepot: Error: No entry matches \"*x\".\n"},
        {{"put", "-nr", "here"}, "Error: Entry \"here\" exists and was not replaced.\n"},
        {{"put", "-c", std::string(1023, 'c'), "-c", "", "here"},
         "The comment is too long: it may have 1023 bytes.\n",
         2},
        {{"put", "more", "directory/here", "here"},
         "Two files of one name: \"directory/here\" and \"here\"; nothing was stored.\n",
         2},
        {{"put", "-"}, "\"-\" is standard input, whose entry needs a -name", 2},
        {{"get", "here", "h*", "nowhere"}, "No entry \"nowhere\" in the depot.\n"},
        {{"put", "-d", "nowhere/depot", "here"}, "Unable to make depot \"nowhere/depot\": No such file or directory\n"},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(testing::PrintToString(one.words));
        const ChildResult result = run(one.words);
        EXPECT_EQ(result.exit_status, one.exit_status);
        EXPECT_EQ(result.err.find("veldepot: "), 0u) << result.err;
        EXPECT_NE(result.err.find(one.error), std::string::npos) << result.err;
    }
    EXPECT_EQ(run({"list", "-s", "nowhere", "h?re"}).out, "here\n");
    test::write_file("more", "2");
    EXPECT_EQ(run({"put", "nowhere", "more"}).out, "Stored \"more\": 1 bytes in 9.\n");
    EXPECT_EQ(run({"remove", "nowhere", "more"}).out, "Removed \"more\".\n");
    const ChildResult warned = run({"verify"});
    EXPECT_EQ(warned.exit_status, 0);
    EXPECT_EQ(warned.err, "veldepot: Warning: \"README\" in the depot's directory is not part of the depot.\n");
    EXPECT_FALSE(std::filesystem::exists("nowhere"));
}

TEST_P(EveryDepot, AnInterruptLeavesNoHalfFile)
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
        EXPECT_EQ(result.signal, signal) << result.err;
        EXPECT_EQ(asides(), Words{});
        EXPECT_EQ(content_of("pipe"), "old");
    }
}

TEST_P(EveryDepot, AFileThatChangesWhileItIsReadIsNotStored)
{
    put("file", "old");
    for (const bool grows : {true, false}) {
        SCOPED_TRACE(grows);
        std::filesystem::resize_file("file", 64 << 20);
        const auto child = start({"put", "file"});
        ASSERT_TRUE(wait_for_aside());
        kill(child->pid(), SIGSTOP);
        ASSERT_TRUE(child->wait_for_stop(SIGSTOP));
        if (grows)
            std::filesystem::resize_file("file", 65 << 20);
        else
            ASSERT_EQ(utimensat(AT_FDCWD, "file", nullptr, 0), 0);
        kill(child->pid(), SIGCONT);
        const ChildResult result = child->finish();
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_EQ(result.err, "veldepot: Error: \"file\" changed while it was read, and was not stored.\n");
        EXPECT_EQ(asides(), Words{});
        EXPECT_EQ(content_of("file"), "old");
    }
}

TEST_P(EveryDepot, FetchesByNameAndPatternAndGivesExecutableBitsBack)
{
    const std::string left_behind = ".veldepot-0123456789abcdef"; // whatever it is, it is the user's
    for (const std::string name : {"a1", "a2", "*", "other", "[o-"})
        put(name, name);
    for (const std::string name : {"a1", "a2", "other", "[o-"})
        std::filesystem::remove(name);
    test::write_file(left_behind, "");
    ASSERT_EQ(chmod("*", 0751), 0);
    umask(022);
    good({"put", "*"});
    EXPECT_EQ(good({"get", "-f", "a?", "a*", "*"}), "Fetched \"*\" into \"*\".\nFetched \"a1\" into \"a1\".\n"
                                                    "Fetched \"a2\" into \"a2\".\n");
    EXPECT_EQ(good({"get", "[o-", "-o", "-"}), "[o-");
    EXPECT_EQ(run({"get", "a?", "-o", "-"}).err,
              "veldepot: Error: With -out one entry is fetched; nothing was written to \"-\".\n");
    struct stat status = {};
    ASSERT_EQ(stat("*", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0751u);
    ASSERT_EQ(stat("a1", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_EQ(good({"remove", "*", "a*"}), "Removed \"*\".\nRemoved \"a1\".\nRemoved \"a2\".\n");
    EXPECT_EQ(good({"list", "-0"}), std::string("[o-\0other\0", 10));
    EXPECT_TRUE(std::filesystem::exists(left_behind));
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

INSTANTIATE_TEST_SUITE_P(Reached, EveryDepot, test::every_way, test::name_of_way);

} // namespace
