// The message module's section of the thread's block.
#include "messages/imsg_impl.h"

#include "kernel/stg_quiet.h"

#include <korvaks/tls_impl.h>

#include <cstdlib>

namespace {

void release_section(void *section)
{
    auto *own = static_cast<imsg_tls *>(section);
    stg_free_int(own->catalog_text, 1);
    stg_free_int(own->app_name, 1);
    own->catalog_text = nullptr;
    own->app_name = nullptr;
}

} // namespace

namespace ks::imsg {

imsg_tls &thread_section()
{
    imsg_tls &section = ks_tls_get()->imsg;
    section.release.fn = release_section;
    return section;
}

bool make_room(char *&buffer, std::size_t &buffer_size, std::size_t size)
{
    if (size <= buffer_size)
        return true;
    auto *larger = static_cast<char *>(heap_try_malloc(size));
    if (larger == nullptr)
        return false;
    stg_free_int(buffer, 1);
    buffer = larger;
    buffer_size = size;
    return true;
}

} // namespace ks::imsg
