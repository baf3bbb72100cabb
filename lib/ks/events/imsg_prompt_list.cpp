// Lists: numbers as they are typed or written by the tool, and items that are the lines of a file.
#include "events/imsg_prompt_impl.h"

#include "kernel/stg_quiet.h"

#include <korvaks/stg.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

namespace ks::prompt {

namespace {

constexpr std::string_view separators = " \t,";

// The whole of a word as a decimal number of at most `max`; -1 for anything else.
int number_of(std::string_view word, int max)
{
    int number = 0;
    for (const char c : word) {
        if (c < '0' || c > '9' || __builtin_mul_overflow(number, 10, &number) ||
            __builtin_add_overflow(number, c - '0', &number) || number > max)
            return -1;
    }
    return number;
}

// Takes the next word off a line; "" at its end.
std::string_view next_word(std::string_view &line)
{
    const std::size_t begin = std::min(line.find_first_not_of(separators), line.size());
    line.remove_prefix(begin);
    const std::size_t end = std::min(line.find_first_of(separators), line.size());
    const std::string_view word = part_of(line, 0, end);
    line.remove_prefix(end);
    return word;
}

std::size_t count_lines(std::string_view text)
{
    const auto feeds = std::count(text.begin(), text.end(), '\n');
    const bool has_open_line = !text.empty() && text.back() != '\n';
    return static_cast<std::size_t>(feeds) + (has_open_line ? 1 : 0);
}

} // namespace

Selected read_numbers(std::string_view line, int max, bool multi, Numbers &out_numbers)
{
    const std::size_t count_max = multi ? IMSG_SELECTION_MAX : 1;
    std::size_t count = 0;
    for (std::string_view word = next_word(line); !word.empty(); word = next_word(line)) {
        const int number = number_of(word, max);
        if (number < 0 || count == count_max)
            return Selected::wrong;
        out_numbers[count++] = number;
    }
    if (count == 0)
        return Selected::wrong;
    out_numbers[count] = 0;
    return out_numbers[0] == 0 ? Selected::none : Selected::some;
}

int *copy_of_numbers(const Numbers &numbers)
{
    const auto end = std::find(numbers.begin(), numbers.end(), 0) + 1;
    const std::size_t size = static_cast<std::size_t>(end - numbers.begin()) * sizeof(int);
    auto *copy = static_cast<int *>(stg_malloc(size));
    if (copy != nullptr)
        std::memcpy(copy, numbers.data(), size);
    return copy;
}

bool read_items(const char *path, ItemFile &out_file)
{
    if (!read_file(path, out_file.text))
        return false;
    const std::size_t count = count_lines(out_file.text.view());
    if (count == 0 || count > INT_MAX)
        return false;
    out_file.items = static_cast<char **>(heap_try_malloc(count * sizeof(char *)));
    if (out_file.items == nullptr)
        return false;
    char *at = out_file.text.bytes;
    for (std::size_t i = 0; i < count; ++i) {
        out_file.items[i] = at;
        at += std::strcspn(at, "\n");
        *at++ = '\0'; // the text ends with one at the latest
    }
    out_file.count = static_cast<int>(count);
    return true;
}

void release(ItemFile &file)
{
    stg_free_int(std::exchange(file.items, nullptr), 1);
    release(file.text);
}

} // namespace ks::prompt
