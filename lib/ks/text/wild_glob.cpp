// Expanding words: cutting them out of a string, home directories, and the list that comes of it.
// Everything that is owned lies in one record outside the protected part, so that a raise loses
// nothing.
#include "text/wild_expand.h"

#include "kernel/ks_guard.h"

#include <korvaks/sysutl.h>

#include <algorithm>
#include <climits>
#include <utility>

namespace ks::wild {

namespace {

constexpr std::size_t user_name_bytes = 256;

bool is_separator(char c)
{
    return c == ' ' || c == '\t' || c == '\n';
}

bool is_given(const char *text)
{
    return text != nullptr && *text != '\0';
}

class WordReader {
  public:
    WordReader(const char *text, bool is_split) : at_(text), is_split_(is_split) {}

    // False when there are no more.
    bool next(std::string_view &out_word)
    {
        while (is_separator(*at_))
            ++at_;
        if (*at_ == '\0')
            return false;
        const char *start = at_;
        if (is_split_)
            pass_word();
        else
            at_ += std::strlen(at_);
        out_word = {start, static_cast<std::size_t>(at_ - start)};
        return true;
    }

  private:
    void pass_word()
    {
        char quote = '\0'; // the one that is open
        while (*at_ != '\0' && (quote != '\0' || !is_separator(*at_))) {
            if (*at_ == '\\' && at_[1] != '\0')
                ++at_;
            else if (quote != '\0' ? *at_ == quote : *at_ == '"' || *at_ == '\'')
                quote = quote != '\0' ? '\0' : *at_;
            at_ += character_length(at_);
        }
    }

    const char *at_;
    const bool is_split_;
};

// Where words start.
struct Places {
    const char *dir;
    const char *root;
};

// Replaces "~name" at the start of a word; the result is in `home`.
int expand_home(Text &home, std::string_view &word)
{
    const std::size_t name_size = std::min(word.find('/'), word.size()) - 1;
    char name[user_name_bytes];
    if (name_size >= sizeof name)
        return WILD_LIMIT;
    ks::part_of(word, 1).copy(name, name_size);
    name[name_size] = '\0';
    if (name_size == 0 && sysutl_user_name(name, sizeof name) != 0)
        return WILD_NO_HOME;
    char directory[PATH_MAX];
    if (sysutl_home_dir(name, directory, sizeof directory) != 0)
        return WILD_NO_HOME;
    word.remove_prefix(1 + name_size);
    home.size = 0;
    if (!home.append(directory) || !home.append(word))
        return WILD_LIMIT;
    word = home.view();
    return 0;
}

// Compiles a word into a buffer that is large enough for anything, and one byte more.
int compile_word(Text &compiled, std::string_view word, bool &out_has_wild)
{
    std::size_t most = 0;
    compiled.size = 0;
    if (__builtin_mul_overflow(word.size() + 1, std::size_t{2}, &most) || !compiled.reserve(most))
        return WILD_LIMIT;
    return compile(word, compiled.data, compiled.capacity - 1, out_has_wild);
}

int expand_wild(Expander &expander, char *compiled, const Places &places)
{
    if (*compiled != '/')
        return expander.run(is_given(places.dir) ? places.dir : ".", false, compiled);
    const bool is_confining = is_given(places.root);
    return expander.run(is_confining ? places.root : "/", is_confining, compiled);
}

// What is left of a word when its quotes are taken off, and the backslash before each character that it escapes.
[[nodiscard]] bool take_off_quotes(Text &out, std::string_view word)
{
    char quote = '\0'; // the one that is open
    out.size = 0;
    if (!out.reserve(word.size()))
        return false;
    for (std::size_t i = 0; i < word.size();) {
        const bool is_quote = quote != '\0' ? word[i] == quote : word[i] == '"' || word[i] == '\'';
        if (is_quote) {
            quote = quote != '\0' ? '\0' : word[i];
            ++i;
            continue;
        }
        if (word[i] == '\\' && i + 1 < word.size())
            ++i;
        const std::string_view character = ks::part_of(word, i, character_length(word.data() + i));
        if (!out.append(character))
            return false;
        i += character.size();
    }
    return true;
}

// Adds a word that is no pattern: it begins with a quote, or is compiled and has no wildcards.
int add_plain(Expander &expander, Text &scratch, const char *compiled, std::string_view word)
{
    if (!expander.has_bare_names)
        return expander.add_plain(word);
    if (compiled != nullptr)
        return expander.add_literal(compiled);
    return take_off_quotes(scratch, word) ? expander.add_name(scratch.view()) : WILD_LIMIT;
}

int expand_word(Expander &expander, Text &home, Text &compiled, std::string_view word, const Places &places)
{
    if (word.front() == '~') {
        const int result = expand_home(home, word);
        if (result != 0)
            return result;
    }
    const bool is_quoted = word.starts_with('"') || word.starts_with('\'');
    bool has_wild = false;
    if (!is_quoted) {
        const int result = compile_word(compiled, word, has_wild);
        if (result < 0)
            return result;
    }
    if (has_wild)
        return expand_wild(expander, compiled.data, places);
    return add_plain(expander, home, is_quoted ? nullptr : compiled.data, word);
}

// The names of a list, each ended by NUL, behind an array of pointers to them that NULL ends. NULL on exhaustion.
char **make_array(const Text &names, std::size_t &out_count)
{
    const auto count = static_cast<std::size_t>(std::count(names.data, names.data + names.size, '\0'));
    const std::size_t array_bytes = (count + 1) * sizeof(char *); // each has a byte of the names
    auto *array = static_cast<char **>(heap_try_malloc(array_bytes + names.size));
    if (array == nullptr)
        return nullptr;
    auto *name = static_cast<char *>(std::memcpy(array + count + 1, names.data, names.size));
    for (std::size_t i = 0; i < count; ++i) {
        array[i] = name;
        name += std::strlen(name) + 1;
    }
    array[count] = nullptr;
    out_count = count;
    return array;
}

struct Work {
    Expander expander;
    Text home{};
    Text compiled{};
    int result = 0;

    void run(const char *words, const Places &places, bool is_split)
    {
        WordReader reader(words, is_split);
        std::string_view word;
        if (!expander.list.reserve(0))
            result = WILD_LIMIT;
        while (result == 0 && reader.next(word))
            result = expand_word(expander, home, compiled, word, places);
    }

    // Runs, and gives out what was found.
    template <typename Give> int run_protected(const char *words, const Places &places, bool is_split, Give give)
    {
        const int32_t raised = protect([&] { run(words, places, is_split); });
        if (raised == 0 && result == 0)
            result = give();
        const int final_result = result;
        release();
        if (raised != 0)
            pfm_raise(raised);
        return final_result;
    }

    void release()
    {
        home.release();
        compiled.release();
        expander.release();
    }
};

} // namespace

} // namespace ks::wild

extern "C" {

int wild_glob_ext(const char *words, const char *dir, const char *root, int split, char **out_list)
{
    *out_list = nullptr;
    ks::wild::Work work;
    return work.run_protected(words, {dir, root}, split != 0, [&] {
        *out_list = std::exchange(work.expander.list.data, nullptr);
        return 0;
    });
}

int wild_glob_list(const char *words, const char *dir, const char *root, int split, char ***out_names,
                   size_t *out_count)
{
    *out_names = nullptr;
    *out_count = 0;
    ks::wild::Work work;
    work.expander.has_bare_names = true;
    return work.run_protected(words, {dir, root}, split != 0, [&] {
        *out_names = ks::wild::make_array(work.expander.list, *out_count);
        return *out_names != nullptr ? 0 : WILD_LIMIT;
    });
}

int wild_glob(const char *words, const char *dir, char **out_list)
{
    return wild_glob_ext(words, dir, nullptr, 1, out_list);
}

int wild_glob_single(const char *word, const char *dir, char **out_list)
{
    return wild_glob_ext(word, dir, nullptr, 0, out_list);
}
}
