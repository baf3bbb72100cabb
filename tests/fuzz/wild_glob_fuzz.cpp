// Lists of words over a small tree of awkward names.
#include "fuzz/fuzz_support.h"

#include <korvaks/wild.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t words_max = 256;
constexpr std::size_t levels_max = 3; // each multiplies the ways to a path

// One for all inputs; below its top, so that ".." is the tree's as well.
class Tree {
  public:
    Tree()
    {
        if (mkdtemp(base_) == nullptr)
            std::abort();
        for (const char *directory : {"a/b/a", "ab/ ", ".h/a", "[/*"})
            fs::create_directories(path() + "/" + directory);
        for (const char *link : {"a/up", "ab/a", "b"})
            fs::create_symlink("..", path() + "/" + link);
        for (const char *file : {"c", "a/b/'q\" \n", "ab/ /\\", ".h/a/c", "[/*/?"})
            std::ofstream{path() + "/" + file};
    }
    ~Tree() { fs::remove_all(base_); }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;

    std::string path() const { return std::string(base_) + "/top"; }

  private:
    char base_[32] = "/tmp/wild_fuzz.XXXXXX";
};

std::size_t levels_in(const std::string &words)
{
    std::size_t count = 0;
    for (std::size_t at = words.find("..."); at != std::string::npos; at = words.find("...", at + 1))
        ++count;
    return count;
}

void check_list(const char *words, const std::string &dir, int split)
{
    char *list = const_cast<char *>(words);
    const int result = wild_glob_ext(words, dir.c_str(), dir.c_str(), split, &list);
    const fuzz::Given<char> given(result == 0 ? list : nullptr);
    FUZZ_REQUIRE(result == 0 || result == WILD_MALFORMED || (result >= WILD_NO_MATCH && result <= WILD_LIMIT));
    FUZZ_REQUIRE((list != nullptr) == (result == 0));
    char **names = nullptr;
    std::size_t count = 0;
    FUZZ_REQUIRE(wild_glob_list(words, dir.c_str(), dir.c_str(), split, &names, &count) == result);
    const fuzz::Given<char *> given_names(names);
    FUZZ_REQUIRE(names == nullptr ? result != 0 && count == 0
                                  : std::find(names, names + count, nullptr) == names + count);
    FUZZ_REQUIRE(names == nullptr || names[count] == nullptr);
}

} // namespace

FUZZ_TARGET(input)
{
    static Tree tree;
    const std::string words = input.take_text().substr(0, words_max);
    if (levels_in(words) > levels_max)
        return;
    const fuzz::ExactText copy(words);
    check_list(copy, tree.path(), 1);
    check_list(copy, tree.path(), 0);
}
