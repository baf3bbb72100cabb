#include "bench_input.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace bench {

namespace {

constexpr std::size_t word_count = 2000;
constexpr std::size_t line_columns = 80;
constexpr std::size_t block_size = 512;

std::vector<std::string> make_words(Random &random)
{
    std::vector<std::string> words;
    while (words.size() < word_count) {
        std::string word;
        const std::size_t length = 2 + words.size() / 250 + random.below(4);
        while (word.size() < length) {
            word += "bcdfghklmnprstvw"[random.below(16)];
            word += "aeiou"[random.below(5)];
        }
        words.push_back(word);
    }
    return words;
}

// The product of two even choices prefers the front of the list, as languages do.
const std::string &frequent_word(const std::vector<std::string> &words, Random &random)
{
    return words[random.below(word_count) * random.below(word_count) / word_count];
}

std::string header(std::size_t number, std::size_t size)
{
    std::string block(block_size, '\0');
    char text[128];
    std::snprintf(text, sizeof text, "src/part%zu/file_%05zu.txt", number % 17, number);
    block.replace(0, std::string(text).size(), text);
    std::snprintf(text, sizeof text, "%07o", 0644u);
    block.replace(100, 7, text);
    std::snprintf(text, sizeof text, "%011zo", size);
    block.replace(124, 11, text);
    std::snprintf(text, sizeof text, "%011zo", 1700000000 + number * 61);
    block.replace(136, 11, text);
    block.replace(257, 5, "ustar");
    return block;
}

} // namespace

std::string prose(std::size_t size)
{
    Random random(0x9E3779B97F4A7C15);
    const std::vector<std::string> words = make_words(random);
    std::string text;
    std::size_t line_start = 0;
    while (text.size() < size) {
        text += frequent_word(words, random);
        if (random.below(9) == 0)
            text += random.below(3) == 0 ? '.' : ',';
        const bool line_ends = text.size() - line_start > line_columns;
        text += line_ends ? '\n' : ' ';
        if (line_ends)
            line_start = text.size();
    }
    text.resize(size);
    return text;
}

std::string archive(std::size_t size)
{
    const std::string text = prose(size);
    Random random(0xD1B54A32D192ED03);
    std::string members;
    for (std::size_t number = 0; members.size() < size; ++number) {
        const std::size_t length = std::min(text.size(), 200 + random.below(20000));
        members += header(number, length);
        members += text.substr(random.below(text.size() - length + 1), length);
        members.resize((members.size() + block_size - 1) / block_size * block_size);
    }
    members.resize(size);
    return members;
}

} // namespace bench
