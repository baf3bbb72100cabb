// Where the product is installed and where the host's data lie.
//
// Each answer is looked for without the lock, because that can wait for a disk and an exhausted heap
// prints. The lock makes the first answer that is ready the only one.
#include <korvaks/ks_product.h>

#include "kernel/ks_guard.h"
#include "kernel/stg_quiet.h"
#include "kernel/ks_locks.h"
#include "base/ks_msg.h"
#include "messages/ks_hostdata.h"
#include "base/msg_port.h"

#include <korvaks/evutl.h>
#include <korvaks/fileutl.h>
#include <korvaks/imsg.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <initializer_list>

namespace {

using Path = char[KS_PATH_SIZE];
using Answer = std::atomic<const char *>;

constexpr const char *product_dir_variables[] = {"VELLUMHOME", "KORVAHOME"};
constexpr const char *product_dir_built_in = "/opt/vellum";
constexpr const char *hostdata_dirs_built_in[] = {"/var/adm/vellum", "/var/adm/korva"};
constexpr const char *hostdata_dir_variable = "VELM_HOSTDATA_DIR";
constexpr int exit_status_not_installed = 2;
constexpr unsigned choice_proceed = 2; // IMSG_CHOICE_PROCEED, of a header above this layer

// Both are written once, under ks_product_crit, and read without it.
constinit Answer product_dir{nullptr};
constinit Answer hostdata_dir{nullptr};
// Holds the product directory where the heap has no room for it. Guarded by ks_product_crit.
constinit Path product_dir_without_heap{};

// Makes a lasting copy the answer of the process: that, or the one of a thread that was first.
const char *settle(Answer &answer, const char *copy)
{
    const ks::IoLockGuard lock(ks::ks_product_crit);
    const char *settled = answer.load(std::memory_order_relaxed);
    if (settled != nullptr)
        return settled;
    answer.store(copy, std::memory_order_release);
    return copy;
}

const char *settle_or_free(Answer &answer, char *copy)
{
    const char *settled = settle(answer, copy);
    if (settled != copy)
        stg_free(copy);
    return settled;
}

const char *find_product_dir(Path &buffer)
{
    for (const char *name : product_dir_variables) {
        if (getenv_safe(name, buffer, sizeof buffer, EVUTL_GETENV_SECURE) != nullptr)
            return buffer;
    }
    return product_dir_built_in;
}

const char *settle_product_dir_without_heap(const char *found)
{
    {
        const ks::IoLockGuard lock(ks::ks_product_crit);
        if (const char *settled = product_dir.load(std::memory_order_relaxed); settled != nullptr)
            return settled;
        (void)strutl_cpy_buf(product_dir_without_heap, found, sizeof product_dir_without_heap); // as large as `found`
        product_dir.store(product_dir_without_heap, std::memory_order_release);
    }
    (void)imsg_print(ks::msg_warning, &_ks_ks_msg_table, ks_msg_no_storage);
    return product_dir_without_heap;
}

const char *settled_product_dir()
{
    if (const char *settled = product_dir.load(std::memory_order_acquire); settled != nullptr)
        return settled;
    Path buffer;
    const char *found = find_product_dir(buffer);
    char *copy = stg_strdup(found);
    return copy != nullptr ? settle_or_free(product_dir, copy) : settle_product_dir_without_heap(found);
}

// NULL when there is none.
const char *find_hostdata_dir(Path &buffer)
{
    for (const char *directory : hostdata_dirs_built_in) {
        if (fileutl_exists(directory) != 0)
            return directory;
    }
    if (getenv_safe(hostdata_dir_variable, buffer, sizeof buffer, EVUTL_GETENV_SECURE) == nullptr)
        return nullptr;
    return fileutl_exists(buffer) != 0 ? buffer : nullptr;
}

// There is nothing to choose: the question keeps what was printed in sight until it has been read.
void tell_front_end()
{
    char question[256];
    (void)imsg_snprintf(question, sizeof question, &_ks_ks_msg_table, ks_msg_application_will_exit); // else cut
    (void)imsg_prompt_proceed(ks::msg_error, question, choice_proceed, choice_proceed);
}

void end_without_hostdata_dir()
{
    (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_not_installed);
    for (const char *directory : hostdata_dirs_built_in)
        (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_no_hostdata_dir, directory);
    if (imsg_in_gui() != 0)
        tell_front_end();
    pfm_exit(exit_status_not_installed);
}

// `buffer` holds the answer where it could not be kept. NULL when there is no such directory.
const char *settled_hostdata_dir(Path &buffer)
{
    if (const char *settled = hostdata_dir.load(std::memory_order_acquire); settled != nullptr)
        return settled;
    const char *found = find_hostdata_dir(buffer);
    if (found == nullptr) {
        end_without_hostdata_dir();
        return nullptr;
    }
    char *copy = stg_strdup(found);
    if (copy != nullptr)
        return settle_or_free(hostdata_dir, copy);
    (void)imsg_print(ks::msg_warning, &_ks_ks_msg_table, ks_msg_operation, "stg_strdup", imsg_strerror(errno));
    return found;
}

// Keeps what was found without a message, so that a directory that is gone or cannot be looked at a moment later
// ends nobody. Without memory the next call looks again.
void settle_hostdata_dir_quietly(const char *found)
{
    const std::size_t size = std::strlen(found) + 1;
    auto *copy = static_cast<char *>(ks::heap_try_malloc(size));
    if (copy == nullptr)
        return;
    std::memcpy(copy, found, size);
    if (settle(hostdata_dir, copy) != copy)
        stg_free_int(copy, 1);
}

// NULL where there is none, without a word.
const char *hostdata_dir_if_any(Path &buffer)
{
    if (const char *settled = hostdata_dir.load(std::memory_order_acquire); settled != nullptr)
        return settled;
    const char *found = find_hostdata_dir(buffer);
    if (found != nullptr)
        settle_hostdata_dir_quietly(found);
    return found;
}

// What separates `part` from the directory before it.
const char *slash_before(const char *part)
{
    return part != nullptr ? "/" : nullptr;
}

// Joins parts, of which NULL is none, in a caller's buffer. A path that does not fit would, cut off, name another
// file: then there is none.
char *join(char *dst, std::initializer_list<const char *> parts)
{
    std::size_t length = 0;
    for (const char *part : parts) {
        const std::size_t size = part != nullptr ? std::strlen(part) : 0;
        if (size >= KS_PATH_SIZE - length) {
            dst[0] = '\0';
            errno = ENAMETOOLONG;
            return dst;
        }
        std::memcpy(dst + length, part != nullptr ? part : "", size);
        length += size;
    }
    dst[length] = '\0';
    return dst;
}

} // namespace

namespace ks {

bool try_hostdata_dir(char *dst, const char *sub1, const char *sub2)
{
    Path buffer;
    const char *directory = hostdata_dir_if_any(buffer);
    return directory != nullptr && *join(dst, {directory, slash_before(sub1), sub1, slash_before(sub2), sub2}) != '\0';
}

} // namespace ks

extern "C" {

char *ks_product_dir(char *dst, const char *sub)
{
    return join(dst, {settled_product_dir(), slash_before(sub), sub});
}

char *ks_product_tool_dir(char *dst, const char *tool)
{
    return join(dst, {settled_product_dir(), "/bin", slash_before(tool), tool});
}

char *ks_product_tool_dir_quoted(char *dst, const char *tool)
{
    return join(dst, {"\"", settled_product_dir(), "/bin", slash_before(tool), tool, "\""});
}

char *ks_hostdata_dir(char *dst, const char *sub1, const char *sub2)
{
    Path buffer;
    const char *directory = settled_hostdata_dir(buffer);
    if (directory == nullptr) {
        dst[0] = '\0';
        return dst;
    }
    return join(dst, {directory, slash_before(sub1), sub1, slash_before(sub2), sub2});
}

int ks_has_hostdata_dir(void)
{
    Path buffer;
    return hostdata_dir_if_any(buffer) != nullptr ? 1 : 0;
}

char *ks_host_config_dir(char *dst, const char *sub)
{
    return ks_hostdata_dir(dst, "config", sub);
}
}
