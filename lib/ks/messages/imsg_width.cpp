// Text measured and cut for display, character by character in the process locale.
#include "messages/imsg_impl.h"

#include <korvaks/evutl.h>
#include <korvaks/strutl.h>

#include <climits>
#include <cstring>

#include <cwchar>

namespace {

constexpr int default_tab_size = 8;

struct Character {
    std::size_t bytes; // 0 at the end of the text
    int columns;
};

Character first_character(const char *s)
{
    const int bytes = strutl_mblen(s, MB_CUR_MAX);
    return {static_cast<std::size_t>(bytes), imsg_disp_width(s, bytes)};
}

// A text that may end only between characters.
class BoundedText {
  public:
    BoundedText(char *out, std::size_t size) : at_(out), left_(size) { terminate(); }

    // False, and nothing changed, when they do not all fit.
    bool add(const char *bytes, std::size_t count)
    {
        if (count >= left_)
            return false;
        std::memcpy(at_, bytes, count);
        at_ += count;
        left_ -= count;
        terminate();
        return true;
    }

    bool add_blanks(std::size_t count)
    {
        if (count >= left_)
            return false;
        std::memset(at_, ' ', count);
        at_ += count;
        left_ -= count;
        terminate();
        return true;
    }

  private:
    void terminate()
    {
        if (left_ > 0)
            *at_ = '\0';
    }

    char *at_;
    std::size_t left_;
};

// VELLUM_TAB_SIZE, read once. Threads that come at the same time read the same.
int process_tab_size()
{
    static constinit std::atomic<int> tab_size{0};
    int size = tab_size.load(std::memory_order_relaxed);
    if (size != 0)
        return size;
    char text[ks::imsg::env_size];
    long value = 0;
    if (getenv_safe("VELLUM_TAB_SIZE", text, sizeof text, 0) == nullptr || strutl_strtol(text, 10, &value) != 0 ||
        value < 1 || value > INT_MAX)
        value = default_tab_size;
    size = static_cast<int>(value);
    tab_size.store(size, std::memory_order_relaxed);
    return size;
}

// Where the line of an expansion stands.
struct Line {
    long tab_size;
    long column; // from 0, at the start of the line proper
    long end_column;
};

// Copies one character of a line, a tab as blanks; false when it fits neither the columns nor `out`.
bool copy_expanded(const char *src, const Character &character, Line &line, BoundedText *out)
{
    const bool is_tab = *src == '\t';
    const long columns = is_tab ? line.tab_size - line.column % line.tab_size : character.columns;
    if (columns > line.end_column - line.column)
        return false;
    if (out != nullptr &&
        !(is_tab ? out->add_blanks(static_cast<std::size_t>(columns)) : out->add(src, character.bytes)))
        return false;
    line.column += columns;
    return true;
}

bool expand_line(const char *src, Line &line, BoundedText *out, std::size_t &out_bytes)
{
    for (out_bytes = 0; src[out_bytes] != '\0';) {
        const char *at = src + out_bytes;
        if (*at == '\n') {
            const bool is_taken = out == nullptr || out->add(at, 1);
            out_bytes += is_taken ? 1 : 0;
            return is_taken;
        }
        const Character character = first_character(at);
        if (!copy_expanded(at, character, line, out))
            return false;
        out_bytes += character.bytes;
    }
    return true;
}

// Columns as imsg_strwidth() counts them.
std::size_t columns_of(const Character &character)
{
    return MB_CUR_MAX < 2 ? character.bytes : static_cast<std::size_t>(character.columns);
}

// The end of a text that is at most `wanted` columns wide, with its new width. Marks that combine
// with a character that is dropped go with it.
const char *drop_columns(const char *str, std::size_t &columns, std::size_t wanted)
{
    const bool is_cut = columns > wanted;
    for (Character next = first_character(str); is_cut && next.bytes > 0; next = first_character(str)) {
        if (columns <= wanted && columns_of(next) > 0)
            break;
        columns -= columns_of(next);
        str += next.bytes;
    }
    return str;
}

} // namespace

extern "C" {

int imsg_disp_width(const char *s, int n)
{
    if (n < 1 || *s == '\0')
        return 0;
    wchar_t character = 0;
    std::mbstate_t conversion{};
    const std::size_t bytes = std::mbrtowc(&character, s, static_cast<std::size_t>(n), &conversion);
    if (bytes == static_cast<std::size_t>(-1) || bytes == static_cast<std::size_t>(-2))
        return n;
    const int columns = wcwidth(character);
    return columns < 0 ? n : columns;
}

size_t imsg_strwidth(const char *s)
{
    if (MB_CUR_MAX < 2)
        return std::strlen(s);
    std::size_t columns = 0;
    for (Character next = first_character(s); next.bytes > 0; next = first_character(s)) {
        columns += static_cast<std::size_t>(next.columns);
        s += next.bytes;
    }
    return columns;
}

size_t imsg_charcount(const char *s)
{
    return strutl_mb_strlen(s);
}

int imsg_truncate(char *str, size_t max_bytes)
{
    std::size_t kept = 0;
    for (Character next = first_character(str); next.bytes > 0; next = first_character(str + kept)) {
        if (next.bytes > max_bytes - kept) {
            str[kept] = '\0';
            return 1;
        }
        kept += next.bytes;
    }
    return 0;
}

int imsg_make_width(char *out, size_t out_size, const char *str, int width, int keep_end)
{
    BoundedText text(out, out_size);
    const std::size_t wanted = width > 0 ? static_cast<std::size_t>(width) : 0;
    std::size_t columns = imsg_strwidth(str);
    if (keep_end != 0) {
        str = drop_columns(str, columns, wanted);
        if (!text.add_blanks(wanted - columns))
            return 0;
    }
    std::size_t taken = 0;
    for (Character next = first_character(str); next.bytes > 0; next = first_character(str)) {
        const std::size_t after = taken + columns_of(next);
        if (after > wanted)
            break;
        if (!text.add(str, next.bytes))
            return 0;
        taken = after;
        str += next.bytes;
    }
    return keep_end != 0 || text.add_blanks(wanted - taken) ? 1 : 0;
}

int imsg_detabify_general(int tab_size, int start_col, const char *src, int max_cols, size_t out_size, char *out,
                          int *out_cols, size_t *out_bytes)
{
    const long start = start_col > 0 ? start_col : 0;
    Line line{tab_size > 0 ? tab_size : process_tab_size(), start, max_cols < 0 ? LONG_MAX : start + max_cols};
    BoundedText text(out, out == nullptr ? 0 : out_size);
    std::size_t bytes = 0;
    const bool is_whole = expand_line(src, line, out == nullptr ? nullptr : &text, bytes);
    if (out_cols != nullptr)
        *out_cols = line.column - start > INT_MAX ? INT_MAX : static_cast<int>(line.column - start);
    if (out_bytes != nullptr)
        *out_bytes = bytes;
    return is_whole ? 1 : 0;
}

int imsg_detabify(int start_col, const char *src, int max_cols, size_t out_size, char *out, int *out_cols,
                  size_t *out_bytes)
{
    return imsg_detabify_general(0, start_col, src, max_cols, out_size, out, out_cols, out_bytes);
}
}
