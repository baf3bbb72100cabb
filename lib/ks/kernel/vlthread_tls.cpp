// Keys, and thread-local blocks that live in a storage area of their own.
#include "kernel/kernel.h"

namespace {

// The first word of every block.
stg_area *&area_of(void *block)
{
    return *static_cast<stg_area **>(block);
}

} // namespace

extern "C" {

int vlthread_key_create(vlthread_key_t *key, void (*destructor)(void *))
{
    (void)vlthread_init();
    *key = 0;
    return pthread_key_create(key, destructor);
}

int vlthread_key_delete(vlthread_key_t key)
{
    return pthread_key_delete(key);
}

int vlthread_set_tls(vlthread_key_t key, const void *value)
{
    return pthread_setspecific(key, value);
}

void *vlthread_get_tls(vlthread_key_t key)
{
    if (ks::is_tracing())
        vlthread_trace("vlthread_get_tls(key=%u)\n", static_cast<unsigned>(key));
    return pthread_getspecific(key);
}

void *vlthread_alloc_tls(size_t size)
{
    if (ks::is_tracing())
        vlthread_trace("vlthread_alloc_tls(size=%u)\n", static_cast<unsigned>(size));
    stg_area *area = stg_create_area_nr(1024);
    ks::vlthread_require(area != STG_AREA_NULL, "area != STG_AREA_NULL", 1670);
    stg_set_zero(area);
    void *block = stg_alloc_nr(area, size < sizeof(stg_area *) ? sizeof(stg_area *) : size);
    if (block == nullptr) {
        stg_delete_area_nr(&area);
        return nullptr;
    }
    area_of(block) = area;
    return block;
}

void vlthread_free_tls(void *block)
{
    if (ks::is_tracing())
        vlthread_trace("vlthread_free_tls(tls=%u)\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(block)));
    if (block == nullptr)
        return;
    stg_area *area = area_of(block);
    if (area != STG_AREA_NULL)
        stg_delete_area_nr(&area);
}
}
