// The README's commands and examples do what it says, in the order in which they stand there.
#include <regex>

#include "meta/command.h"
#include "meta/source_tree.h"
#include "harness/child.h"

namespace {

const std::string &readme()
{
    static const std::string text = meta::read_source("README.md").text;
    return text;
}

std::string between(const std::string &before, const std::string &after)
{
    const auto start = readme().find(before) + before.size();
    return readme().substr(start, readme().find(after, start) - start);
}

TEST(Readme, ShowsTheExampleAsItIs)
{
    EXPECT_EQ(between("\n```c\n", "```\n"), meta::read_source("examples/hello/hello.c").text);
}

TEST(Readme, InstallsBuildsAndRunsWhereverThePrefixIsMoved)
{
    const test::TempDir dir;
    const auto run = [&](const std::string &script) {
        test::write_file(dir.file("script"),
                         "set -e\nexec 2>&1\nHOME=" + dir.path() +
                             "\nunset ${!LC_*} LANG LD_LIBRARY_PATH NLSPATH ${!PRINT_@} ${!TRACE_@}\n" + script);
        return meta::output_of("bash " + dir.file("script"));
    };
    const std::string install = std::regex_replace(between("After either of them,\n", "\nputs"),
                                                   std::regex("build/release"), KORVAKS_BUILD_DIR);
    run("cd " KORVAKS_SOURCE_DIR + install);

    test::write_file(dir.file("hello.c"), between("\n```c\n", "```\n"));
    test::write_file(dir.file("CMakeLists.txt"), between("\n```cmake\n", "```\n"));
    const std::string with_cc = between("installed as above,\n", "\nbuilds it;");
    const std::string shown = between("    $ hello hello.c nowhere\n", "\n\n") + "\n";
    const std::string run_hello = "/hello hello.c nowhere |& sort | sed 's/^/    /'\n";
    EXPECT_EQ(run("cd; " + with_cc + "." + run_hello), shown);
    EXPECT_EQ(run("cd; { " + between("`, with `", "`:") + "; } >log\nbuild" + run_hello), shown);

    const std::string moved = "cd; export PATH=$HOME/x/moved/bin:$PATH; texts=$HOME/x/moved/share/korvaks/nls\n";
    EXPECT_EQ(run("cd; mkdir x; mv korvaks x/moved; [ -z \"$(grep -r $HOME/korvaks x)\" ]\n" + moved +
                  "veldepot help | cut -c 1-16 | sed 1q"),
              "usage: veldepot \n");
    const std::string with_moved = std::regex_replace(with_cc, std::regex("/korvaks"), "/x/moved");
    EXPECT_EQ(run(moved + with_moved + "." + run_hello), shown);
    const std::string translate = "mkdir $texts/de; printf '$set 10\n19 Fehler: \n' | gencat $texts/de/ks_lib.cat -\n"
                                  "LANG=de_DE.UTF-8 LD_LIBRARY_PATH=$HOME/x/moved/lib ./hello nowhere || true\n";
    EXPECT_EQ(run(moved + translate), "hello: Fehler: nowhere: No such file or directory\n");
}

} // namespace
