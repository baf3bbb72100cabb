// Expansion of words into names of files.
#include <korvaks/stg.h>
#include <korvaks/wild.h>

#include "harness/child.h"
#include "harness/wild_model.h"

#include <algorithm>
#include <filesystem>
#include <random>
#include <set>

#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Paths = std::vector<std::string>;

// The list, or the result code as text.
std::string glob(const std::string &words, const std::string &dir, const char *root = nullptr, int split = 1)
{
    char *list = const_cast<char *>("untouched");
    const int result = wild_glob_ext(words.c_str(), dir.c_str(), root, split, &list);
    if (result != 0) {
        EXPECT_EQ(list, nullptr);
        return std::to_string(result);
    }
    std::string text = list;
    stg_free(list);
    return text;
}

// A directory ends in '/'.
void make(const test::TempDir &dir, const Paths &paths)
{
    for (const std::string &path : paths) {
        fs::create_directories(dir.file(path.substr(0, path.rfind('/') + 1)));
        if (!path.ends_with('/'))
            test::write_file(dir.file(path), "");
    }
}

TEST(WildGlob, CutsWords)
{
    const passwd *self = getpwuid(getuid());
    ASSERT_NE(self, nullptr);
    const std::string home = self->pw_dir;
    const test::TempDir dir;
    const std::pair<std::string, std::string> rows[] = {
        {" \t one\ttwo\n three ", "one two three"},
        {"\"a b\" 'c\td' e", "\"a b\" 'c\td' e"},
        {R"("a\" b"  c)", R"("a\" b" c)"},
        {"'*' \"[\" x\\*", "'*' \"[\" x\\*"},
        {"no [such", "-1"},
        {"missing/file", "missing/file"},
        {"missing/*", "-5"},
        {"... x", dir.path() + " x"},
        {"~ ~/x/y a~", home + " " + home + "/x/y a~"},
        {std::string("~") + self->pw_name, home},
        {"~" + std::string(255, 'u'), "-4"},
        {"~" + std::string(256, 'u') + "/x", "-3"},
    };
    for (const auto &[words, expected] : rows)
        EXPECT_EQ(glob(words, dir.path()), expected) << words;
    EXPECT_EQ(glob(" a b ", dir.path(), nullptr, 0), "a b ");
}

// Names that a text with blanks between them cannot tell apart.
TEST(WildGlob, GivesNamesAsTheyAre)
{
    const test::TempDir dir;
    const Paths names{"\n", " ", "\"", "'", "*", "\\", "a b", "a\" \"b", "q'\n\t'q"};
    make(dir, names);
    const std::pair<std::string, Paths> rows[] = {
        {"*", names},
        {R"("" 'a\'b' "c d"\ e\"f x\ y\*\\ "it's" 'open )", {"", "a'b", "c d e\"f", "x y*\\", "it's", "open "}},
        {"[a] b", {"-6"}},
    };
    for (const auto &[words, expected] : rows) {
        char **array = nullptr;
        std::size_t count = 99;
        const int result = wild_glob_list(words.c_str(), dir.path().c_str(), nullptr, 1, &array, &count);
        Paths found = result == 0 ? Paths(array, array + count) : Paths{std::to_string(result)};
        EXPECT_EQ(array == nullptr ? 0 : count, result == 0 ? found.size() : 0);
        for (std::string &name : found)
            name.erase(0, name.starts_with(dir.path()) ? dir.path().size() + 1 : 0);
        EXPECT_EQ(found, expected) << words;
        stg_free(array);
    }
}

// Whatever a word says, "..", link or not, it does not lead out of the root.
TEST(WildGlob, StaysBelowTheRoot)
{
    const test::TempDir dir;
    make(dir, {"out.c", "r/in.c", "r/d/x.c"});
    fs::create_directory_symlink("d", dir.file("r/l"));
    const std::string in = dir.file("r/in.c");
    for (const char *word : {"/*.c", "/../*.c", "/d/../../*.c", "/*/../i*", "/l/../*.c", "/./../*.c", "//..//[i]n.c"})
        EXPECT_EQ(glob(word, "ignored", dir.file("r").c_str()), in) << word;
    EXPECT_EQ(glob("/.../../*.c", "", dir.file("r").c_str()),
              in + " " + dir.file("r/d/x.c") + " " + dir.file("r/l/x.c"));
    EXPECT_EQ(glob(dir.path() + "/r/../o*", "ignored", ""), dir.file("r/../out.c"));
}

TEST(WildGlob, LimitsAndRefusals)
{
    const test::TempDir dir;
    for (int i = 0; i < 4096; ++i)
        make(dir, {"many/" + std::to_string(i) + "/"});
    make(dir, {"p/p/p/p/p/p/p/p/p/1", "z/11111111", "z/2", "zz/1"});
    EXPECT_EQ(glob("*", dir.file("many")), "-3");
    EXPECT_EQ(glob(".../1", dir.path()), "-3"); // nothing is left out in silence
    EXPECT_EQ(glob("*/1/", dir.path()), dir.file("many/1/"));
    EXPECT_EQ(glob("*/*[0-9]", dir.path()), // the other one is passed over
              dir.file("z/11111111") + " " + dir.file("z/2") + " " + dir.file("zz/1"));
    fs::remove(dir.file("many/0"));
    EXPECT_NE(glob("*", dir.file("many")), "-3");
    EXPECT_EQ(glob("*" + std::string(2041, 'n'), dir.path()), "-6");
    EXPECT_EQ(glob("*" + std::string(2042, 'n'), dir.path()), "-3");
    std::string levels;
    for (int i = 0; i < 16; ++i)
        levels += ".../";
    EXPECT_EQ(glob(levels + "1", dir.file("p")), dir.file("p/p/p/p/p/p/p/p/p/1")); // once for all ways to it
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) // whose frames are many times as large
constexpr std::size_t small_stack_bytes = std::size_t{16} << 20;
#else
constexpr std::size_t small_stack_bytes = std::size_t{64} << 10;
#endif

// As deep as a path can be long.
TEST(WildGlob, WalksDeepTreesOnSmallStacks)
{
    constexpr int depth = 2040;
    const test::TempDir dir;
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    for (int i = 0; i < depth; ++i)
        ASSERT_TRUE(mkdir("d", 0700) == 0 && chdir("d") == 0);
    test::write_file("f", "");
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, small_stack_bytes);
    static std::string found;
    const auto walk = [](void *) -> void * {
        found = glob(".../f", ".");
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, walk, nullptr), 0);
    pthread_join(thread, nullptr);
    EXPECT_EQ(found.size(), std::size_t{2} * depth + 1);
}

// --- Against a slow walk ---

struct Walk {
    bool is_slash_last;
    Paths found;
    bool is_start = true;
    bool is_refused = false;

    void add(const std::string &path)
    {
        if (is_slash_last ? fs::is_directory(path) : fs::exists(fs::symlink_status(path)))
            found.push_back(is_slash_last ? path + "/" : path);
    }

    void run(const std::string &dir, Paths components)
    {
        std::string path = dir;
        while (!components.empty() && components[0].find_first_of("*?[") == std::string::npos &&
               components[0] != "...") {
            path += "/" + components[0];
            components.erase(components.begin());
        }
        if (components.empty())
            return fs::exists(path) ? add(path) : void();
        is_refused = is_refused || (std::exchange(is_start, false) && !fs::is_directory(path));
        const std::string first = components[0];
        const Paths rest(components.begin() + 1, components.end());
        if (first == "...")
            run(path, rest);
        std::set<std::string> names;
        std::error_code ignored;
        for (const auto &entry : fs::directory_iterator(path, ignored))
            names.insert(entry.path().filename());
        for (const std::string &name : names) {
            const std::string below = path + "/" + name;
            if (name[0] == '.' && first[0] != '.')
                continue;
            if (first == "...") {
                if (fs::is_directory(below) && name[0] != '.')
                    run(below, fs::is_symlink(below) ? rest : components);
            } else if (test::wild::Model(*test::wild::parse(first, false), name, true, false).matches()) {
                rest.empty() ? add(below) : fs::is_directory(below) ? run(below, rest) : void();
            }
        }
    }
};

TEST(WildGlob, AgreesWithASlowWalk)
{
    std::mt19937 random(7);
    const auto any = [&](const Paths &of) { return of[random() % of.size()]; };
    const Paths names{"a", "b", "ab", ".h", "c", "aab"};
    const Paths parts{"*", "a*", "?", "...", "[ab]", ".*", "a", "*b", "ab", "c", "*[!a]*"};
    for (int trees = 0; trees < 12; ++trees) {
        const test::TempDir dir;
        const std::string top = dir.file("top"); // so that its ".." is the test's as well
        fs::create_directory(top);
        Paths directories{top};
        for (int i = 0; i < 40; ++i) {
            const std::string path = any(directories) + "/" + any(names);
            std::error_code ignored;
            if (random() % 2 == 0 && fs::create_directory(path, ignored))
                directories.push_back(path);
            else if (random() % 4 == 0)
                fs::create_symlink(any({"..", any(directories), "nowhere"}), path, ignored);
            else if (!fs::exists(path))
                test::write_file(path, "");
        }
        for (int words = 0; words < 150; ++words) {
            Paths components{any(parts)};
            while (random() % 2 == 0 && components.size() < 4)
                components.push_back(any(parts));
            Walk walk{random() % 4 == 0, {}};
            std::string word = components[0];
            for (std::size_t i = 1; i < components.size(); ++i)
                word += "/" + components[i];
            word += walk.is_slash_last ? "/" : "";
            walk.run(top, components);
            std::string expected;
            std::set<std::string> named; // a second way to a path adds nothing
            for (const std::string &path : walk.found)
                expected += named.insert(path).second ? (expected.empty() ? "" : " ") + path : "";
            if (word.find_first_of("*?[") == std::string::npos && word.find("...") == std::string::npos)
                expected = word;
            else if (walk.is_refused || expected.empty())
                expected = walk.is_refused ? "-5" : "-6";
            ASSERT_EQ(glob(word, top, nullptr, 0), expected) << word;
        }
    }
}

} // namespace
