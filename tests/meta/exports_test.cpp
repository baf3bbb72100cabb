// What libkorvaks.so and libezrpc.so export, against the public headers; and how they are linked.
#include <algorithm>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "meta/command.h"
#include "meta/source_tree.h"

namespace {

using Names = std::set<std::string>;

using Symbols = std::map<std::string, std::string>; // names with their versions

enum class Side { exported, imported };

std::string readelf(const std::string &what, const std::string &library)
{
    return meta::output_of(KORVAKS_READELF " -W " + what + " " + library);
}

// readelf: "  7: 0000000000001180  25 FUNC  GLOBAL DEFAULT  13 stg_alloc@@KORVAKS_1"
Symbols dynamic_symbols(const std::string &library, Side side)
{
    Symbols symbols;
    for (const auto &line : meta::split_lines(readelf("--dyn-syms", library))) {
        const auto words = meta::split_words(line);
        const bool is_global = words.size() > 7 && (words[4] == "GLOBAL" || words[4] == "WEAK");
        // The address sanitizer adds a symbol to each exported object.
        if (!is_global || words[6] == "ABS" || words[7].starts_with("__odr_asan.") ||
            (words[6] == "UND") != (side == Side::imported))
            continue;
        const auto at = words[7].find('@');
        symbols[words[7].substr(0, at)] = at == std::string::npos ? "" : words[7].substr(words[7].rfind('@') + 1);
    }
    return symbols;
}

Names exported_names(const std::string &library)
{
    Names names;
    for (const auto &[name, version] : dynamic_symbols(library, Side::exported))
        names.insert(name);
    return names;
}

// The name that one declaration declares: the word before its parameters or its bounds, or its last.
std::string declared_name(const std::string &declaration)
{
    constexpr const char *word = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
    const auto end = declaration.find_last_of(word, declaration.find_first_of("(["));
    const auto before = declaration.find_last_not_of(word, end);
    return declaration.substr(before + 1, end - before);
}

// Everything that a header marks KS_API.
Names declared_names(const std::string &header)
{
    const std::string mark = "KS_API ";
    Names names;
    std::string code;
    for (const auto &line : meta::split_lines(meta::without_comments(header)))
        code += line.starts_with('#') ? "" : line + "\n";
    for (auto at = code.find(mark); at != std::string::npos; at = code.find(mark, at + 1))
        names.insert(declared_name(code.substr(at + mark.size(), code.find_first_of(";{", at) - at - mark.size())));
    return names;
}

std::string difference(const Names &names, const Names &others)
{
    std::vector<std::string> left;
    std::set_difference(names.begin(), names.end(), others.begin(), others.end(), std::back_inserter(left));
    return meta::lines_of(left);
}

TEST(Exports, AreWhatTheHeadersDeclare)
{
    Names declared;
    for (const auto &file : meta::read_tree({"include/korvaks"}))
        if (file.name() != "ezrpc.h")
            declared.merge(declared_names(file.text));
    const Names exported = exported_names(KORVAKS_LIBRARY);
    EXPECT_EQ(difference(declared, exported), "") << "declared but not exported";
    EXPECT_EQ(difference(exported, declared), "") << "exported but not declared";

    const Names ezrpc = {"xdr_ez_string8"};
    EXPECT_EQ(declared_names(meta::read_source("include/korvaks/ezrpc.h").text), ezrpc);
    EXPECT_EQ(exported_names(KORVAKS_EZRPC), ezrpc);
}

TEST(Exports, CarryTheVersion)
{
    for (const auto &[name, version] : dynamic_symbols(KORVAKS_LIBRARY, Side::exported))
        EXPECT_EQ(version, "KORVAKS_1") << name;
}

// The first line of a listing that holds a text; empty when none does.
std::string line_with(const std::string &listing, const std::string &text)
{
    for (const auto &line : meta::split_lines(listing))
        if (line.find(text) != std::string::npos)
            return line;
    return "";
}

TEST(Linking, IsHardened)
{
    for (const std::string library : {KORVAKS_LIBRARY, KORVAKS_EZRPC}) {
        SCOPED_TRACE(library);
        const auto dynamic = readelf("-d", library);
        EXPECT_NE(line_with(dynamic, "(FLAGS").find("NOW"), std::string::npos) << dynamic;
        EXPECT_EQ(line_with(dynamic, "TEXTREL"), "");
        const auto segments = readelf("-l", library);
        EXPECT_NE(line_with(segments, "GNU_RELRO"), "");
        EXPECT_NE(line_with(segments, "GNU_STACK").find(" RW "), std::string::npos) << segments;
    }
}

TEST(Linking, NamesItsInterface)
{
    for (const auto &[library, name] :
         {std::pair{KORVAKS_LIBRARY, "[libkorvaks.so.1]"}, {KORVAKS_EZRPC, "[libezrpc.so.1]"}})
        EXPECT_TRUE(line_with(readelf("-d", library), "(SONAME)").ends_with(name)) << library;
    // Its threads and handlers would run in memory that is gone.
    EXPECT_NE(line_with(readelf("-d", KORVAKS_LIBRARY), "(FLAGS_1)").find("NODELETE"), std::string::npos);
}

// What a program loads with the library is felt at each of its starts: no C++ runtime, no RPC library with
// the Kerberos that it needs. The C library's old copies of the XDR routines have another layout, so none
// of them may be bound either.
TEST(Linking, LoadsLittle)
{
    for (const std::string library : {KORVAKS_LIBRARY, KORVAKS_EZRPC}) {
        for (const auto &line : meta::split_lines(readelf("-d", library))) {
            const bool is_known = line.find("libc.so") != line.npos || line.find("libtinfo") != line.npos ||
                                  line.find("ld-linux") != line.npos;
            EXPECT_TRUE(line.find("(NEEDED)") == line.npos || is_known) << library << line;
        }
        for (const auto &[name, version] : dynamic_symbols(library, Side::imported))
            EXPECT_FALSE(name.starts_with("xdr_")) << library << ": " << name;
    }
}

// Without optimisation the standard library's checks that can never fail stay in the code. They call what
// throws, and that brings a constructor along: there is nothing to be held then.
#ifdef NDEBUG

// No code of the library runs before main() or after exit() unless it was registered by a call: the
// only constructor is the compiler's own frame_dummy.
TEST(Linking, NoConstructors)
{
    const auto sections = readelf("-S", KORVAKS_LIBRARY);
    const auto line = line_with(sections, ".init_array");
    const auto words = meta::split_words(line.substr(std::min(line.find(".init_array"), line.size())));
    ASSERT_GT(words.size(), 4u) << sections;
    EXPECT_EQ(words[4], "000008") << line;
}

// A raise runs no destructor, so nothing in the library may throw or allocate behind its back. What would is
// linked in, so that all symbols are looked at. Admitted is atexit().
TEST(Linking, NoExceptions)
{
    const Names admitted = {"__cxa_finalize", "__cxa_atexit"};
    for (const auto &line : meta::split_lines(readelf("--syms", KORVAKS_LIBRARY))) {
        const auto words = meta::split_words(line);
        const auto name = words.size() > 7 ? words[7].substr(0, words[7].find('@')) : "";
        for (const char *unwanted : {"_Zn[wa]*", "_Zd[la]*", "__cxa_*", "_Unwind_*", "_ZSt*__throw_*"})
            EXPECT_TRUE(admitted.contains(name) || !meta::matches(unwanted, name)) << name;
    }
}

#endif

} // namespace
