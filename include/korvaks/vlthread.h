/**
 * @file vlthread.h
 * Threads, locks and the library critical section.
 *
 * A thin layer over POSIX threads that adds what the library needs:
 *  - recursive mutexes that know their owner and count, per thread, the locks held. While that
 *    count is not 0 the fault manager (pfm.h) delivers no raise to the thread. A *noraise*
 *    mutex is not counted.
 *  - order classes (lock-order checking) and timing, both off unless asked for;
 *  - one library critical section and the thread attached to it;
 *  - a list of known threads with a raise status for each;
 *  - per-thread blocks that live in a storage area of their own;
 *  - fork with handlers, after which the child can go on using the locks.
 *
 * Results are POSIX error numbers, 0 for success, unless a comment says otherwise. Nothing here
 * prints through messages: with TRACE_VLTHREAD=TRUE in the environment every step writes one
 * line to descriptor 2. Misuse that cannot be returned ends the process.
 *
 * Any thread may call anything here. Locking and unlocking are not raise points.
 */
#ifndef KORVAKS_VLTHREAD_H
#define KORVAKS_VLTHREAD_H

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <korvaks/base.h>
#include <korvaks/llist.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Thread id; 0 names no thread. */
typedef pthread_t vlthread_t;
typedef pthread_attr_t vlthread_attr_t;
typedef pthread_cond_t vlthread_cond_t;
typedef pthread_key_t vlthread_key_t;
typedef pthread_once_t vlthread_once_t;

/** The id of no thread: what a free mutex has for an owner. */
#define VLTHREAD_INVALID_TID ((vlthread_t)0)
#define VLTHREAD_COND_INITIALIZER PTHREAD_COND_INITIALIZER
#define VLTHREAD_ONCE_INIT PTHREAD_ONCE_INIT

/** `raise_mode`: the lock counts in its holder's inhibit count. */
#define VLTHREAD_RAISE_COUNTED 1
/** `raise_mode`: it does not; a raise can leave a region that holds it. */
#define VLTHREAD_RAISE_IGNORED 2

/** Bit of `flags`: waiting, holding and condition times are summed. */
#define VLTHREAD_MUTEX_TIMED 0x1u

struct vlthread_mutex;

/**
 * An order class: mutexes of one class are to be taken in rising level. The record may be the
 * head of a larger one. The callback reports; locking goes on after it.
 */
typedef struct vlthread_order_class {
    void (*violation)(struct vlthread_mutex *locking, struct vlthread_mutex *held);
} vlthread_order_class;

/**
 * A library mutex. Recursive: its owner may lock it again. Initialise it with
 * VLTHREAD_MUTEX_INITIALIZER or an init function; the fields are for reading by their owner.
 */
typedef struct vlthread_mutex {
    pthread_mutex_t lock;
    vlthread_t owner;         /**< holder, 0 when free */
    llist_link order_link;    /**< place among the holder's ordered mutexes */
    void *locker;             /**< return address of the locking call (with an order class) */
    vlthread_order_class *order_class;
    int16_t level;            /**< order level within the class */
    uint16_t flags;           /**< VLTHREAD_MUTEX_TIMED */
    int32_t recursion_count;  /**< 0 when free */
    int32_t raise_mode;       /**< VLTHREAD_RAISE_COUNTED or VLTHREAD_RAISE_IGNORED */
    uint32_t lock_count;      /**< times taken, re-entries not counted */
    struct timeval wait_time; /**< waited for the lock, normalised like all three sums */
    struct timeval hold_time; /**< held */
    struct timeval cond_time; /**< spent in condition waits */
    struct timeval locked_at; /**< last acquisition, 0 when free */
} vlthread_mutex_t;

/* The braces and the order of the fields are part of the interface. */
#define VLTHREAD_MUTEX_INITIALIZER_MODE(mode)                                                                  \
    {                                                                                                          \
        PTHREAD_MUTEX_INITIALIZER, 0, {NULL, NULL, NULL}, NULL, NULL, 0, 0, 0, (mode), 0, {0, 0}, {0, 0},      \
            {0, 0}, {0, 0}                                                                                     \
    }
/** A free, counted mutex without order class or timing. */
#define VLTHREAD_MUTEX_INITIALIZER VLTHREAD_MUTEX_INITIALIZER_MODE(VLTHREAD_RAISE_COUNTED)
/** A free noraise mutex. */
#define VLTHREAD_MUTEX_INITIALIZER_NORAISE VLTHREAD_MUTEX_INITIALIZER_MODE(VLTHREAD_RAISE_IGNORED)

/** A read/write lock; `writer` is the last writer and is cleared by every unlock. */
typedef struct vlthread_rwlock {
    pthread_rwlock_t lock;
    int32_t raise_mode; /**< VLTHREAD_RAISE_COUNTED counts in the holder's inhibit count */
    uint32_t fork_generation; /**< private: under which generation of forks it was last used */
    vlthread_t writer;
} vlthread_rwlock_t;

/** Runs in a fork: `kind` is the argument of vlthread_fork(). */
typedef void (*vlthread_fork_fn)(int kind);

/** @name Start */
/**@{*/

/** Starts the layer once per process; reads TRACE_VLTHREAD. Called by whoever needs it. Returns 0. */
KS_API int vlthread_init(void);

/** pthread_once(). */
KS_API int vlthread_once(vlthread_once_t *once, void (*fn)(void));
/**@}*/

/** @name Mutexes */
/**@{*/

/** vlthread_mutex_init_full(mutex, 0, 0, 0, NULL): counted, unordered, untimed. */
KS_API int vlthread_mutex_init(vlthread_mutex_t *mutex);

/**
 * Initialises a mutex.
 * @param kind         type of the POSIX mutex underneath (pthread_mutexattr_settype)
 * @param level        order level within `order_class`
 * @param flags        VLTHREAD_MUTEX_TIMED or 0
 * @param order_class  order class, which outlives the mutex, or NULL
 * @return 0 or the POSIX error.
 */
KS_API int vlthread_mutex_init_full(vlthread_mutex_t *mutex, int kind, int16_t level, uint16_t flags,
                                    vlthread_order_class *order_class);

/** Makes a mutex noraise. EINVAL for NULL. To be called before it is locked. */
KS_API int vlthread_mutex_set_noraise(vlthread_mutex_t *mutex);

/** vlthread_mutex_init() and vlthread_mutex_set_noraise(). */
KS_API int vlthread_mutex_init_noraise(vlthread_mutex_t *mutex);

/** Ends a free mutex. */
KS_API int vlthread_mutex_destroy(vlthread_mutex_t *mutex);

/**
 * Takes a mutex, waiting for it; its owner re-enters at once. Calls the order class's callback
 * for each held mutex of the same class with a greater level, then goes on.
 */
KS_API int vlthread_mutex_lock(vlthread_mutex_t *mutex);

/** As vlthread_mutex_lock() without waiting and without the order check; EBUSY when another thread holds it. */
KS_API int vlthread_mutex_trylock(vlthread_mutex_t *mutex);

/** Leaves a mutex once. 1 when the caller is not its owner, and then nothing changes. */
KS_API int vlthread_mutex_unlock(vlthread_mutex_t *mutex);
/**@}*/

/** @name Read/write locks */
/**@{*/

/** Initialises a read/write lock; `raise_mode` VLTHREAD_RAISE_COUNTED counts it, others do not. */
KS_API int vlthread_rwlock_init(vlthread_rwlock_t *rwlock, int raise_mode);
KS_API int vlthread_rwlock_destroy(vlthread_rwlock_t *rwlock);

/**
 * Takes the lock for reading (rdlock) or writing (wrlock). The `_trylock` forms give EBUSY
 * instead of waiting. A thread that is the writer never waits: it gets the error of the
 * try form (EBUSY or EDEADLK).
 */
KS_API int vlthread_rwlock_rdlock(vlthread_rwlock_t *rwlock);
KS_API int vlthread_rwlock_rdlock_trylock(vlthread_rwlock_t *rwlock);
KS_API int vlthread_rwlock_wrlock(vlthread_rwlock_t *rwlock);
KS_API int vlthread_rwlock_wrlock_trylock(vlthread_rwlock_t *rwlock);

/** Releases one hold. */
KS_API int vlthread_rwlock_unlock(vlthread_rwlock_t *rwlock);
/**@}*/

/** @name Conditions */
/**@{*/

/**
 * Waits on a POSIX condition with a library mutex that the caller holds exactly once; holding
 * it otherwise ends the process. Wakes may be spurious. Returns 0 with the mutex held.
 */
KS_API int vlthread_cond_wait(vlthread_cond_t *cond, vlthread_mutex_t *mutex);

/** The same until `deadline` (absolute, the condition's clock): 0 or ETIMEDOUT, mutex held either way. */
KS_API int vlthread_cond_timedwait(vlthread_cond_t *cond, vlthread_mutex_t *mutex, const struct timespec *deadline);
/**@}*/

/** @name The library critical section */
/**@{*/

/** Enters the critical section (recursive) and makes the caller the attached thread. */
KS_API void vlthread_enter_critical_section(void);

/** Enters without waiting: 1 if entered, 0 if another thread is inside. */
KS_API int vlthread_try_enter_critical_section(void);

/**
 * Leaves one level; leaving the outermost detaches. A caller that is not the attached thread
 * or is not inside ends the process.
 */
KS_API void vlthread_leave_critical_section(void);

/** Leaves every level the caller is in; nothing when it is in none. */
KS_API void vlthread_release_critical_section(void);

/** The attached thread, 0 if none. */
KS_API vlthread_t vlthread_attached_tid(void);

/** 0 if the caller is or becomes the attached thread, 1 if another thread is attached. */
KS_API int vlthread_try_attach_lib(void);

/** Makes the caller the attached thread whoever was. Returns 0. */
KS_API int vlthread_force_attach_lib(void);
/**@}*/

/** @name Threads */
/**@{*/

/**
 * Starts a thread on the state list. Its stack is at least 1 MiB: a smaller size is raised, in
 * the caller's attribute too.
 *
 * @param out_thread  receives the id
 * @param attr        attribute or NULL
 * @param start, arg  function and argument; its return value is what vlthread_join() gives
 */
KS_API int vlthread_create(vlthread_t *out_thread, vlthread_attr_t *attr, void *(*start)(void *), void *arg);

/** Ends the calling thread: off the state list, out of the critical section, pthread_exit(). */
KS_API void vlthread_exit(void *value) KS_NORETURN;

/** Waits for a thread's end; `value` may be NULL. */
KS_API int vlthread_join(vlthread_t thread, void **value);

/** pthread_kill(). */
KS_API int vlthread_kill(vlthread_t thread, int sig);

/** 1 when `*tid` names no thread, else 0. */
KS_API int vlthread_is_null(const vlthread_t *tid);

/** Stores the id of no thread. */
KS_API void vlthread_set_null(vlthread_t *tid);

/** 1 when both ids name the same thread. */
static inline int vlthread_equal(vlthread_t a, vlthread_t b)
{
    return a == b;
}

/** The calling thread. */
static inline vlthread_t vlthread_self(void)
{
    return pthread_self();
}

/** Sleeps the whole time, interrupted or not. Returns 0. */
KS_API int vlthread_sleep(uint32_t milliseconds);
/**@}*/

/** @name Thread-local blocks */
/**@{*/

/** Makes a key (and starts the layer); `destructor` runs at the end of each thread with a value, or NULL. */
KS_API int vlthread_key_create(vlthread_key_t *key, void (*destructor)(void *));
KS_API int vlthread_key_delete(vlthread_key_t key);
KS_API int vlthread_set_tls(vlthread_key_t key, const void *value);
KS_API void *vlthread_get_tls(vlthread_key_t key);

/**
 * Makes a zeroed block of `size` bytes in a storage area of its own. The block's first word
 * holds that area, so the caller's structure starts with a stg_area pointer; it may allocate
 * more from there. NULL on exhaustion.
 */
KS_API void *vlthread_alloc_tls(size_t size);

/** Deletes a block's area, and with it the block. Usable as a key's destructor. */
KS_API void vlthread_free_tls(void *block);
/**@}*/

/** @name Raise status of threads */
/**@{*/

/** Marks `status` pending in every thread on the state list. */
KS_API void vlthread_notify_raise(int32_t status);

struct pfm_fault_block;

/** Forgets the caller's pending status. `holder`: the caller's fault block, or NULL. */
KS_API void vlthread_reset_raise(struct pfm_fault_block *holder);

/** The caller's pending status, 0 for none; puts the caller on the state list. */
KS_API int32_t vlthread_pending_raise(struct pfm_fault_block *holder);

/** Traces the state list. */
KS_API void vlthread_dump_thread(void);
/**@}*/

/** @name Fork */
/**@{*/

/** What the child of a fork is for. */
enum {
    VLTHREAD_FORK_PLAIN = 0,     /**< child becomes process type 4 and shares nothing but memory */
    VLTHREAD_FORK_EXEC = 1,      /**< as 0, with the locks and attachment of the forking thread */
    VLTHREAD_FORK_CONTINUE = 2,  /**< the child goes on as a full process of the library */
    VLTHREAD_FORK_CONTINUE_3 = 3 /**< as 2 */
};

/**
 * Registers fork handlers, each of which may be NULL. Prepare handlers run newest first, the
 * others in the order of registration. 0, or ENOMEM with nothing registered.
 */
KS_API int vlthread_atfork(vlthread_fork_fn prepare, vlthread_fork_fn parent, vlthread_fork_fn child);

/**
 * Forks. Every process-wide lock of the library and every storage area is held across the fork,
 * so that the child, of whatever kind, can lock, allocate and print. A child that only execs
 * should call nothing but async-signal-safe functions until then. A child whose exec fails and
 * that calls exit() runs the on-exit handlers inherited from its parent; _exit() does not.
 *
 * @param kind  VLTHREAD_FORK_ constant
 * @return as fork(2): the child's id, 0 in the child, -1 with errno.
 * Raises: no, once started.
 */
KS_API pid_t vlthread_fork(int kind);

/**
 * Called first in a child that starts as a program of its own: drops the cleanup records and on-exit
 * handlers that it has from its parent.
 */
KS_API void vlthread_fork_begin_clean(void);

/** Traces the fork handlers. */
KS_API void vlthread_dump_fork_handlers(void);
/**@}*/

/** @name Diagnostics of the layer */
/**@{*/

/** Writes one line to descriptor 2, only while tracing is on. */
KS_API void vlthread_trace(const char *format, ...) KS_PRINTF(1, 2);

/** The thread layer's assertion: one line to descriptor 2, then abort(). */
KS_API void vlthread_assert_fail(const char *expr, int line) KS_NORETURN;
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
