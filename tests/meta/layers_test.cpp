// The rules of docs/layers.md against every include and every call of the library.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include <cxxabi.h>

#include <gtest/gtest.h>

#include "command.h"
#include "source_tree.h"

namespace {

using meta::matches;
using meta::SourceFile;
using Files = std::vector<SourceFile>;
using Complaints = std::vector<std::string>;

struct LayerRow {
    int layer;
    std::vector<std::string> patterns;
};

// What files may take against the rules: a header to include or a function to call.
struct Exception {
    std::string from; // pattern of file names
    std::string what;
};

struct LayersPage {
    std::vector<LayerRow> rows;
    std::vector<Exception> includes;
    std::vector<Exception> calls;
};

std::vector<Exception> parse_exceptions(const std::vector<meta::Row> &rows)
{
    std::vector<Exception> exceptions;
    for (const auto &row : rows)
        for (const auto &from : meta::quoted_words(row.at(0)))
            for (const auto &what : meta::quoted_words(row.at(1)))
                exceptions.push_back({from, what});
    return exceptions;
}

LayersPage parse_page(const std::string &page)
{
    LayersPage layers;
    for (const auto &row : meta::table_below(page, "## Files"))
        layers.rows.push_back({std::stoi(row.at(0)), meta::quoted_words(row.at(2))});
    layers.includes = parse_exceptions(meta::table_below(page, "## Includes that go up or aside"));
    layers.calls = parse_exceptions(meta::table_below(page, "## Calls that go up"));
    return layers;
}

const LayersPage &layers_page()
{
    static const LayersPage page = parse_page(meta::read_source("docs/layers.md").text);
    return page;
}

bool is_excepted(const std::vector<Exception> &exceptions, const std::string &from, const std::string &what)
{
    return std::any_of(exceptions.begin(), exceptions.end(),
                       [&](const auto &e) { return e.what == what && matches(e.from, from); });
}

std::optional<int> layer_of(const LayersPage &page, const std::string &name)
{
    for (const auto &row : page.rows)
        for (const auto &pattern : row.patterns)
            if (matches(pattern, name))
                return row.layer;
    return std::nullopt;
}

// Sources and headers of libkorvaks.so.
const Files &library_files()
{
    static const Files files = [] {
        Files found = meta::read_tree({"include/korvaks", "lib/ks"});
        std::erase_if(found, [](const auto &f) { return !f.path.ends_with(".h") && !f.path.ends_with(".cpp"); });
        return found;
    }();
    return files;
}

struct Include {
    std::string spelled;      // with its brackets or quotes
    const SourceFile *header; // one of ours, or NULL
};

const SourceFile *find_header(const Files &files, const SourceFile &from, const std::string &spelled)
{
    const std::string name = spelled.substr(1, spelled.size() - 2);
    const std::string beside = from.path.substr(0, from.path.rfind('/') + 1) + name;
    for (const auto &file : files) {
        const bool found =
            spelled[0] == '<' ? file.path == "include/" + name : file.path == beside || file.path == "lib/ks/" + name;
        if (found)
            return &file;
    }
    return nullptr;
}

// The header that a line includes, with its brackets or quotes; empty when it includes none.
std::string included_by(const std::string &line)
{
    const auto hash = line.find_first_not_of(" \t");
    if (hash == std::string::npos || line[hash] != '#')
        return "";
    const auto word = line.find_first_not_of(" \t", hash + 1);
    const auto open = line.find_first_of("<\"");
    if (word == std::string::npos || line.compare(word, 7, "include") != 0 || open == std::string::npos)
        return "";
    const auto close = line.find_first_of(">\"", open + 1);
    return line.substr(open, close - open + 1);
}

std::vector<Include> includes_of(const Files &files, const SourceFile &file)
{
    std::vector<Include> includes;
    for (const auto &line : meta::split_lines(meta::without_comments(file.text))) {
        const std::string header = included_by(line);
        if (!header.empty())
            includes.push_back({header, find_header(files, file, header)});
    }
    return includes;
}

// Calls visit(file, include) for every include of every file.
template <typename Visit> void each_include(const Files &files, Visit visit)
{
    for (const auto &file : files)
        for (const auto &include : includes_of(files, file))
            visit(file, include);
}

Complaints files_without_layer(const LayersPage &page, const Files &files)
{
    Complaints complaints;
    for (const auto &file : files)
        if (!layer_of(page, file.name()))
            complaints.push_back(file.path);
    return complaints;
}

Complaints unknown_includes(const Files &files)
{
    Complaints complaints;
    each_include(files, [&](const auto &file, const auto &include) {
        const bool ours = include.spelled[0] == '"' || include.spelled.starts_with("<korvaks/");
        if (ours && include.header == nullptr)
            complaints.push_back(file.path + " includes " + include.spelled);
    });
    return complaints;
}

Complaints upward_includes(const LayersPage &page, const Files &files)
{
    Complaints complaints;
    each_include(files, [&](const auto &file, const auto &include) {
        if (include.header == nullptr || is_excepted(page.includes, file.name(), include.header->name()))
            return;
        if (layer_of(page, include.header->name()) > layer_of(page, file.name()))
            complaints.push_back(file.path + " includes " + include.spelled + " from above");
    });
    return complaints;
}

// A module's files bear its name: x.cpp, x_topic.cpp, x_impl.h, x.h.
bool is_of_module(const std::string &name, const std::string &module)
{
    return name.starts_with(module + ".") || name.starts_with(module + "_");
}

Complaints foreign_private_includes(const LayersPage &page, const Files &files)
{
    const std::string suffix = "_impl.h";
    Complaints complaints;
    each_include(files, [&](const auto &file, const auto &include) {
        if (include.header == nullptr || !include.header->path.starts_with("lib/ks/"))
            return;
        const std::string header = include.header->name();
        if (!header.ends_with(suffix) || is_excepted(page.includes, file.name(), header))
            return;
        if (!is_of_module(file.name(), header.substr(0, header.size() - suffix.size())))
            complaints.push_back(file.path + " includes the private " + header);
    });
    return complaints;
}

Complaints installed_including_private(const Files &files)
{
    Complaints complaints;
    each_include(files, [&](const auto &file, const auto &include) {
        if (!file.path.starts_with("include/") || file.name() == "tls_impl.h" || include.header == nullptr)
            return;
        if (!include.header->path.starts_with("include/") || include.header->name() == "tls_impl.h")
            complaints.push_back(file.path + " includes " + include.spelled);
    });
    return complaints;
}

Complaints stray_platform_rpc(const Files &files)
{
    Complaints complaints;
    each_include(files, [&](const auto &file, const auto &include) {
        if (include.spelled.starts_with("<rpc/") && file.path != "lib/ks/rpc/rpc_platform.h")
            complaints.push_back(file.path + " includes " + include.spelled);
    });
    return complaints;
}

// A depth-first walk: a header met again while it is still open closes a circle.
void find_circle(const Files &files, const SourceFile &file, std::vector<std::string> &open,
                 std::set<std::string> &done, Complaints &complaints)
{
    const auto met = std::find(open.begin(), open.end(), file.path);
    if (met != open.end()) {
        std::string circle;
        for (auto step = met; step != open.end(); ++step)
            circle += *step + " -> ";
        complaints.push_back(circle + file.path);
        return;
    }
    if (!done.insert(file.path).second)
        return;
    open.push_back(file.path);
    for (const auto &include : includes_of(files, file))
        if (include.header != nullptr)
            find_circle(files, *include.header, open, done, complaints);
    open.pop_back();
}

Complaints include_circles(const Files &files)
{
    Complaints complaints;
    std::vector<std::string> open;
    std::set<std::string> done;
    for (const auto &file : files)
        find_circle(files, file, open, done, complaints);
    return complaints;
}

std::string demangled(const std::string &symbol)
{
    char *name = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, nullptr);
    std::string text = name != nullptr ? name : symbol;
    std::free(name);
    return text;
}

struct Symbol {
    std::string file; // source that the object was compiled from
    std::string name;
    char type; // as nm shows it
};

// nm -A -P: "some/stg.cpp.o: stg_alloc T 0 50"
std::vector<Symbol> parse_symbols(const std::string &listing)
{
    std::vector<Symbol> symbols;
    for (const auto &line : meta::split_lines(listing)) {
        std::istringstream in(line);
        std::string object;
        Symbol symbol;
        in >> object >> symbol.name >> symbol.type;
        object.erase(object.rfind(".o:"));
        symbol.file = object.substr(object.rfind('/') + 1);
        symbols.push_back(symbol);
    }
    return symbols;
}

Complaints upward_calls(const LayersPage &page, const std::vector<Symbol> &symbols)
{
    std::map<std::string, std::string> defined_in;
    for (const auto &symbol : symbols)
        if (std::string("TDBR").find(symbol.type) != std::string::npos)
            defined_in[symbol.name] = symbol.file;

    Complaints complaints;
    for (const auto &symbol : symbols) {
        const auto definition = defined_in.find(symbol.name);
        if (symbol.type != 'U' || definition == defined_in.end() || is_excepted(page.calls, symbol.file, symbol.name))
            continue;
        if (layer_of(page, definition->second) > layer_of(page, symbol.file))
            complaints.push_back(symbol.file + " uses " + demangled(symbol.name) + " of " + definition->second);
    }
    return complaints;
}

std::vector<Symbol> library_symbols()
{
    return parse_symbols(meta::output_of(KORVAKS_NM " -A -P -g $(cat " KORVAKS_OBJECT_LIST ")"));
}

TEST(Layers, EveryFileHasOne)
{
    EXPECT_GT(library_files().size(), 10u);
    EXPECT_EQ(meta::lines_of(files_without_layer(layers_page(), library_files())), "");
}

TEST(Layers, ThePageNamesOnlyWhatExists)
{
    for (const auto &row : layers_page().rows)
        for (const auto &pattern : row.patterns)
            EXPECT_TRUE(std::any_of(library_files().begin(), library_files().end(),
                                    [&](const auto &file) { return matches(pattern, file.name()); }))
                << pattern << " names no file";

    for (const auto &exception : layers_page().includes) {
        bool used = false;
        each_include(library_files(), [&](const auto &file, const auto &include) {
            used = used || (include.header != nullptr && include.header->name() == exception.what &&
                            matches(exception.from, file.name()));
        });
        EXPECT_TRUE(used) << exception.from << " does not include " << exception.what;
    }

    const auto symbols = library_symbols();
    for (const auto &exception : layers_page().calls)
        EXPECT_TRUE(std::any_of(symbols.begin(), symbols.end(),
                                [&](const auto &symbol) {
                                    return symbol.type == 'U' && symbol.name == exception.what &&
                                           matches(exception.from, symbol.file);
                                }))
            << exception.from << " does not call " << exception.what;
}

TEST(Layers, IncludesGoDown)
{
    EXPECT_EQ(meta::lines_of(unknown_includes(library_files())), "");
    EXPECT_EQ(meta::lines_of(upward_includes(layers_page(), library_files())), "");
}

TEST(Layers, CallsGoDown)
{
    EXPECT_EQ(meta::lines_of(upward_calls(layers_page(), library_symbols())), "");
}

TEST(Layers, PrivateHeadersStayPrivate)
{
    EXPECT_EQ(meta::lines_of(foreign_private_includes(layers_page(), library_files())), "");
    EXPECT_EQ(meta::lines_of(installed_including_private(library_files())), "");
}

TEST(Layers, PlatformRpcComesThroughOneHeader)
{
    EXPECT_EQ(meta::lines_of(stray_platform_rpc(library_files())), "");
}

TEST(Layers, HeadersFormNoCircle)
{
    EXPECT_EQ(meta::lines_of(include_circles(library_files())), "");
}

// The checks themselves, on a small tree that breaks each rule once.
TEST(LayerChecks, FindWhatTheyLookFor)
{
    const LayersPage page = parse_page("## Files\n| Layer | What | Files |\n|---|---|---|\n"
                                       "| 0 | texts | `*_msg.h` |\n| 2 | high | `high*` |\n| 1 | low | `low*` |\n"
                                       "## Includes that go up or aside\n| File | Header | Why |\n|---|---|---|\n"
                                       "| `low_known.cpp` | `high_impl.h` | known |\n"
                                       "## Calls that go up\n| Caller | Function | Why |\n|---|---|---|\n"
                                       "| `low*` | `high_print` | known |\n");
    const Files files = {
        {"include/korvaks/low.h", "#include <korvaks/low_other.h>\n#include \"low_impl.h\"\n"},
        {"include/korvaks/low_other.h", "/* #include <korvaks/high.h> */\n#include <korvaks/low.h>\n"},
        {"include/korvaks/high.h", ""},
        {"lib/ks/high_impl.h", ""},
        {"lib/ks/high_msg.h", "#include <korvaks/high.h>\n"},
        {"lib/ks/low_impl.h", "  #  include <rpc/rpc.h>\n"},
        {"lib/ks/low.cpp", "#include \"high_impl.h\"\n#include <korvaks/high.h>\n#include \"absent.h\"\n"},
        {"lib/ks/low_known.cpp", "#include \"high_impl.h\"\n"},
        {"lib/ks/other.cpp", ""},
    };

    EXPECT_EQ(files_without_layer(page, files), Complaints{"lib/ks/other.cpp"});
    EXPECT_EQ(unknown_includes(files), Complaints{"lib/ks/low.cpp includes \"absent.h\""});
    EXPECT_EQ(upward_includes(page, files), (Complaints{"lib/ks/high_msg.h includes <korvaks/high.h> from above",
                                                        "lib/ks/low.cpp includes \"high_impl.h\" from above",
                                                        "lib/ks/low.cpp includes <korvaks/high.h> from above"}));
    EXPECT_EQ(foreign_private_includes(page, files), Complaints{"lib/ks/low.cpp includes the private high_impl.h"});
    EXPECT_EQ(installed_including_private(files), Complaints{"include/korvaks/low.h includes \"low_impl.h\""});
    EXPECT_EQ(stray_platform_rpc(files), Complaints{"lib/ks/low_impl.h includes <rpc/rpc.h>"});
    EXPECT_EQ(include_circles(files).size(), 1u);

    const auto symbols = parse_symbols("d/high.cpp.o: high_print T 0 5\nd/high.cpp.o: high_sort T 5 5\n"
                                       "d/low.cpp.o: high_print U 0 0\nd/low.cpp.o: high_sort U 0 0\n"
                                       "d/low.cpp.o: malloc U 0 0\nd/high.cpp.o: low_alloc U 0 0\n");
    EXPECT_EQ(upward_calls(page, symbols), Complaints{"low.cpp uses high_sort of high.cpp"});
}

} // namespace
