// Temporary files.
#include <korvaks/fileutl.h>

#include "base/ks_base.h"

#include <korvaks/evutl.h>
#include <korvaks/strutl.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char *usual_directory = "/tmp";

} // namespace

extern "C" {

int fileutl_tmpfile_ext(const char *prefix, const char *ext, char *out_path, size_t size)
{
    char directory[PATH_MAX];
    char path[PATH_MAX];
    constexpr unsigned how = EVUTL_GETENV_NONEMPTY | EVUTL_GETENV_WHOLE | EVUTL_GETENV_SECURE;
    const char *chosen = getenv_safe("TMPDIR", directory, sizeof directory, how);
    if (strutl_concat(path, sizeof path, 5, chosen != nullptr ? chosen : usual_directory, "/", prefix, "XXXXXX", ext) !=
            0 ||
        std::strlen(path) >= size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const ks::UniqueFd file(mkostemps(path, static_cast<int>(std::strlen(ext)), O_CLOEXEC));
    if (!file)
        return -1;
    std::memcpy(out_path, path, std::strlen(path) + 1);
    return 0;
}
}
