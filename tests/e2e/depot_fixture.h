// What the tests of veldepot share: the program run as its users run it, and its file format written
// down a second time.
#pragma once

#include <korvaks/fileutl.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>

#include <pwd.h>
#include <time.h>
#include <unistd.h>

#include "harness/child.h"

namespace test {

using Words = std::vector<std::string>;

// Becomes another program; comes back only when that fails.
inline int exec(Words words)
{
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    return 127;
}

inline ChildResult run_program(const Words &words)
{
    return run_child([&] { return exec(words); });
}

inline std::string big_endian(std::uint64_t number, int bytes)
{
    std::string text;
    while (bytes-- > 0)
        text += static_cast<char>(number >> 8 * bytes);
    return text;
}

inline std::string checksum(const std::string &bytes)
{
    return big_endian(fileutl_crc_buffer(bytes.data(), bytes.size(), nullptr), 4);
}

inline std::string with_checksum(const std::string &part)
{
    return part + checksum(part);
}

// The file of an entry that holds "abc", in the format as it is written down.
inline const std::string abc_block("\1\0\0\0\3abc", 8);

inline std::string first_part(unsigned version, const timespec &changed, std::uint64_t length = 3,
                              std::uint64_t stored_length = 8, const std::string &stored_checksum = checksum(abc_block))
{
    return with_checksum("VELDEPOT" + big_endian(version, 4) + checksum("abc") + big_endian(length, 8) +
                         big_endian(stored_length, 8) + big_endian(static_cast<std::uint64_t>(changed.tv_sec), 8) +
                         big_endian(static_cast<std::uint64_t>(changed.tv_nsec), 4) + stored_checksum);
}

// `mode` is of version 3 alone.
inline std::string second_fields(const timespec &stored, const std::string &owner, const std::string &comment,
                                 const std::string &mode = "")
{
    return big_endian(static_cast<std::uint64_t>(stored.tv_sec), 8) +
           big_endian(static_cast<std::uint64_t>(stored.tv_nsec), 4) + big_endian(owner.size(), 2) +
           big_endian(comment.size(), 2) + mode + owner + comment;
}

inline std::string second_part(const timespec &stored, const std::string &owner, const std::string &comment)
{
    return with_checksum(second_fields(stored, owner, comment));
}

// Version 3, with the block as it is given behind its head.
inline std::string entry_in_blocks(const timespec &changed, const std::string &fields, const std::string &block = "abc",
                                   std::uint64_t length = 3)
{
    const std::string stored = big_endian(block.size(), 4) + block;
    const std::string header = first_part(3, changed, length, 8 + block.size(), checksum(stored)) + fields;
    return header + checksum(header + header) + stored.substr(0, 4) + checksum(stored) + block;
}

inline std::string user_name()
{
    const passwd *const user = getpwuid(getuid());
    return user == nullptr ? std::to_string(getuid()) : user->pw_name;
}

inline std::string random_bytes(std::size_t count, unsigned seed)
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
        for (const char *name : {"NLSPATH", "VELDEPOT_DIR", "VELDEPOT_SERVER", "TRACE_SUBSYS", "PRINT_SUBSYS",
                                 "PRINT_SUBSYS_OK", "VELM_ISO_DATE_FMT", "VELM_HOSTDATA_DIR"})
            unsetenv(name);
        setenv("LC_ALL", "C", 1);
        setenv("TZ", "CET-1", 1);
        ASSERT_EQ(chdir(home_.path().c_str()), 0);
        where_ = {"-d", "depot"};
    }
    void TearDown() override { ASSERT_EQ(chdir("/"), 0); }

    // A daemon over the depot "depot", once it has logged its start.
    static std::unique_ptr<Child> start_daemon(const Words &options = {},
                                               const std::string &program = VELDEPOTD_PROGRAM)
    {
        std::filesystem::create_directory("depot");
        Words command{program, "-d", "depot"};
        command.insert(command.end(), options.begin(), options.end());
        auto daemon = std::make_unique<Child>([&] { return exec(command); });
        EXPECT_TRUE(is_logged("veldepotd 1.0.0 started, pid " + std::to_string(daemon->pid()) + ": depot \"depot\""));
        return daemon;
    }

    // One that serves it, which is what runs work on from then on.
    static std::unique_ptr<Child> start_server(const Words &options = {})
    {
        std::filesystem::remove("depot.log");
        Words serving{"-s", "127.0.0.1:0"};
        serving.insert(serving.end(), options.begin(), options.end());
        auto daemon = start_daemon(serving);
        EXPECT_TRUE(is_logged(", over TCP and UDP"));
        const std::string at = "Serving at ";
        const std::size_t start = log().find(at) + at.size();
        where_ = {"-server", log().substr(start, log().find(',', start) - start)};
        return daemon;
    }

    static std::string log() { return std::filesystem::exists("depot.log") ? read_file("depot.log") : ""; }

    // Waits until a record holds the text.
    static bool is_logged(const std::string &text)
    {
        for (int tries = 0; tries < 2000; ++tries) {
            if (log().find(text) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ADD_FAILURE() << "\"" << text << "\" is not in:\n" << log();
        return false;
    }

    // A run in the test's directory, on the depot "depot".
    static std::unique_ptr<Child> start(
        const Words &words, const std::function<void()> &prepare = [] {})
    {
        Words command{VELDEPOT_PROGRAM};
        command.insert(command.end(), where_.begin(), where_.end());
        command.insert(command.end(), words.begin(), words.end());
        return std::make_unique<Child>([&]() -> int {
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
        write_file(name, content);
        good({"put", "--", name});
    }

    static void put_entry_file(const std::string &name, const std::string &bytes)
    {
        std::filesystem::create_directory("depot");
        write_file("depot/" + name + ".vde", bytes);
    }

    // Three entries whose dates are known, of both older versions of the format.
    static void make_dated_entries()
    {
        put_entry_file("old.txt", first_part(1, {1709643839, 0}) + abc_block); // 2024-03-05 14:03:59 in Prague
        put_entry_file("new one", first_part(2, {1234567890, 0}) + second_part({1767225599, 0}, "ann", "") + abc_block);
        put_entry_file("new.txt", first_part(2, {-1, 0}) +
                                      second_part({1767225600, 999999999}, "bo\x1b", "first \xff\nsecond") + abc_block);
    }

    // The content of an entry, by way of the program.
    static std::string content_of(const std::string &name)
    {
        good({"get", "-f", "-out", "fetched", "--", name});
        return read_file("fetched");
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

    TempDir home_;
    static inline Words where_{"-d", "depot"};
};

// The depot "depot", in each way in which it can be reached.
class EveryDepot : public DepotTest, public testing::WithParamInterface<const char *> {
  protected:
    void SetUp() override
    {
        DepotTest::SetUp();
        if (GetParam() == std::string("local"))
            return;
        server_ = start_server({"-t", GetParam() == std::string("threads") ? "4" : "0"});
        setenv("VELDEPOT_SERVER", where_[1].c_str(), 1);
        where_.clear();
    }
    void TearDown() override
    {
        if (server_ != nullptr) {
            kill(server_->pid(), SIGTERM);
            EXPECT_EQ(server_->finish().exit_status, 0) << log();
        }
        DepotTest::TearDown();
    }

    std::unique_ptr<Child> server_;
};

inline const auto every_way = testing::Values("local", "loop", "threads");
inline const auto name_of_way = [](const auto &way) { return std::string(way.param); };

} // namespace test
