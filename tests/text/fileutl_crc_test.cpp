#include <korvaks/fileutl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "harness/child.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The definition, byte by byte.
struct Model {
    uint32_t crc = 0;
    uint32_t counter = 0;

    static uint32_t entry(uint32_t i)
    {
        if (i == 0)
            return 0x7FFFFFFF;
        for (int bit = 0; bit < 8; ++bit)
            i = i >> 1 ^ ((i & 1) != 0 ? 0xEDB88320 : 0);
        return i;
    }

    void add(unsigned char byte)
    {
        static const auto table = [] {
            std::array<uint32_t, 256> entries{};
            for (uint32_t i = 0; i < 256; ++i)
                entries[i] = entry(i);
            return entries;
        }();
        uint32_t index = crc >> 24 ^ byte;
        if (index == 0) {
            index = counter;
            counter = (counter + 1) % 256;
        }
        crc = crc << 8 ^ table[index];
    }

    void add(const unsigned char *bytes, std::size_t length)
    {
        for (std::size_t i = 0; i < length; ++i)
            add(bytes[i]);
    }
};

// Bytes each of which gives index 0 with the given likelihood.
Bytes zero_index_bytes(std::size_t length, double likelihood, std::mt19937 &random, Model state = {})
{
    Bytes bytes(length);
    std::bernoulli_distribution hit(likelihood);
    for (auto &byte : bytes) {
        byte = static_cast<unsigned char>(hit(random) ? state.crc >> 24 : random());
        state.add(byte);
    }
    return bytes;
}

uint32_t crc_of(const Bytes &bytes)
{
    return fileutl_crc_buffer(bytes.data(), bytes.size(), nullptr);
}

TEST(FileutlCrc, GoldenValues)
{
    Bytes rising;
    for (int i = 0; i < 64 * 256; ++i)
        rising.push_back(static_cast<unsigned char>(i));
    const std::string digits = "123456789";
    const std::pair<Bytes, uint32_t> cases[] = {
        {{}, 0},
        {{0}, 0x7FFFFFFF},
        {{0, 0}, 0x3F4593AD},
        {{'a'}, 0x3AB551CE},
        {Bytes(digits.begin(), digits.end()), 0xFC9E4DC1},
        {Bytes(1000, 0), 0x861B9D08},
        {rising, 0x9EFCC591},
        {Bytes(100000, 0xFF), 0xEE996B25},
    };
    for (const auto &[bytes, expected] : cases) {
        SCOPED_TRACE(bytes.size());
        uint32_t crc = 1;
        EXPECT_EQ(fileutl_crc_buffer(bytes.data(), bytes.size(), &crc), expected);
        EXPECT_EQ(crc, expected);
    }
    EXPECT_EQ(fileutl_crc_buffer(nullptr, 0, nullptr), 0u);
}

TEST(FileutlCrc, CounterTakesThePlaceOfIndexZeroAndWraps)
{
    const struct {
        std::size_t events;
        uint32_t crc;
        uint32_t counter;
    } cases[] = {{1, 0x7FFFFFFF, 1},   {2, 0x88F8CF96, 2},   {255, 0x7CBC7E1B, 255},
                 {256, 0x917CF48D, 0}, {257, 0x030B72FF, 1}, {1000, 0x20DE3ADB, 232}};
    std::mt19937 random(1);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.events);
        const Bytes bytes = zero_index_bytes(c.events, 1.0, random);
        uint32_t counter = 0;
        uint32_t crc = 0;
        EXPECT_EQ(fileutl_crc_buffer_step(bytes.data(), bytes.size(), &counter, &crc), c.crc);
        EXPECT_EQ(crc, c.crc);
        EXPECT_EQ(counter, c.counter);
    }
}

// Buffers of every kind, from every state, in random pieces.
TEST(FileutlCrc, AgreesWithTheDefinition)
{
    std::mt19937 random(2);
    std::size_t compared = 0;
    for (int round = 0; round < 30000; ++round) {
        const double likelihood = std::array{0.0, 1.0 / 256, 0.05, 0.5, 1.0}[random() % 5];
        const std::size_t length = random() % (round % 100 == 0 ? 5000 : 40);
        Model model{static_cast<uint32_t>(random()), static_cast<uint32_t>(random() % 256)};
        uint32_t crc = model.crc;
        uint32_t counter = model.counter;
        const Bytes bytes = zero_index_bytes(length, likelihood, random, model);
        for (std::size_t at = 0; at < length;) {
            const std::size_t piece = std::min<std::size_t>(random() % 24, length - at);
            model.add(bytes.data() + at, piece);
            ASSERT_EQ(fileutl_crc_buffer_step(bytes.data() + at, piece, &counter, &crc), model.crc) << round;
            ASSERT_EQ(counter, model.counter) << round;
            at += piece;
            compared += piece;
        }
        Model whole;
        whole.add(bytes.data(), length);
        ASSERT_EQ(crc_of(bytes), whole.crc) << round;
    }
    EXPECT_GT(compared, 1000000u);
}

// Every position of one and of two index-0 events around a block of any width.
TEST(FileutlCrc, EventsAtEveryPlace)
{
    std::mt19937 random(3);
    constexpr std::size_t length = 36;
    for (std::size_t first = 0; first < length; ++first) {
        for (std::size_t second = first; second < length; ++second) {
            Model model{0x12345678, 254};
            uint32_t counter = model.counter;
            uint32_t crc = model.crc;
            Bytes bytes;
            for (std::size_t i = 0; i < length; ++i) {
                const uint32_t top = model.crc >> 24;
                const bool is_event = i == first || i == second;
                bytes.push_back(static_cast<unsigned char>(is_event ? top : top ^ (1 + random() % 255)));
                model.add(bytes.back());
            }
            fileutl_crc_buffer_step(bytes.data(), length, &counter, &crc);
            ASSERT_EQ(crc, model.crc) << first << " " << second;
            ASSERT_EQ(counter, model.counter) << first << " " << second;
        }
    }
}

TEST(FileutlCrc, CounterCountsModulo256AndRestsWithoutData)
{
    uint32_t counter = 0xFFFFFF00;
    uint32_t crc = 0;
    EXPECT_EQ(fileutl_crc_buffer_step(nullptr, 0, &counter, &crc), 0u);
    EXPECT_EQ(counter, 0xFFFFFF00);
    const unsigned char zero = 0;
    EXPECT_EQ(fileutl_crc_buffer_step(&zero, 1, &counter, &crc), 0x7FFFFFFFu);
    EXPECT_EQ(counter, 1u);
}

TEST(FileutlCrcFile, FromTheDescriptorsPositionToTheEnd)
{
    const test::TempDir dir;
    const std::string path = dir.file("data");
    for (const std::size_t size : {0u, 1u, 8191u, 8192u, 8193u, 100000u}) {
        SCOPED_TRACE(size);
        std::string content(size, '\0');
        std::mt19937 random(4);
        for (char &c : content)
            c = static_cast<char>(random());
        test::write_file(path, content);

        uint32_t crc = 1;
        int error = -1;
        const int before = test::open_descriptor_count();
        EXPECT_EQ(fileutl_crc(path.c_str(), &crc, &error), 0);
        EXPECT_EQ(test::open_descriptor_count(), before);
        EXPECT_EQ(crc, fileutl_crc_buffer(content.data(), size, nullptr));

        const int fd = open(path.c_str(), O_RDONLY);
        const std::size_t skipped = size / 3;
        ASSERT_EQ(lseek(fd, static_cast<off_t>(skipped), SEEK_SET), static_cast<off_t>(skipped));
        uint64_t bytes = 1;
        EXPECT_EQ(fileutl_crc_fd(fd, &crc, &bytes, &error), 0);
        EXPECT_EQ(bytes, size - skipped);
        EXPECT_EQ(crc, fileutl_crc_buffer(content.data() + skipped, size - skipped, nullptr));
        EXPECT_EQ(fileutl_crc_fd(fd, &crc, &bytes, &error), 0);
        EXPECT_EQ(crc, 0u);
        EXPECT_EQ(bytes, 0u);
        EXPECT_EQ(error, -1);
        close(fd);
    }
}

TEST(FileutlCrcFile, FailuresStoreOnlyTheCause)
{
    const test::TempDir dir;
    uint32_t crc = 7;
    uint64_t bytes = 7;
    int error = 0;
    EXPECT_EQ(fileutl_crc(dir.file("absent").c_str(), &crc, &error), FILEUTL_CRC_FAILED);
    EXPECT_EQ(error, ENOENT);
    const int before = test::open_descriptor_count();
    EXPECT_EQ(fileutl_crc(dir.path().c_str(), &crc, &error), FILEUTL_CRC_FAILED);
    EXPECT_EQ(error, EISDIR);
    EXPECT_EQ(test::open_descriptor_count(), before);
    EXPECT_EQ(fileutl_crc_fd(-1, &crc, &bytes, &error), FILEUTL_CRC_FAILED);
    EXPECT_EQ(error, EBADF);
    EXPECT_EQ(crc, 7u);
    EXPECT_EQ(bytes, 7u);
}

} // namespace
