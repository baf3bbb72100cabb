// Expanding words: cutting them out of a string, home directories, and the list that comes of it.
// Everything that is owned lies in one record outside the protected part, so that a raise loses
// nothing.
#include "text/wild_expand.h"

#include "kernel/ks_guard.h"

#include <korvaks/sysutl.h>

#include <algorithm>
#include <climits>

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
    word.copy(name, name_size, 1);
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
    return has_wild ? expand_wild(expander, compiled.data, places) : expander.add_plain(word);
}

struct Work {
    Expander expander;
    Text home;
    Text compiled;
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
    const ks::wild::Places places{dir, root};
    const int32_t raised = ks::protect([&] { work.run(words, places, split != 0); });
    if (raised == 0 && work.result == 0) {
        *out_list = work.expander.list.data;
        work.expander.list.data = nullptr;
    }
    work.release();
    if (raised != 0)
        pfm_raise(raised);
    return work.result;
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
