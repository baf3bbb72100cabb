// What the commands work with: a depot, wherever it is. There are two kinds, a directory of this host's and a server's
// depot (depot_remote.h).
#pragma once

#include "depot.h"
#include "depot_names.h"

#include <korvaks/stg.h>

namespace depot {

// What fails has been reported when a function returns false. All of them are raise points, and after a raise the store
// is good for close() only. A store is plain numbers and pointers: it has no destructor that does anything.
class Store {
  public:
    // Whether an entry, or something in its place, is there.
    virtual bool look_up(const char *name, bool &out_is_there) = 0;

    // All entries, and the files that do not belong in the depot, in any order and in memory of the area.
    virtual bool read_names(stg_area *area, Names &out_names, Names &out_others) = 0;

    // What an entry's header says, its texts in memory of the area.
    virtual bool read(stg_area *area, const char *name, Entry &out_entry) = 0;

    // As put_file() and get_file() of depot.h.
    virtual bool put(const char *path, const Label &label) = 0;
    virtual bool get(const char *name, const char *target, bool replace) = 0;

    virtual bool verify(const char *name) = 0;
    virtual bool remove(const char *name) = 0;

    // Gives back all it holds, ends what a raise has left half done, too.
    virtual void close() = 0;

  protected:
    ~Store() = default;
};

class LocalStore final : public Store {
  public:
    bool open(const char *path, bool make) { return open_depot(path, make, depot_); }

    bool look_up(const char *name, bool &out_is_there) override;
    bool read_names(stg_area *area, Names &out_names, Names &out_others) override;
    bool read(stg_area *area, const char *name, Entry &out_entry) override;
    bool put(const char *path, const Label &label) override;
    bool get(const char *name, const char *target, bool replace) override;
    bool verify(const char *name) override;
    bool remove(const char *name) override;
    void close() override;

  private:
    Depot depot_;
};

} // namespace depot
