// The per-thread fault block.
#include "kernel/pfm_impl.h"

#include <cstdio>
#include <cstdlib>

namespace ks {

constinit thread_local pfm_fault_block *current_fault_block = nullptr;

} // namespace ks

namespace {

constinit pthread_once_t key_once = PTHREAD_ONCE_INIT;
constinit pthread_key_t key{};

[[noreturn]] void abort_unset(const void *block)
{
    char text[128];
    const int formatted =
        snprintf(text, sizeof text, " (pfm): [P%u][T%lu]Unable to set PFM TLS %lx\n", static_cast<unsigned>(getpid()),
                 static_cast<unsigned long>(pthread_self()), reinterpret_cast<unsigned long>(block));
    (void)!write(STDERR_FILENO, text, static_cast<std::size_t>(formatted)); // the process ends either way
    abort();
}

// Runs at the thread's end, after which a destructor of another key may make a new block; that
// one is freed in the next round of destructors.
extern "C" void pfm_tls_free(void *value)
{
    auto *block = static_cast<pfm_fault_block *>(value);
    ks::current_fault_block = block;
    if (block->state != nullptr)
        ks::remove_thread_from_process(pthread_self());
    ks::current_fault_block = nullptr;
    free(block);
}

extern "C" void make_key(void)
{
    if (pthread_key_create(&key, pfm_tls_free) != 0)
        abort_unset(nullptr);
}

} // namespace

extern "C" {

void pfm_tls_init(void)
{
    (void)pthread_once(&key_once, make_key); // a failure ends the process inside
}

struct pfm_fault_block *pfm_tls_get(void)
{
    if (ks::current_fault_block != nullptr)
        return ks::current_fault_block;
    pfm_tls_init();
    // malloc: this block lies below the storage module.
    auto *block = static_cast<pfm_fault_block *>(calloc(1, sizeof(pfm_fault_block)));
    if (block == nullptr || pthread_setspecific(key, block) != 0)
        abort_unset(block);
    ks::current_fault_block = block;
    return block;
}
}
