// The library's per-thread block.
#include <korvaks/tls_impl.h>

#include "base/ks_base.h"
#include "kernel/kernel.h"

namespace {

constexpr ks::AssertPath here{"include/tls_impl"};
constexpr int line_of_panic = 140;

constinit vlthread_once_t key_once = VLTHREAD_ONCE_INIT;
constinit vlthread_key_t key{};
constinit std::atomic<bool> first_block_made{false};

void release_section(const ks_tls_release &release, void *section)
{
    if (release.fn != nullptr)
        release.fn(section);
}

extern "C" void ks_tls_free(void *value)
{
    auto *block = static_cast<ks_tls *>(value);
    release_section(block->rpc.release, &block->rpc);
    release_section(block->date.release, &block->date);
    release_section(block->imsg.release, &block->imsg);
    vlthread_free_tls(block);
}

extern "C" void ks_tls_init_tls_key(void)
{
    if (vlthread_key_create(&key, ks_tls_free) != 0)
        here.panic(line_of_panic);
}

ks_tls *make_block()
{
    auto *block = static_cast<ks_tls *>(vlthread_alloc_tls(sizeof(ks_tls)));
    if (block == nullptr || vlthread_set_tls(key, block) != 0)
        here.panic(line_of_panic);
    first_block_made.store(true, std::memory_order_release);
    return block;
}

} // namespace

namespace ks {

bool has_any_tls_block()
{
    return first_block_made.load(std::memory_order_acquire);
}

} // namespace ks

extern "C" {

struct ks_tls *ks_tls_get(void)
{
    (void)vlthread_once(&key_once, ks_tls_init_tls_key); // a failure ends the process inside
    auto *block = static_cast<ks_tls *>(vlthread_get_tls(key));
    return block != nullptr ? block : make_block();
}
}
