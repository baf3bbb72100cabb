// The stack of commands that the calling thread is running.
#include "command/clp_impl.h"

#include <korvaks/tls_impl.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace {

using ks::clp::here;

constexpr std::uint32_t slots = std::extent_v<decltype(clp_tls::commands)>;
static_assert(sizeof(clp_tls::stack_text) == CLP_MAX_STACK_STRING + 1);

clp_tls &thread_section()
{
    return ks_tls_get()->clp;
}

void build_text(clp_tls &section)
{
    std::size_t ptr = 0;
    for (std::uint32_t i = 0; i < section.command_count; ++i) {
        const std::size_t length = std::strlen(section.commands[i]);
        here.require(length < CLP_MAX_STACK_STRING && ptr + length + 1 < CLP_MAX_STACK_STRING,
                     "ptr < CLP_MAX_STACK_STRING");
        std::memcpy(section.stack_text + ptr, section.commands[i], length);
        ptr += length;
        section.stack_text[ptr++] = ':';
    }
    section.stack_text[ptr] = '\0';
    section.text_generation = section.generation;
}

} // namespace

extern "C" {

int clp_push_cmd(const char *name)
{
    here.require(name != nullptr, "name != NULL");
    clp_tls &section = thread_section();
    ++section.depth;
    if (section.command_count < slots) {
        section.commands[section.command_count++] = name;
        ++section.generation;
    }
    return ks::clp::success;
}

int clp_pop_cmd(void)
{
    clp_tls &section = thread_section();
    // Kept exactly: the depth falls below 0 too, and a push that makes up for it is stored all the same.
    if (section.depth-- <= static_cast<std::int64_t>(slots) && section.command_count > 0) {
        --section.command_count;
        ++section.generation;
    }
    return ks::clp::success;
}

const char *clp_get_cmd_stack(uint32_t *generation)
{
    clp_tls &section = thread_section();
    if (*generation == section.generation)
        return nullptr;
    // Kept exactly: an empty stack leaves the text of the last one that was not. Reports name the
    // command that has just ended.
    if (section.text_generation != section.generation && section.command_count > 0)
        build_text(section);
    *generation = section.generation;
    return section.stack_text;
}
}
