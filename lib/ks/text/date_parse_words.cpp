// The words of the traditional grammar, from the catalogue, and texts made ready to be compared with
// them.
#include "text/date_impl.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>
#include <korvaks/tls_impl.h>
#include <korvaks/vlthread.h>

#include <cstring>

namespace ks::date {

namespace {

constexpr std::size_t usage_size = 1024;

constinit Words words{}; // written once, by date_init()
constinit vlthread_once_t words_once = VLTHREAD_ONCE_INIT;

// False for a text that is empty, or longer than any word is.
bool set_word(Word &out, const char *text)
{
    if (*text == '\0' || std::strlen(text) >= sizeof out.shown ||
        strutl_cvt_case_string(text, 1, sizeof out.upper, out.upper) == 0)
        return false;
    std::memcpy(out.shown, text, std::strlen(text) + 1);
    out.upper_length = std::strlen(out.upper);
    return true;
}

void fetch(unsigned number)
{
    char text[sizeof(Word::shown) + 1];
    Word &word = words[number];
    const int length = imsg_snprintf(text, sizeof text, &_date_ks_msg_table, static_cast<int>(number));
    if (length < 0 || !set_word(word, text))
        (void)set_word(word, _date_ks_msg_table.default_texts[number]); // no default is empty or too long
}

// The text describes the grammar and is no part of it.
bool is_word(unsigned number)
{
    return number != date_msg_usage;
}

extern "C" void date_init(void)
{
    for (unsigned number = 0; number < words.size(); ++number) {
        if (is_word(number))
            fetch(number);
    }
}

// Capitals of ASCII; every white space is a blank.
constexpr auto folded_bytes = [] {
    std::array<char, 256> bytes{};
    for (unsigned i = 0; i < bytes.size(); ++i) {
        const bool is_small = i >= 'a' && i <= 'z';
        const bool is_space = i >= '\t' && i <= '\r';
        bytes[i] = static_cast<char>(is_space ? ' ' : is_small ? i - 'a' + 'A' : i);
    }
    return bytes;
}();

char fold_byte(char c)
{
    return folded_bytes[static_cast<unsigned char>(c)];
}

// What the bytes of a text have among them.
struct Seen {
    bool is_ascii;
    bool has_blank;
};

Seen fold_ascii(std::string_view text, char *out)
{
    unsigned char all = 0;
    bool has_blank = false;
    for (const char c : text) {
        const char folded = fold_byte(c);
        *out++ = folded;
        all |= static_cast<unsigned char>(folded);
        has_blank |= folded == ' ';
    }
    *out = '\0';
    return {all < 0x80, has_blank};
}

} // namespace

const Words &date_words()
{
    (void)vlthread_once(&words_once, date_init); // cannot fail
    return words;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && fold_byte(text.front()) == ' ')
        text.remove_prefix(1);
    while (!text.empty() && fold_byte(text.back()) == ' ')
        text.remove_suffix(1);
    return text;
}

bool fold(std::string_view text, char *room, std::string_view &out_text)
{
    const Seen seen = fold_ascii(text, room);
    out_text = {room, text.size()};
    if (seen.is_ascii || seen.has_blank)
        return !seen.has_blank;
    char copy[read_size]; // ends where the text does
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    if (strutl_cvt_case_string(copy, 1, read_size, room) == 0)
        return false;
    out_text = room;
    return true;
}

} // namespace ks::date

extern "C" {

char *date_usage_date_time(void)
{
    ks_tls *tls = ks_tls_get();
    char *&text = tls->date.usage;
    if (text == nullptr)
        text = static_cast<char *>(stg_alloc_nr(tls->area, ks::date::usage_size));
    if (text == nullptr)
        return nullptr;
    std::size_t size = 0;
    for (const auto number : {date_msg_usage, date_msg_usage_iso}) {
        text[size] = '\0';
        if (imsg_snprintf(text + size, ks::date::usage_size - size, &_date_ks_msg_table, static_cast<int>(number)) < 0)
            text[size] = '\0';
        size += std::strlen(text + size);
    }
    return text;
}
}
