#include "depot_store.h"

namespace depot {

bool LocalStore::look_up(const char *name, bool &out_is_there)
{
    out_is_there = has_entry(depot_, name);
    return true;
}

bool LocalStore::read_names(stg_area *area, Names &out_names, Names &out_others)
{
    return depot::read_names(depot_, area, out_names, out_others);
}

bool LocalStore::read(stg_area *area, const char *name, Entry &out_entry)
{
    return read_entry(depot_, area, name, out_entry);
}

bool LocalStore::put(const char *path, const Label &label)
{
    return put_file(depot_, path, label);
}

bool LocalStore::get(const char *name, const char *target, bool replace)
{
    return get_file(depot_, name, target, replace);
}

bool LocalStore::verify(const char *name)
{
    return verify_entry(depot_, name);
}

bool LocalStore::remove(const char *name)
{
    return remove_entry(depot_, name);
}

void LocalStore::close()
{
    close_depot(depot_);
}

} // namespace depot
