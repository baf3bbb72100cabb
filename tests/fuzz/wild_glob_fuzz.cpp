// Lists of words over a tree that the input makes.
#include "fuzz/fuzz_support.h"

#include <korvaks/wild.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t nodes_max = 24;
constexpr std::size_t words_max = 256;
constexpr std::size_t levels_max = 3; // each multiplies the ways to a path

// One directory for all inputs, emptied for each.
class Tree {
  public:
    Tree()
    {
        char name[32] = "/dev/shm/wild_fuzz.XXXXXX";
        if (mkdtemp(name) == nullptr && mkdtemp(std::strcpy(name, "/tmp/wild_fuzz.XXXXXX")) == nullptr)
            std::abort();
        base_ = name;
        path_ = base_ + "/top"; // so that its ".." is the tree's as well
        if (mkdir(path_.c_str(), 0700) != 0)
            std::abort();
    }
    ~Tree() { fs::remove_all(base_); }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;

    const std::string &path() const { return path_; }

    void grow(fuzz::Input &input)
    {
        for (const auto &entry : fs::directory_iterator(path_))
            fs::remove_all(entry.path());
        std::string below = path_;
        for (std::size_t count = input.take_byte() % nodes_max; count > 0; --count) {
            const std::uint8_t kind = input.take_byte() % 4;
            std::string name = input.take_text().substr(0, 8);
            if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
                continue;
            const std::string path = below + "/" + name;
            if (kind == 0)
                (void)close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
            else if (kind == 1 && mkdir(path.c_str(), 0700) == 0)
                below = path;
            else if (kind == 2)
                (void)!symlink("..", path.c_str());
            else
                below = path_;
        }
    }

  private:
    std::string base_;
    std::string path_;
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
    tree.grow(input);
    const std::string words = input.take_text().substr(0, words_max);
    if (levels_in(words) > levels_max)
        return;
    const fuzz::ExactText copy(words);
    check_list(copy, tree.path(), 1);
    check_list(copy, tree.path(), 0);
}
