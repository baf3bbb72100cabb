#include "depot_msg.h"

#include <array>
#include <cstdint>
#include <utility>

namespace {

using namespace depot;

constexpr std::array<const char *, msg_count> texts = {
    "usage: veldepot [-d DIR] COMMAND [ARGUMENT]...\n"
    "\n"
    "Keeps compressed copies of files, with checksums, in a depot directory.\n"
    "\n"
    "  put FILE...            store files under their base names, replacing entries of that name\n"
    "  get NAME [-out FILE]   fetch an entry into FILE, or into a file of its own name\n"
    "  list                   list the entries\n"
    "  verify [NAME...]       check entries against their checksums; all without a NAME\n"
    "  remove NAME...         remove entries\n"
    "  help                   show this text\n"
    "\n"
    "  -d, -depot DIR         the depot's directory, else VELDEPOT_DIR; put makes it\n"
    "  -o, -out FILE          where get writes to\n"
    "  -f, -force             get replaces a file that exists\n"
    "  --                     what follows is no option\n"
    "\n"
    "Commands may be cut off: \"l\" is \"list\". A file is held in memory while it is stored or fetched,\n"
    "together with its compressed form (some 2.1 times its size), and must be smaller than 4 GiB. An\n"
    "interrupted command leaves every entry and every file as it was, or finished.\n",
    "No depot: give its directory with -d or in VELDEPOT_DIR.\n",
    "Unknown command \"%s\"; try \"veldepot help\".\n",
    "%s: \"%s\"; try \"veldepot help\".\n",
    "Option -%c needs a value; try \"veldepot help\".\n",
    "Too few arguments for \"%s\"; try \"veldepot help\".\n",
    "Too many arguments for \"%s\": \"%s\"; try \"veldepot help\".\n",
    "\"%s\" cannot name an entry: a name has 1 to %d bytes, no \"/\", and is not \".\" or \"..\".\n",
    "Unable to open depot \"%s\": %s\n",
    "Unable to read \"%s\": %s\n",
    "Unable to write \"%s\": %s\n",
    "Unable to remove \"%s\": %s\n",
    "\"%s\" is not a plain file.\n",
    "\"%s\" is too big: a file must be smaller than 4 GiB.\n",
    "\"%s\" exists; use -f to replace it.\n",
    "No entry \"%s\" in the depot.\n",
    "\"%s\" is in an entry's place and is none.\n",
    "Entry \"%s\" was written by a newer program.\n",
    "Entry \"%s\" is damaged: its header does not match its checksum.\n",
    "Entry \"%s\" is damaged: it has lost or gained bytes.\n",
    "Entry \"%s\" is damaged: its compressed bytes do not match their checksum.\n",
    "Entry \"%s\" is damaged: its content does not match its checksum.\n",
    "\"%s\" in the depot's directory is not part of the depot.\n",
    "Stored \"%s\": %llu bytes in %llu.\n",
    "Fetched \"%s\" into \"%s\".\n",
    "Removed \"%s\".\n",
    "%lu of %lu entries are sound.\n",
    "NAME",
    "%s            SIZE          STORED  CHECKSUM\n",
    "%s  %14llu  %14llu  %08x\n",
    "%lu in all",
    "%s  %14llu  %14llu\n",
};

static_assert(texts.back() != nullptr, "a text for each message");

// Numbers in the catalogue count from 1.
template <std::size_t... index> constexpr auto count_from_one(std::index_sequence<index...>)
{
    return std::array<std::uint16_t, sizeof...(index)>{static_cast<std::uint16_t>(index + 1)...};
}
constexpr auto catalog_numbers = count_from_one(std::make_index_sequence<msg_count>());

} // namespace

extern "C" const msg_table _depot_ks_msg_table = {"veldepot", "depot",      1,
                                                  msg_count,  texts.data(), catalog_numbers.data()};
