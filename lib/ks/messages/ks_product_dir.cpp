// Where the product is installed and where the host's data lie.
//
// Each answer is looked for without the lock, because that can wait for a disk and an exhausted heap
// prints. The lock makes the first answer that is ready the only one.
#include <korvaks/ks_product.h>

#include "kernel/ks_guard.h"
#include "kernel/ks_heap.h"
#include "kernel/ks_locks.h"
#include "base/ks_msg.h"
#include "messages/ks_hostdata.h"
#include "messages/ks_product_impl.h"
#include "base/msg_port.h"

#include <korvaks/evutl.h>
#include <korvaks/fileutl.h>
#include <korvaks/imsg.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include <cstring>

namespace {

using Path = char[KS_PATH_SIZE];
using Answer = std::atomic<const char *>;

constexpr const char *product_dir_variables[] = {"VELLUMHOME", "KORVAHOME"};
constexpr const char *product_dir_built_in = "/opt/vellum";
constexpr const char *hostdata_dirs_built_in[] = {"/var/adm/vellum", "/var/adm/korva"};
constexpr const char *hostdata_dir_variable = "VELM_HOSTDATA_DIR";
constexpr int exit_status_not_installed = 2;

// Both are written once, under ks_product_crit, and read without it.
constinit Answer product_dir{nullptr};
constinit Answer hostdata_dir{nullptr};
// Holds the product directory where the heap has no room for it. Guarded by ks_product_crit.
constinit Path product_dir_without_heap{};

// Makes a heap copy the answer of the process. It is freed again when another thread was first.
const char *settle(Answer &answer, char *copy)
{
    const char *settled = nullptr;
    {
        ks::LockGuard lock(ks::ks_product_crit);
        settled = answer.load(std::memory_order_relaxed);
        if (settled == nullptr) {
            answer.store(copy, std::memory_order_release);
            return copy;
        }
    }
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
        ks::LockGuard lock(ks::ks_product_crit);
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
    return copy != nullptr ? settle(product_dir, copy) : settle_product_dir_without_heap(found);
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

void end_without_hostdata_dir()
{
    (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_not_installed);
    for (const char *directory : hostdata_dirs_built_in)
        (void)imsg_print(ks::msg_error, &_ks_ks_msg_table, ks_msg_no_hostdata_dir, directory);
    if (imsg_in_gui() != 0) {
        const auto prompt = ks::product::proceed_prompt.load(std::memory_order_acquire);
        if (prompt != nullptr)
            prompt(&_ks_ks_msg_table, ks_msg_application_will_exit);
        else
            (void)imsg_print(ks::msg_output, &_ks_ks_msg_table, ks_msg_application_will_exit);
    }
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
        return settle(hostdata_dir, copy);
    (void)imsg_print(ks::msg_warning, &_ks_ks_msg_table, ks_msg_operation, "stg_strdup", imsg_strerror(errno));
    return found;
}

// The same without a word, and where there is no such directory the process goes on.
const char *settled_hostdata_dir_if_any(Path &buffer)
{
    if (const char *settled = hostdata_dir.load(std::memory_order_acquire); settled != nullptr)
        return settled;
    const char *found = find_hostdata_dir(buffer);
    if (found == nullptr)
        return nullptr;
    const std::size_t size = std::strlen(found) + 1;
    auto *const copy = static_cast<char *>(ks::heap_try_malloc(size));
    if (copy == nullptr)
        return found;
    std::memcpy(copy, found, size);
    return settle(hostdata_dir, copy);
}

// What separates `part` from the directory before it.
const char *slash_before(const char *part)
{
    return part != nullptr ? "/" : nullptr;
}

} // namespace

namespace ks {

bool try_hostdata_dir(char *dst, const char *sub1, const char *sub2)
{
    Path buffer;
    const char *directory = settled_hostdata_dir_if_any(buffer);
    return directory != nullptr &&
           strutl_concat(dst, KS_PATH_SIZE, 5, directory, slash_before(sub1), sub1, slash_before(sub2), sub2) == 0;
}

} // namespace ks

extern "C" {

char *ks_product_dir(char *dst, const char *sub)
{
    (void)strutl_concat(dst, KS_PATH_SIZE, 3, settled_product_dir(), slash_before(sub), sub); // cut by contract
    return dst;
}

char *ks_product_tool_dir(char *dst, const char *tool)
{
    (void)strutl_concat(dst, KS_PATH_SIZE, 4, settled_product_dir(), "/bin", slash_before(tool), tool);
    return dst;
}

char *ks_product_tool_dir_quoted(char *dst, const char *tool)
{
    Path path;
    (void)strutl_concat(dst, KS_PATH_SIZE, 3, "\"", ks_product_tool_dir(path, tool), "\"");
    return dst;
}

char *ks_hostdata_dir(char *dst, const char *sub1, const char *sub2)
{
    Path buffer;
    const char *directory = settled_hostdata_dir(buffer);
    if (directory == nullptr) {
        dst[0] = '\0';
        return dst;
    }
    (void)strutl_concat(dst, KS_PATH_SIZE, 5, directory, slash_before(sub1), sub1, slash_before(sub2), sub2);
    return dst;
}

int ks_has_hostdata_dir(void)
{
    Path buffer;
    return hostdata_dir.load(std::memory_order_acquire) != nullptr || find_hostdata_dir(buffer) != nullptr ? 1 : 0;
}

char *ks_host_config_dir(char *dst, const char *sub)
{
    return ks_hostdata_dir(dst, "config", sub);
}
}
