// Paths in the host-data directory, for those who can do without one.
#pragma once

namespace ks {

// ks_hostdata_dir(), but false where there is no such directory or the path does not fit into the
// KS_PATH_SIZE bytes of `dst`: nothing is printed and the process goes on. A directory that was found is
// kept, while there is memory for it, as ks_hostdata_dir() keeps it.
[[nodiscard]] bool try_hostdata_dir(char *dst, const char *sub1, const char *sub2);

} // namespace ks
