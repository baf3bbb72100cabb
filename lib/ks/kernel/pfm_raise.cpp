// Raises: delivery checks, cleanup records and inhibits.
#include "kernel/pfm_impl.h"

namespace ks::fault {

void deliver(pfm_fault_block *block)
{
    const int32_t pending = vlthread_pending_raise(block);
    if (block->pfm_inh_count != 0)
        return;
    if (pending == 0 && !pfm_exiting.load(std::memory_order_acquire)) [[likely]]
        return;
    // The signal-handler thread has passed on what reached it: were it to pass it on again at
    // each check, one request would be raised again and again.
    if (takes_no_raises() || pfm_stopped.load(std::memory_order_acquire))
        return;
    if (pfm_exiting.load(std::memory_order_acquire)) {
        pfm_exit(pfm_exit_status.load(std::memory_order_relaxed));
        return;
    }
    pfm_flush_notify_channel();
    pfm_raise(pending);
}

namespace {

bool is_on_chain(const pfm_cleanup_rec *root, const pfm_cleanup_rec *rec)
{
    for (const pfm_cleanup_rec *at = root; at != nullptr; at = at->next) {
        if (at == rec)
            return true;
    }
    return false;
}

void link_record(pfm_fault_block *block, pfm_cleanup_rec *rec)
{
    rec->next = block->cl_rec_root;
    rec->magic = PFM_MAGIC_SET;
    block->cl_rec_root = rec;
}

void unlink_record(pfm_fault_block *block, pfm_cleanup_rec *rec)
{
    rec->magic = PFM_MAGIC_TRIPPED;
    block->cl_rec_root = rec->next;
}

int32_t arm_record(pfm_fault_block *block, pfm_cleanup_rec *rec, int inhibit)
{
    if (block->cl_rec_root != nullptr)
        here.require(vlthread_equal(block->cl_rec_root->thr_id, vlthread_self()),
                     "vlthread_equal(cl_rec_root->thr_id, vlthread_self())", 1053);
    rec->thr_id = vlthread_self();
    rec->inh = block->pfm_inh_count;
    rec->inh_susp = block->pfm_inh_susp;
    if (inhibit != 0)
        pfm_inhibit();
    if (rec->magic == PFM_MAGIC_SET)
        here.require(!is_on_chain(block->cl_rec_root, rec), "cl_tmp != cl_rec", 1073);
    link_record(block, rec);
    return 0;
}

// A raise arrived. The caller's cleanup code runs inhibited, with the counts it started from.
int32_t trip_record(pfm_fault_block *block, pfm_cleanup_rec *rec)
{
    here.require(rec == block->cl_rec_root && rec->magic == PFM_MAGIC_SET,
                 "cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET", 1083);
    here.require(vlthread_equal(rec->thr_id, vlthread_self()), "vlthread_equal(cl_rec->thr_id, vlthread_self())", 1084);
    here.require(block->pfm_inh_count >= rec->inh, "pfm_inh_count >= cl_rec->inh", 1089);
    here.require(block->pfm_inh_susp >= rec->inh_susp, "pfm_inh_susp >= cl_rec->inh_susp", 1090);
    adjust_inhibits(block, (rec->inh - block->pfm_inh_count) + (rec->inh_susp - block->pfm_inh_susp) + 1);
    unlink_record(block, rec);
    block->pfm_inh_susp = rec->inh_susp;
    block->pfm_inh_count = rec->inh + 1;
    return rec->status;
}

// One of the thread's two counts of inhibits.
using Count = int32_t pfm_fault_block::*;

// What comes before and after a stretch without raises. Both give the caller's block, or NULL for
// a thread that takes no raises anyway.
[[gnu::always_inline]] inline pfm_fault_block *begin_hold(Count count)
{
    ensure_started();
    if (takes_no_raises())
        return nullptr;
    pfm_fault_block *block = ks::fault_block_of_caller();
    check_delivery(block);
    ++(block->*count);
    return block;
}

[[gnu::always_inline]] inline pfm_fault_block *end_hold(Count count)
{
    ensure_started();
    if (takes_no_raises())
        return nullptr;
    pfm_fault_block *block = ks::fault_block_of_caller();
    --(block->*count);
    here.require(block->*count >= 0, "inh_count >=0", 1218);
    return block;
}

void inhibit(Count count)
{
    if (pfm_fault_block *const block = begin_hold(count))
        add_inhibit(block);
}

void enable(Count count)
{
    if (pfm_fault_block *const block = end_hold(count)) {
        remove_inhibit(block);
        check_delivery(block);
    }
}

int32_t count_and_check(Count count)
{
    ensure_started();
    pfm_fault_block *block = ks::fault_block_of_caller();
    const int32_t value = block->*count;
    check_delivery(block);
    return value;
}

} // namespace

} // namespace ks::fault

namespace ks {

pfm_fault_block *begin_short_inhibit()
{
    return ks::fault::begin_hold(&pfm_fault_block::pfm_inh_count);
}

bool is_signal_handler_thread()
{
    return ks::fault::pfm_signal_handler_tid.load(std::memory_order_relaxed) == ks::self();
}

void end_short_inhibit(pfm_fault_block *inhibited)
{
    if (inhibited == nullptr) [[unlikely]]
        return;
    --inhibited->pfm_inh_count;
    ks::fault::check_delivery(inhibited);
}

} // namespace ks

extern "C" {

void pfm_raise(int32_t status)
{
    ks::fault::ensure_started();
    ks::fault::here.require(status > 0, "status > 0"); // others could not be told from a first pass
    if (ks::fault::takes_no_raises()) {
        pfm_notify_vl_thread(status);
        return;
    }
    pfm_fault_block *block = ks::fault_block_of_caller();
    pfm_cleanup_rec *rec = block->cl_rec_root;
    if (rec == nullptr) {
        pfm_exit(status);
        return;
    }
    ks::fault::here.require(vlthread_equal(vlthread_self(), rec->thr_id),
                            "vlthread_equal(vlthread_self(), cl_rec_root->thr_id)", 1018);
    vlthread_reset_raise(block);
    siglongjmp(rec->jump, status);
}

void pfm_test_raise(struct pfm_fault_block *block)
{
    if (block == nullptr)
        block = ks::fault_block_of_caller();
    // Nothing can be delivered, so nothing has to be started: a print under an inner lock comes here,
    // and the start takes an outer one.
    if (block->pfm_inh_count != 0)
        return;
    ks::fault::ensure_started();
    ks::fault::check_delivery(block);
}

int32_t pfm_cleanup_start(pfm_cleanup_rec *rec, int inhibit)
{
    ks::fault::ensure_started();
    pfm_fault_block *block = ks::fault_block_of_caller();
    ks::fault::check_delivery(block);
    if (rec->status == 0)
        return ks::fault::arm_record(block, rec, inhibit);
    if (rec->status < 0)
        return rec->status;
    return ks::fault::trip_record(block, rec);
}

void pfm_cleanup_rls(pfm_cleanup_rec *rec)
{
    pfm_fault_block *block = ks::fault_block_of_caller();
    ks::fault::here.require(rec == block->cl_rec_root && rec->magic == PFM_MAGIC_SET,
                            "cl_rec == cl_rec_root && cl_rec->magic == MAGIC_SET", 1136);
    if (ks::fault::delivers_at_records())
        ks::fault::check_delivery(block);
    ks::fault::unlink_record(block, rec);
}

void pfm_cleanup_reset(pfm_cleanup_rec *rec)
{
    pfm_fault_block *block = ks::fault_block_of_caller();
    ks::fault::here.require(rec->magic == PFM_MAGIC_TRIPPED, "cl_rec->magic == MAGIC_TRIPPED", 1151);
    if (ks::fault::delivers_at_records())
        ks::fault::check_delivery(block);
    ks::fault::link_record(block, rec);
    pfm_enable();
}

void pfm_inhibit(void)
{
    ks::fault::inhibit(&pfm_fault_block::pfm_inh_count);
}

void pfm_enable(void)
{
    ks::fault::enable(&pfm_fault_block::pfm_inh_count);
}

void pfm_inhibit_suspend(void)
{
    ks::fault::inhibit(&pfm_fault_block::pfm_inh_susp);
}

void pfm_enable_suspend(void)
{
    ks::fault::enable(&pfm_fault_block::pfm_inh_susp);
}

int32_t pfm_inhibit_count(void)
{
    return ks::fault::count_and_check(&pfm_fault_block::pfm_inh_count);
}

int32_t pfm_inhibit_suspend_count(void)
{
    return ks::fault::count_and_check(&pfm_fault_block::pfm_inh_susp);
}
}
