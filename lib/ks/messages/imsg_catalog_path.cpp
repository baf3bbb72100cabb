// Where a catalogue is looked for: as the system does it, and among those that are installed with the library.
//
// Those lie in a place known from that of libkorvaks.so itself, so that they are found without NLSPATH and an
// installed prefix can be moved. A language has a folder there; beside these lie the catalogues to translate.
#include "messages/imsg_impl.h"

#include <korvaks/evutl.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include <dlfcn.h>
#include <nl_types.h>

namespace {

constexpr std::size_t locale_size = 64;

const nl_catd failed_open = reinterpret_cast<nl_catd>(-1);

constinit std::array<char, PATH_MAX> installed_dir{}; // guarded by ks_product_crit; "": not looked for yet

// The folder, ended by '/'; "-" for a library whose place is not known for good, or too long for a path.
const char *installed_catalogs()
{
    if (installed_dir[0] != '\0')
        return installed_dir.data();
    Dl_info library{};
    const bool is_known = dladdr(installed_dir.data(), &library) != 0 && library.dli_fname != nullptr;
    const std::string_view file = is_known ? library.dli_fname : "";
    const std::string_view folder = file.substr(0, file.rfind('/') + 1);
    const int size = std::snprintf(installed_dir.data(), installed_dir.size(), "%.*s%s/",
                                   static_cast<int>(folder.size()), folder.data(), KORVAKS_CATALOG_FROM_LIBRARY);
    if (!folder.starts_with('/') || size < 0 || static_cast<std::size_t>(size) >= installed_dir.size())
        std::strcpy(installed_dir.data(), "-");
    return installed_dir.data();
}

// `language` may be "".
nl_catd open_installed(std::string_view language, const char *name)
{
    const char *const folder = installed_catalogs();
    char path[PATH_MAX];
    const int size = std::snprintf(path, sizeof path, "%s%.*s%s%s.cat", folder, static_cast<int>(language.size()),
                                   language.data(), language.empty() ? "" : "/", name);
    if (*folder != '/' || size < 0 || static_cast<std::size_t>(size) >= sizeof path)
        return failed_open;
    return catopen(path, 0);
}

// The user's locale as catopen() finds it: "" for the one without a language.
std::string_view wanted_locale(char (&buffer)[locale_size])
{
    const char *value = getenv_safe("LANG", buffer, sizeof buffer, EVUTL_GETENV_WHOLE);
    const std::string_view locale = value != nullptr ? value : "";
    const bool is_plain = locale == "C" || locale == "POSIX" || locale.starts_with("C.");
    const bool is_path = locale.find('/') != locale.npos; // leads out of the folder
    return is_plain || is_path ? "" : locale;
}

bool is_path_given()
{
    char buffer[2];
    return getenv_safe("NLSPATH", buffer, sizeof buffer, EVUTL_GETENV_NONEMPTY | EVUTL_GETENV_SECURE) != nullptr;
}

// In the language's own folder: with territory and encoding, then without.
nl_catd open_translation(std::string_view locale, const char *name)
{
    const nl_catd whole = open_installed(locale, name);
    const std::string_view language = locale.substr(0, locale.find_first_of("_.@"));
    return whole != failed_open || language == locale ? whole : open_installed(language, name);
}

} // namespace

namespace ks::imsg {

nl_catd find_catalog_file(const char *name)
{
    if (std::strchr(name, '/') != nullptr)
        return catopen(name, 0);
    char buffer[locale_size];
    const std::string_view locale = wanted_locale(buffer);
    // Nothing is translated: the system is asked last, since it looks into many folders.
    if (locale.empty() && !is_path_given()) {
        const nl_catd installed = open_installed("", name);
        return installed != failed_open ? installed : catopen(name, 0);
    }
    // With flag 0 the search follows LANG, even where that locale is not installed.
    nl_catd found = catopen(name, 0);
    if (found == failed_open && !locale.empty())
        found = open_translation(locale, name);
    return found != failed_open ? found : open_installed("", name);
}

} // namespace ks::imsg
