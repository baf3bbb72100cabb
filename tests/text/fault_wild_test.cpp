// Wildcards under failing calls and raises.
#include "harness/fault_sweep.h"

#include <korvaks/stg.h>
#include <korvaks/wild.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "harness/child.h"

namespace {

using test::fault::Call;
using test::fault::Trial;

char *list = nullptr;
int result = 0;
int error = 0;
const char *words = nullptr;
const char *place = nullptr;
const char *expected = nullptr;

// The whole list; or a code and no list, when something failed. Without a directory deeper down the list
// may hold less, or nothing.
const char *check_list(const Trial &trial)
{
    if (trial.raised != 0)
        return list == nullptr ? nullptr : "a list and a raise";
    if (result != 0)
        return trial.fired && list == nullptr ? nullptr : "refused without a cause, or a list and a refusal";
    if (std::strcmp(list, expected) == 0)
        return nullptr;
    const bool is_passed_over = trial.failed(Call::open) || trial.failed(Call::stat);
    return is_passed_over && trial.plan.answer != ENOMEM ? nullptr : "not the list";
}

TEST(FaultWild, Expansion)
{
    static const test::TempDir dir;
    std::string names;
    for (int i = 10; i < 99; ++i) {
        const std::string path = dir.file("some/long/name of a directory/" + std::to_string(i) + ".c");
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        test::write_file(path, "");
        names += (names.empty() ? "\"" : " \"") + path + "\"";
    }
    std::filesystem::create_directory_symlink("long", dir.file("some/link"));
    place = dir.path().c_str();
    static const std::string once = names + " plain";
    expected = once.c_str();
    for (const char *tried : {"some/*ng/*/*.c plain", "some/l*g/.../*.c plain"}) {
        words = tried;
        const test::fault::Scenario scenario{
            .name = tried,
            .setup = [] { list = nullptr; },
            .act = [] { result = wild_glob(words, place, &list); },
            .check = check_list,
            .cleanup = [] { stg_free(list); },
        };
        test::fault::sweep(scenario);
        test::fault::sweep_raises(scenario);
    }
}

TEST(FaultWild, MatchingAndCopying)
{
    static const std::string path = [] {
        std::string text;
        for (int i = 0; i < 200; ++i)
            text += "a/";
        return text + "b";
    }();
    static std::string pattern;
    for (int i = 0; i < 100; ++i)
        pattern += "\1\2\1\3";
    test::fault::sweep({
        .name = "wild_match",
        .act =
            [] {
                errno = 0;
                result = wild_match(pattern.c_str(), path.c_str(), 1);
                error = errno;
            },
        .check = [](const Trial &trial) -> const char * {
            const bool is_told = error == (trial.fired ? ENOMEM : 0);
            return is_told && result == 0 ? nullptr : "not told";
        },
    });
    test::fault::sweep({
        .name = "transform_string",
        .setup = [] { list = nullptr; },
        .act =
            [] {
                list = transform_string("a b");
                error = errno;
            },
        .check = [](const Trial &trial) -> const char * {
            if (list == nullptr)
                return trial.fired && error == ENOMEM ? nullptr : "refused without a cause";
            return std::strcmp(list, "\"a b\"") == 0 ? nullptr : "not the text";
        },
        .cleanup = [] { stg_free(list); },
    });
}

} // namespace
