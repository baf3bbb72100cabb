// The rules of docs/layers.md against every include and every call of the library.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include <cxxabi.h>

#include <gtest/gtest.h>

#include "meta/command.h"
#include "meta/source_tree.h"

namespace {

using meta::matches;
using meta::SourceFile;
using Files = std::vector<SourceFile>;
using Complaints = std::vector<std::string>;

// A folder of lib/ks and the folders that its files may include and call.
struct Folder {
    std::string name;
    std::set<std::string> may_use;
};

// What files may take against the rules: a header to include or a function to call.
struct Exception {
    std::string from; // pattern of file names
    std::string what;
};

struct LayersPage {
    std::vector<Folder> folders; // from the top down
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
    for (const auto &row : meta::table_below(page, "## Folders")) {
        const auto allowed = meta::quoted_words(row.at(1));
        layers.folders.push_back({meta::quoted_words(row.at(0)).at(0), {allowed.begin(), allowed.end()}});
    }
    layers.includes = parse_exceptions(meta::table_below(page, "## Includes that go aside"));
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

constexpr const char *library_root = "lib/ks/";
constexpr const char *public_root = "include/korvaks/";

// "kernel/stg.cpp" for a file below lib/ks, the whole path for any other.
std::string short_path(const std::string &path)
{
    return path.starts_with(library_root) ? path.substr(std::string(library_root).size()) : path;
}

std::string folder_part(const std::string &short_name)
{
    const auto slash = short_name.rfind('/');
    return slash == std::string::npos ? "" : short_name.substr(0, slash);
}

const Folder *find_folder(const LayersPage &page, const std::string &name)
{
    const auto found =
        std::find_if(page.folders.begin(), page.folders.end(), [&](const auto &folder) { return folder.name == name; });
    return found != page.folders.end() ? &*found : nullptr;
}

// A module's files bear its name: x.cpp, x_topic.cpp, x_impl.h, x.h.
bool is_of_module(const std::string &name, const std::string &module)
{
    return name.starts_with(module + ".") || name.starts_with(module + "_");
}

// A public header belongs to the lowest folder of its module.
const Folder *folder_of_header(const LayersPage &page, const Files &files, const SourceFile &header)
{
    const std::string name = header.name();
    if (name == "base.h" || name == "ezrpc.h")
        return find_folder(page, "base");
    if (name == "tls_impl.h")
        return find_folder(page, "kernel");
    const std::string module = name.substr(0, name.rfind('.'));
    for (auto folder = page.folders.rbegin(); folder != page.folders.rend(); ++folder)
        for (const auto &file : files)
            if (file.path == library_root + folder->name + "/" + file.name() && is_of_module(file.name(), module))
                return &*folder;
    return nullptr;
}

const Folder *folder_of(const LayersPage &page, const Files &files, const SourceFile &file)
{
    if (file.path.starts_with(public_root))
        return folder_of_header(page, files, file);
    return file.path.starts_with(library_root) ? find_folder(page, folder_part(short_path(file.path))) : nullptr;
}

bool may_use(const Folder *from, const Folder *to)
{
    return from != nullptr && to != nullptr && (from == to || from->may_use.contains(to->name));
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

// Quoted includes name the folder.
const SourceFile *find_header(const Files &files, const std::string &spelled)
{
    const std::string name = spelled.substr(1, spelled.size() - 2);
    const std::string path = (spelled[0] == '<' ? "include/" : library_root) + name;
    const auto found = std::find_if(files.begin(), files.end(), [&](const auto &file) { return file.path == path; });
    return found != files.end() ? &*found : nullptr;
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
            includes.push_back({header, find_header(files, header)});
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

Complaints files_without_folder(const LayersPage &page, const Files &files)
{
    Complaints complaints;
    for (const auto &file : files)
        if (folder_of(page, files, file) == nullptr)
            complaints.push_back(file.path);
    return complaints;
}

// Quoted includes name a folder; includes go down; private headers stay within their module, and what is installed
// includes only what is; the platform's RPC comes through one header.
Complaints wrong_includes(const LayersPage &page, const Files &files)
{
    Complaints complaints;
    each_include(files, [&](const auto &file, const auto &include) {
        const auto complain = [&](bool is_wrong, const char *why) {
            if (is_wrong)
                complaints.push_back(file.path + " includes " + include.spelled + why);
        };
        const SourceFile *header = include.header;
        const bool is_ours = include.spelled[0] == '"' || include.spelled.starts_with("<korvaks/");
        complain(is_ours && header == nullptr, ", which no folder holds");
        complain(include.spelled.starts_with("<rpc/") && file.path != "lib/ks/rpc/wire/rpc_platform.h" &&
                     file.path != "include/korvaks/xdr.h",
                 " itself");
        if (header == nullptr)
            return;
        complain(!may_use(folder_of(page, files, file), folder_of(page, files, *header)), " from above");
        const std::string name = header->name();
        const bool is_private = header->path.starts_with(library_root) && name.ends_with("_impl.h") &&
                                !is_of_module(file.name(), name.substr(0, name.rfind("_impl.h")));
        complain(is_private && !is_excepted(page.includes, short_path(file.path), short_path(header->path)),
                 ", which is private");
        const bool is_installed = file.path.starts_with("include/") && file.name() != "tls_impl.h";
        complain(is_installed && (!header->path.starts_with("include/") || name == "tls_impl.h"),
                 ", which is not installed");
    });
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
    std::string file; // source that the object was compiled from, with its folder
    std::string name;
    char type; // as nm shows it
};

// The source of an object: ".../lib/ks/kernel/CMakeFiles/ks_kernel.dir/stg_heap.cpp.o" as "kernel/stg_heap.cpp"
std::string source_of(const std::string &object)
{
    const auto root = object.find(library_root) + std::string(library_root).size();
    const auto build = object.find("CMakeFiles/", root);
    return object.substr(root, build - root) + object.substr(object.rfind('/') + 1);
}

// nm -A -P: "lib/ks/kernel/CMakeFiles/ks_kernel.dir/stg_heap.cpp.o: stg_alloc T 0 50"
std::vector<Symbol> parse_symbols(const std::string &listing)
{
    std::vector<Symbol> symbols;
    for (const auto &line : meta::split_lines(listing)) {
        std::istringstream in(line);
        std::string object;
        Symbol symbol;
        in >> object >> symbol.name >> symbol.type;
        object.erase(object.rfind(".o:"));
        symbol.file = source_of(object);
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
        if (!may_use(find_folder(page, folder_part(symbol.file)), find_folder(page, folder_part(definition->second))))
            complaints.push_back(symbol.file + " uses " + demangled(symbol.name) + " of " + definition->second);
    }
    return complaints;
}

std::vector<Symbol> library_symbols()
{
    return parse_symbols(meta::output_of(KORVAKS_NM " -A -P -g $(cat " KORVAKS_OBJECT_LIST ")"));
}

TEST(Layers, EveryFileLiesInAListedFolder)
{
    EXPECT_GT(library_files().size(), 10u);
    EXPECT_EQ(meta::lines_of(files_without_folder(layers_page(), library_files())), "");
}

TEST(Layers, ThePageNamesOnlyWhatExistsAndGoesDown)
{
    std::set<std::string> above;
    for (const auto &folder : layers_page().folders) {
        EXPECT_TRUE(std::any_of(library_files().begin(), library_files().end(),
                                [&](const auto &file) { return folder_part(short_path(file.path)) == folder.name; }))
            << folder.name << " holds no file";
        above.insert(folder.name);
        for (const auto &lower : folder.may_use) {
            EXPECT_FALSE(above.contains(lower)) << folder.name << " may not use " << lower;
            EXPECT_NE(find_folder(layers_page(), lower), nullptr) << lower;
        }
    }

    for (const auto &exception : layers_page().includes) {
        bool used = false;
        each_include(library_files(), [&](const auto &file, const auto &include) {
            used = used || (include.header != nullptr && short_path(include.header->path) == exception.what &&
                            matches(exception.from, short_path(file.path)));
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

TEST(Layers, IncludesKeepTheRules)
{
    EXPECT_EQ(meta::lines_of(wrong_includes(layers_page(), library_files())), "");
}

TEST(Layers, CallsGoDown)
{
    EXPECT_EQ(meta::lines_of(upward_calls(layers_page(), library_symbols())), "");
}

// The page draws the locks in the order of the table that makes them.
TEST(Locks, ThePageShowsTheirOrder)
{
    const std::string page = meta::read_source("docs/locks.md").text;
    std::size_t at = 0;
    int count = 0;
    for (const auto &line : meta::split_lines(meta::read_source("lib/ks/kernel/ks_locks.h").text)) {
        const auto open = line.find("    LOCK(");
        if (open != 0)
            continue;
        const std::string name = line.substr(9, line.find(',') - 9);
        at = page.find(name, at);
        ASSERT_NE(at, std::string::npos) << name << " is not drawn where it belongs";
        ++count;
    }
    EXPECT_GT(count, 10);
}

} // namespace
