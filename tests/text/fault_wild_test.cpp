// Wildcards under failing calls and raises.
#include "harness/child.h"
#include "harness/fault_sweep.h"

#include <korvaks/stg.h>
#include <korvaks/wild.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace {

using test::fault::Call;
using test::fault::Operation;
using test::fault::Trial;

char *list = nullptr;

TEST(FaultWild, Expansion)
{
    const test::TempDir dir;
    std::string names;
    for (int i = 10; i < 99; ++i) {
        const std::string path = dir.file("some/long/name of a directory/" + std::to_string(i) + ".c");
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        test::write_file(path, "");
        names += "\"" + path + "\" ";
    }
    std::filesystem::create_directory_symlink("long", dir.file("some/link"));
    names += "plain";
    // Without a directory deeper down the list may hold less, or nothing.
    const auto may_lack = [](const Trial &trial) {
        return (trial.failed(Call::open) || trial.failed(Call::stat)) && trial.plan.answer != ENOMEM;
    };
    for (const char *words : {"some/*ng/*/*.c plain", "some/long/.../.../*.c plain"})
        Operation(words)
            .setup([] { list = nullptr; })
            .act([&] { return wild_glob(words, dir.path().c_str(), &list) == 0; })
            .gives([&](const Trial &trial) { return list == names || may_lack(trial); })
            .keeps([] { return list == nullptr; })
            .check([](const Trial &trial) {
                return trial.raised == 0 || list == nullptr ? nullptr : "a list and a raise";
            })
            .cleanup([] { stg_free(list); })
            .sweep()
            .sweep_raises();
}

char **array = nullptr;
std::size_t count = 0;

TEST(FaultWild, ExpansionIntoAnArray)
{
    const test::TempDir dir;
    test::write_file(dir.file("a"), "");
    Operation("wild_glob_list")
        .setup([] { array = nullptr; })
        .act([&] {
            return wild_glob_list("'it '\\'s ... * x\\ y", dir.path().c_str(), nullptr, 1, &array, &count) == 0;
        })
        .gives([&](const Trial &trial) {
            const char *const names[] = {"it 's", dir.path().c_str(), nullptr, "x y"};
            return (trial.fired && trial.plan.answer != ENOMEM) ||
                   (count == 4 && array[4] == nullptr && array[2] == dir.file("a") &&
                    !std::strcmp(array[0], names[0]) && !std::strcmp(array[3], names[3]));
        })
        .keeps([] { return array == nullptr && count == 0; })
        .cleanup([] { stg_free(array); })
        .sweep()
        .sweep_raises();
}

TEST(FaultWild, MatchingAndCopying)
{
    std::string path;
    std::string pattern;
    for (int i = 0; i < 100; ++i) {
        path += "a/a/b";
        pattern += "\1\2\1\3";
    }
    int result = 0;
    Operation("wild_match")
        .act([&] { result = wild_match(pattern.c_str(), path.c_str(), 1); })
        .gives([&](const Trial &trial) { return trial.error == (trial.fired ? ENOMEM : 0) && result == 0; })
        .sweep();
    Operation("transform_string")
        .act([] { return (list = transform_string("a \"b")) != nullptr; })
        .gives([] { return std::strcmp(list, "\"a \\\"b\"") == 0; })
        .sets_errno()
        .cleanup([] { stg_free(list); })
        .sweep();
}

} // namespace
