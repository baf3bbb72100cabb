#include <korvaks/fileutl.h>

#include <algorithm>
#include <array>
#include <random>

#include <fcntl.h>
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
        {{0, 0}, 0x3F4593AD},
        {Bytes(digits.begin(), digits.end()), 0xFC9E4DC1},
        {rising, 0x9EFCC591},
    };
    for (const auto &[bytes, expected] : cases) {
        SCOPED_TRACE(bytes.size());
        uint32_t crc = 1;
        EXPECT_EQ(fileutl_crc_buffer(bytes.data(), bytes.size(), &crc), expected);
        EXPECT_EQ(crc, expected);
    }
    EXPECT_EQ(fileutl_crc_buffer(nullptr, 0, nullptr), 0u);
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
        std::mt19937 random(4);
        const Bytes content = zero_index_bytes(size, 0.01, random);
        test::write_file(path, std::string(content.begin(), content.end()));
        uint32_t crc = 1;
        int error = -1;
        const int before = test::open_descriptor_count();
        EXPECT_EQ(fileutl_crc(path.c_str(), &crc, &error), 0);
        EXPECT_EQ(test::open_descriptor_count(), before);
        EXPECT_EQ(crc, crc_of(content));

        const int fd = open(path.c_str(), O_RDONLY);
        const std::size_t rest = size - size / 3;
        EXPECT_EQ(lseek(fd, -static_cast<off_t>(rest), SEEK_END), static_cast<off_t>(size / 3));
        for (const std::size_t expected : {rest, std::size_t{0}}) { // the second time it stands at the end
            uint64_t bytes = 1;
            EXPECT_EQ(fileutl_crc_fd(fd, &crc, &bytes, &error), 0);
            EXPECT_EQ(bytes, expected);
            EXPECT_EQ(crc, crc_of(Bytes(content.end() - static_cast<std::ptrdiff_t>(expected), content.end())));
        }
        EXPECT_EQ(error, -1);
        close(fd);
    }
}

} // namespace
