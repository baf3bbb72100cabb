// Handles: how they are made, kept, changed and ended.
#include "command/clp_impl.h"

#include <cstddef>
#include <type_traits>

static_assert(std::is_standard_layout_v<clp_handle> && std::is_trivially_copyable_v<clp_handle>);
static_assert(offsetof(clp_handle, magic) == 0 && offsetof(clp_handle, area) == 8);
static_assert(offsetof(clp_handle, argc) == 16 && offsetof(clp_handle, argv) == 24);
static_assert(offsetof(clp_handle, index) == 32 && offsetof(clp_handle, next_value) == 40);
static_assert(offsetof(clp_handle, end_of_flags) == 48 && offsetof(clp_handle, descriptor_count) == 52);
static_assert(offsetof(clp_handle, descriptors) == 56 && offsetof(clp_handle, constraints) == 64);
static_assert(offsetof(clp_handle, obsolete_mode) == 72 && offsetof(clp_handle, last_flag_name) == 80);
static_assert(sizeof(clp_handle) == 88);

namespace {

using ks::clp::fail;
using ks::clp::here;
using ks::clp::require_handle;
using ks::clp::Split;
using ks::clp::Table;
using ks::clp::Words;

constexpr std::uint64_t own_area_bytes = 1000;

// The heap gives nothing back at a handle's end, so it stands for an area of the handle's own.
bool is_none(const stg_area *area)
{
    return area == STG_AREA_NULL || area == STG_AREA_HEAP;
}

clp_handle *allocate(stg_area *area)
{
    return static_cast<clp_handle *>(stg_alloc(area, sizeof(clp_handle)));
}

void install(clp_handle &hdl, const Table &table, clp_constraint *constraints)
{
    hdl.descriptor_count = table.count;
    hdl.descriptors = table.descriptors;
    hdl.constraints = constraints;
    hdl.last_flag_name = nullptr;
}

// NULL when memory is exhausted.
clp_handle *make_handle(const Words &words, const Table &table, stg_area *area)
{
    clp_handle *const hdl = allocate(area);
    clp_constraint *const constraints = hdl != nullptr ? make_constraints(table, area) : nullptr;
    if (constraints == nullptr)
        return nullptr;
    *hdl = clp_handle{};
    hdl->magic = CLP_MAGIC;
    hdl->argc = words.count;
    hdl->argv = words.vector;
    hdl->obsolete_mode = ks::clp::read_obsolete_mode();
    install(*hdl, table, constraints);
    return hdl;
}

// The words, or else a command to be split into them.
struct Line {
    Words words;
    const char *command = nullptr;
};

// Without an own area, what a failure leaves behind goes with the caller's.
clp_handle *create(Line line, const clp_flag_desc *descriptors, stg_area *area)
{
    stg_area *own = STG_AREA_NULL;
    if (is_none(area)) {
        own = stg_create_area(own_area_bytes);
        if (own == STG_AREA_NULL)
            return nullptr;
        area = own;
    }
    const Table table = ks::clp::examine_table(descriptors);
    const Split outcome = line.command == nullptr ? Split::done : split(line.command, area, line.words);
    clp_handle *hdl = nullptr;
    if (outcome == Split::done && !table.is_faulty)
        hdl = make_handle(line.words, table, area);
    if (hdl != nullptr) {
        hdl->area = own;
        return hdl;
    }
    if (own != STG_AREA_NULL)
        stg_delete_area(&own);
    if (outcome != Split::done)
        (void)report_split(outcome); // the caller sees that there is no handle
    else if (table.is_faulty)
        (void)report_fault(table);
    return nullptr;
}

} // namespace

extern "C" {

clp_handle *clp_create_hdl_using_argv(int argc, char **argv, const clp_flag_desc *descriptors, stg_area *area)
{
    return create({{argc, argv}, nullptr}, descriptors, area);
}

clp_handle *clp_create_hdl_using_string(const char *command, const clp_flag_desc *descriptors, stg_area *area)
{
    here.require(command != nullptr, "command != NULL");
    return create({{}, command}, descriptors, area);
}

int clp_switch_flags(clp_handle *hdl, const clp_flag_desc *descriptors, stg_area *area)
{
    require_handle(hdl);
    if (is_none(area))
        area = hdl->area;
    if (area == STG_AREA_NULL)
        return fail(clp_msg_no_area_for_switch);
    const Table table = ks::clp::examine_table(descriptors);
    if (table.is_faulty)
        return report_fault(table);
    clp_constraint *const constraints = make_constraints(table, area);
    if (constraints == nullptr)
        return ks::clp::failure;
    install(*hdl, table, constraints);
    return ks::clp::success;
}

clp_handle *clp_save_hdl(const clp_handle *hdl)
{
    require_handle(hdl);
    if (hdl->constraints == nullptr)
        ks::clp::fail_and_abort(clp_msg_null_constraints);
    clp_handle *const saved = allocate(hdl->area != STG_AREA_NULL ? hdl->area : ks::clp::area_of(hdl->constraints));
    if (saved != nullptr)
        *saved = *hdl;
    return saved;
}

int clp_restore_hdl(clp_handle *hdl, const clp_handle *saved)
{
    require_handle(hdl);
    require_handle(saved);
    const std::uint32_t magic = hdl->magic;
    *hdl = *saved;
    hdl->magic = magic;
    return ks::clp::success;
}

int clp_destroy_hdl(clp_handle **hdl)
{
    require_handle(hdl != nullptr ? *hdl : nullptr);
    stg_area *own = (*hdl)->area;
    (*hdl)->magic = 0; // so that a handle in the caller's area is not taken for a live one
    *hdl = nullptr;
    if (own != STG_AREA_NULL)
        stg_delete_area(&own);
    return ks::clp::success;
}

int clp_get_argc(const clp_handle *hdl)
{
    require_handle(hdl);
    return hdl->argc;
}

int clp_get_command_name(const clp_handle *hdl, char **out_name)
{
    require_handle(hdl);
    *out_name = ks::clp::word_at(hdl, 0);
    return *out_name != nullptr ? ks::clp::success : ks::clp::nothing_more;
}
}
