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
 *
 * Cancellation (pthread_cancel()). Only deferred cancellation is supported. A thread that is
 * cancelled, like one that calls pthread_exit(), leaves the state list and the critical section and
 * gives its inhibits back. It never leaves a process-wide lock of the library behind. Mutexes and
 * read/write locks of a program stay locked unless the program's cleanup handlers unlock them.
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

#if defined(__GLIBC__) && !defined(__USE_UNIX98) && !defined(__USE_XOPEN2K)
/* Strict C without a feature macro: the platform has the type and does not name it (nor its initialiser). */
typedef union {
    struct __pthread_rwlock_arch_t __data;
    char __size[__SIZEOF_PTHREAD_RWLOCK_T];
    long int __align;
} pthread_rwlock_t;
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

/** A free, counted read/write lock. It need not be destroyed. */
#define VLTHREAD_RWLOCK_INITIALIZER {PTHREAD_RWLOCK_INITIALIZER, VLTHREAD_RAISE_COUNTED, 0, 0}

/** Runs in a fork: `kind` is the argument of vlthread_fork(). */
typedef void (*vlthread_fork_fn)(int kind);

/** @name Start */
/**@{*/

/**
 * Starts the thread layer, once per process; every other call here that needs it does so itself.
 *
 * The first call reads TRACE_VLTHREAD from the environment (tracing is on for "TRUE" in any letter
 * case) and puts the caller on the state list. Later calls do nothing.
 *
 * @return 0. A process that cannot have a per-thread key, or memory for one thread, ends with a line
 *         on descriptor 2.
 * Threads: any; concurrent first calls wait for the one that works. Raises: no.
 */
KS_API int vlthread_init(void);

/**
 * Runs `fn` once for a control variable, whoever calls first: pthread_once() (POSIX).
 *
 * @param once  static variable, initialised with VLTHREAD_ONCE_INIT
 * @param fn    called without arguments; callers that come meanwhile wait until it returned. It must not
 *              leave by a raise or pthread_exit().
 * @return 0, or EINVAL where the platform checks `once`.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_once(vlthread_once_t *once, void (*fn)(void));
/**@}*/

/** @name Mutexes */
/**@{*/

/**
 * Initialises a mutex as vlthread_mutex_init_full(mutex, 0, 0, 0, NULL) does: counted, without order or
 * timing. VLTHREAD_MUTEX_INITIALIZER does the same at compile time.
 *
 * @param mutex  caller's memory, not initialised yet; ended with vlthread_mutex_destroy()
 * @return 0, or the POSIX error, and then the mutex is not usable.
 * Threads: any, one at a time for one mutex. Raises: no.
 */
KS_API int vlthread_mutex_init(vlthread_mutex_t *mutex);

/**
 * Initialises a mutex: free, never taken, all times 0, counted.
 *
 * @param mutex        caller's memory, which must outlive every use
 * @param kind         type of the POSIX mutex underneath (pthread_mutexattr_settype()); 0 is the default.
 *                     The library mutex is recursive whatever it is.
 * @param level        place within `order_class`, rising; without a class it means nothing
 * @param flags        VLTHREAD_MUTEX_TIMED or 0
 * @param order_class  order class, which outlives the mutex, or NULL
 * @return 0; EINVAL for a `kind` that the platform does not know; else the POSIX error (EAGAIN, ENOMEM).
 *         After an error the mutex is not usable.
 * Threads: any, one at a time for one mutex. Raises: no.
 */
KS_API int vlthread_mutex_init_full(vlthread_mutex_t *mutex, int kind, int16_t level, uint16_t flags,
                                    vlthread_order_class *order_class);

/**
 * Makes a mutex *noraise*: it is not counted in its holder's inhibit count, so a raise can leave the region
 * that holds it, and the mutex stays locked. Code under it calls no raise point.
 *
 * @param mutex  initialised and free; changing one that is held is misuse that nobody notices
 * @return 0; EINVAL for NULL.
 * Threads: any, before others use the mutex. Raises: no.
 */
KS_API int vlthread_mutex_set_noraise(vlthread_mutex_t *mutex);

/**
 * vlthread_mutex_init() followed by vlthread_mutex_set_noraise(); VLTHREAD_MUTEX_INITIALIZER_NORAISE does
 * the same at compile time.
 *
 * @return 0, or the POSIX error of the initialisation.
 * Threads: any, one at a time for one mutex. Raises: no.
 */
KS_API int vlthread_mutex_init_noraise(vlthread_mutex_t *mutex);

/**
 * Ends a mutex, whose memory is then the caller's to use again. It must be free and no thread may be about
 * to take it.
 *
 * @return 0; EBUSY where the platform finds it locked, and then it is as before (traced as "Unable to
 *         destroy mutex").
 * Threads: any. Raises: no.
 */
KS_API int vlthread_mutex_destroy(vlthread_mutex_t *mutex);

/**
 * Takes a mutex, waiting for it as long as it takes. Its owner re-enters at once, and leaves as many times.
 *
 * With an order class, the class's callback is called first for each mutex of the same class that the
 * caller holds at a greater level; the mutex is taken all the same. A counted mutex counts as an inhibit
 * of the caller from before the wait until it is left.
 *
 * @return 0 with the mutex held; else the POSIX error (for a mutex that is none: EINVAL), nothing held.
 * Threads: any. Not a cancellation point. Raises: no.
 */
KS_API int vlthread_mutex_lock(vlthread_mutex_t *mutex);

/**
 * Takes a mutex if that needs no waiting. Its owner re-enters. The order is not checked, since a
 * call that does not wait cannot be part of a deadlock.
 *
 * @return 0 with the mutex held; EBUSY when another thread holds it; else the POSIX error.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_mutex_trylock(vlthread_mutex_t *mutex);

/**
 * Leaves a mutex once; the last leave frees it. A pending raise is not delivered here but at the next
 * delivery check (pfm.h).
 *
 * @return 0; 1 when the caller is not the owner, and then nothing changes; else the POSIX error.
 * Threads: the owner's. After the last leave the mutex may already be another thread's. Raises: no.
 */
KS_API int vlthread_mutex_unlock(vlthread_mutex_t *mutex);
/**@}*/

/** @name Read/write locks */
/**@{*/

/**
 * Initialises a read/write lock: free, without a writer.
 *
 * After a fork the child's locks are sound: what the forking thread holds stays held, and what other
 * threads held is free. (A thread that holds read locks while it forks should give them back
 * before the child asks for the same locks for writing.)
 *
 * @param rwlock      caller's memory, which must outlive every use
 * @param raise_mode  VLTHREAD_RAISE_COUNTED: each hold is an inhibit of its thread; any other value: not
 * @return 0, or the POSIX error (EAGAIN, ENOMEM), and then the lock is not usable.
 * Threads: any, one at a time for one lock. Raises: no.
 */
KS_API int vlthread_rwlock_init(vlthread_rwlock_t *rwlock, int raise_mode);

/**
 * Ends a read/write lock that nobody holds or waits for.
 * @return 0; EBUSY where the platform finds it held, and then it is as before.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_rwlock_destroy(vlthread_rwlock_t *rwlock);

/**
 * Takes the lock for reading, waiting while a thread holds it for writing. Several threads may read at
 * once, and one thread several times.
 *
 * @return 0 with one more hold; EBUSY or EDEADLK when the caller is the writer (it never waits for itself);
 *         EAGAIN when the platform can count no more readers.
 * Threads: any. Not a cancellation point. Raises: no.
 */
KS_API int vlthread_rwlock_rdlock(vlthread_rwlock_t *rwlock);

/**
 * Takes the lock for reading if that needs no waiting.
 * @return 0 with one more hold; EBUSY when a thread, the caller too, holds it for writing; EAGAIN as above.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_rwlock_rdlock_trylock(vlthread_rwlock_t *rwlock);

/**
 * Takes the lock for writing, waiting until nobody holds it. A thread that reads must give its hold back
 * first, or it waits for itself.
 *
 * @return 0 with the lock held and the caller recorded as `writer`; EBUSY or EDEADLK when the caller is the
 *         writer already.
 * Threads: any. Not a cancellation point. Raises: no.
 */
KS_API int vlthread_rwlock_wrlock(vlthread_rwlock_t *rwlock);

/**
 * Takes the lock for writing if that needs no waiting.
 * @return 0 with the lock held; EBUSY when any thread, the caller too, holds it.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_rwlock_wrlock_trylock(vlthread_rwlock_t *rwlock);

/**
 * Gives one hold back, for reading or writing. `writer` is cleared, by a reader's unlock as well. To unlock
 * what the caller does not hold is misuse that the platform does not notice.
 *
 * @return 0, or the POSIX error, and then nothing changed.
 * Threads: the holder's. Raises: no.
 */
KS_API int vlthread_rwlock_unlock(vlthread_rwlock_t *rwlock);
/**@}*/

/** @name Conditions */
/**@{*/

/**
 * Waits for a signal on a POSIX condition and gives the mutex up meanwhile: pthread_cond_wait() with a
 * library mutex. Wakes may be spurious, so the caller tests its predicate in a loop. A counted mutex
 * does not inhibit during the wait, but a raise that arrives does not end it.
 *
 * @param cond   initialised (VLTHREAD_COND_INITIALIZER), signalled with pthread_cond_signal() or
 *               pthread_cond_broadcast()
 * @param mutex  held by the caller exactly once; otherwise the process ends ("mutex->owner == self",
 *               "mutex->recursion_count == 1")
 * @return 0 with the mutex held again. Any error of the platform ends the process.
 * Threads: the mutex's owner. A cancellation point: the mutex is the thread's again when its cleanup
 * handlers run, and they unlock it. Raises: no.
 */
KS_API int vlthread_cond_wait(vlthread_cond_t *cond, vlthread_mutex_t *mutex);

/**
 * vlthread_cond_wait() that ends at a deadline.
 *
 * @param deadline  absolute time of the condition's clock (CLOCK_REALTIME unless its attributes say
 *                  otherwise); one that is past makes the call return at once
 * @return 0 or ETIMEDOUT, with the mutex held again either way. Other errors, an impossible
 *         `deadline` among them, end the process ("err == 0 || err == ETIMEDOUT").
 * Threads, cancellation and raises: as vlthread_cond_wait().
 */
KS_API int vlthread_cond_timedwait(vlthread_cond_t *cond, vlthread_mutex_t *mutex, const struct timespec *deadline);
/**@}*/

/** @name The library critical section */
/**@{*/

/**
 * Enters the critical section, waiting while another thread is inside, and makes the caller the attached
 * thread: the one that takes raises and runs the event loop. Recursive; each entry is left once.
 *
 * It empties the notify pipe and puts the caller on the state list. The section is a counted lock, so the
 * caller is inhibited inside.
 *
 * Threads: any. Exhausted memory at a thread's first entry ends the process. Raises: no.
 */
KS_API void vlthread_enter_critical_section(void);

/**
 * Enters the critical section if that needs no waiting.
 * @return 1 if entered, as above; 0 if another thread is inside, and then nothing changed.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_try_enter_critical_section(void);

/**
 * Leaves one level of the critical section. Leaving the outermost detaches: no thread is attached then, and
 * signals go to the handlers from before the library. Kept exactly: the thread stays on the state list.
 *
 * A caller that is not the attached thread, or is not inside, ends the process
 * ("vlthread_equal(vlthread_lib_attached_tid, vlthread_self())", "CRITICAL_SECTION_RECUR_COUNT > 0").
 * Threads: the one inside. Raises: no.
 */
KS_API void vlthread_leave_critical_section(void);

/**
 * Leaves every level of the critical section that the caller is in; nothing when it is in none.
 * Threads: any. Raises: no.
 */
KS_API void vlthread_release_critical_section(void);

/** The attached thread's id at this moment, VLTHREAD_INVALID_TID if there is none. Any thread. Raises: no. */
KS_API vlthread_t vlthread_attached_tid(void);

/**
 * Attaches the caller if no thread is attached, without entering the critical section.
 * @return 0 if the caller is the attached thread now, or was before; 1 if another thread is.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_try_attach_lib(void);

/**
 * Makes the caller the attached thread whoever was. A thread that is inside the critical section must not
 * be dispossessed: it could not leave any more.
 * @return 0.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_force_attach_lib(void);
/**@}*/

/** @name Threads */
/**@{*/

/**
 * Starts a thread that the library knows from its first instruction: it is on the state list, with nothing
 * pending. Its stack has 1 MiB at least.
 *
 * @param out_thread  receives the id; the caller joins the thread with vlthread_join(), unless the attribute
 *                    makes it detached
 * @param attr        POSIX attribute, or NULL for the default. A stack size that cannot be read or is below
 *                    1048576 bytes is set to that, in the caller's attribute too.
 * @param start, arg  function and argument; what it returns is what vlthread_join() gives
 * @return 0; EAGAIN when threads or memory are exhausted; EINVAL or EPERM for the attribute. After an error
 *         nothing was started.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_create(vlthread_t *out_thread, vlthread_attr_t *attr, void *(*start)(void *), void *arg);

/**
 * Ends the calling thread: off the state list, out of the critical section, its inhibits given back, then
 * pthread_exit(). The attached thread is attached no more. No C++ destructor of the thread's frames
 * runs in code that was compiled without exceptions. Where memory is exhausted the C library may end the
 * process here; returning from the thread's function needs none.
 *
 * @param value  what vlthread_join() gives
 * Does not return. Threads: any. Raises: no.
 */
KS_API void vlthread_exit(void *value) KS_NORETURN;

/**
 * Waits for the end of a thread and frees what is left of it. A raise does not end the wait.
 *
 * @param thread  joinable and not joined yet
 * @param value   receives what the thread returned, PTHREAD_CANCELED for a cancelled one; may be NULL
 * @return 0; EDEADLK for the caller itself; ESRCH or EINVAL for what is no joinable thread.
 * Threads: any but `thread`. A cancellation point. Raises: no.
 */
KS_API int vlthread_join(vlthread_t thread, void **value);

/**
 * Sends a signal to a thread of the process: pthread_kill(). 0 only asks whether the thread is there.
 * @return 0; EINVAL for no signal; ESRCH for a thread that ended. An id that was joined is misuse.
 * Threads: any; async-signal-safe. Raises: no.
 */
KS_API int vlthread_kill(vlthread_t thread, int sig);

/** 1 when `*tid` names no thread (VLTHREAD_INVALID_TID), else 0. Any thread. Raises: no. */
KS_API int vlthread_is_null(const vlthread_t *tid);

/** Stores the id of no thread in `*tid`. Any thread. Raises: no. */
KS_API void vlthread_set_null(vlthread_t *tid);

/** 1 when both ids name the same thread, else 0. */
static inline int vlthread_equal(vlthread_t a, vlthread_t b)
{
    return a == b;
}

/** The calling thread's id. */
static inline vlthread_t vlthread_self(void)
{
    return pthread_self();
}

/**
 * Sleeps the whole time; a signal that is handled meanwhile does not shorten it, and a raise does not end it.
 * @param milliseconds  0 gives the processor up for a moment
 * @return 0.
 * Threads: any. A cancellation point. Raises: no.
 */
KS_API int vlthread_sleep(uint32_t milliseconds);
/**@}*/

/** @name Thread-local blocks */
/**@{*/

/**
 * Makes a key under which each thread keeps one pointer, NULL at first: pthread_key_create().
 *
 * @param key         receives the key; 0 after an error
 * @param destructor  called at the end of each thread whose pointer is not NULL, or NULL for none
 * @return 0; EAGAIN when the process has no more keys; ENOMEM.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_key_create(vlthread_key_t *key, void (*destructor)(void *));

/**
 * Gives a key back; no destructor runs any more, so what threads keep under it is the caller's to free.
 * @return 0; EINVAL for no key.
 * Threads: any, when none uses the key. Raises: no.
 */
KS_API int vlthread_key_delete(vlthread_key_t key);

/**
 * Keeps `value` for the calling thread under a key; the old value is simply forgotten.
 * @return 0; EINVAL for no key; ENOMEM.
 * Threads: any, each has its own value. Raises: no.
 */
KS_API int vlthread_set_tls(vlthread_key_t key, const void *value);

/** The calling thread's value under a key, NULL if it has none. Any thread. Raises: no. */
KS_API void *vlthread_get_tls(vlthread_key_t key);

/**
 * Makes a zeroed block in a storage area of its own.
 *
 * The block's first word holds that area, so the caller's structure starts with a stg_area pointer; more may
 * be allocated from there, and all of it goes with the block.
 *
 * @param size  bytes; less than a pointer counts as a pointer
 * @return the block, ended with vlthread_free_tls(); NULL on exhaustion of its memory (message). An area that
 *         cannot be made ends the process ("area != STG_AREA_NULL").
 * Threads: any. Raises: no.
 */
KS_API void *vlthread_alloc_tls(size_t size);

/**
 * Deletes a block's area, and with it the block and whatever was allocated beside it. NULL and a block whose
 * first word is NULL are left alone. Usable as a key's destructor.
 * Threads: any. Raises: no.
 */
KS_API void vlthread_free_tls(void *block);
/**@}*/

/** @name Raise status of threads */
/**@{*/

/**
 * Marks `status` pending in every thread on the state list; each takes it at its next delivery check
 * (pfm.h). An earlier pending status is replaced; 0 clears. No waiting thread is woken:
 * pfm_notify_vl_thread() does both.
 * Threads: any. Raises: no.
 */
KS_API void vlthread_notify_raise(int32_t status);

struct pfm_fault_block;

/**
 * Forgets the caller's pending status. Nothing for a thread that is not on the state list.
 * @param holder  the caller's fault block, or NULL
 * Threads: the block's own. Raises: no.
 */
KS_API void vlthread_reset_raise(struct pfm_fault_block *holder);

/**
 * The status that is pending for the caller, without delivering it; puts the caller on the state list if it
 * is not there (exhausted memory then ends the process).
 * @param holder  the caller's fault block, or NULL
 * @return the status, 0 for none.
 * Threads: the block's own. Raises: no.
 */
KS_API int32_t vlthread_pending_raise(struct pfm_fault_block *holder);

/** Traces the state list, one line a thread, while tracing is on. Any thread. Raises: no. */
KS_API void vlthread_dump_thread(void);
/**@}*/

/** @name Fork */
/**@{*/

/**
 * What the child of a fork is for. In each of them the child's one thread is the attached thread, and it
 * has its parent's cleanup records and on-exit handlers: told to stop, it runs them. A child that is to be a
 * program of its own calls vlthread_fork_begin_clean() first.
 */
enum {
    VLTHREAD_FORK_PLAIN = 0,     /**< will exec or exit soon; process type 4; shares nothing but memory */
    VLTHREAD_FORK_EXEC = 1,      /**< as 0, and locks that the forking thread holds stay its own */
    VLTHREAD_FORK_CONTINUE = 2,  /**< goes on as a full process of the library, locks as with 1 */
    VLTHREAD_FORK_CONTINUE_3 = 3 /**< as 2 */
};

/**
 * Registers fork handlers for the life of the process. Prepare handlers run newest first in the parent,
 * before the fork; the others in the order of registration, in parent and child, after it. Each is given
 * the kind of the fork.
 *
 * The handlers run with no lock of the library held and every call usable, in the child too; they may lock
 * what other threads hold while they call the library. They must not fork or register handlers. Forks
 * follow each other: a thread must not fork while it holds what a prepare handler locks.
 *
 * @param prepare, parent, child  each may be NULL
 * @return 0; ENOMEM with nothing registered.
 * Threads: any. Raises: no.
 */
KS_API int vlthread_atfork(vlthread_fork_fn prepare, vlthread_fork_fn parent, vlthread_fork_fn child);

/**
 * Forks, after starting the fault manager if need be.
 *
 * Every process-wide lock of the library but the critical section is held across the fork and no thread is
 * inside a storage area, so that the child, of whatever kind, can lock, allocate, print and read the
 * environment. Threads that come to such a lock meanwhile wait; a message that is being printed is waited
 * for with nothing held. The child has a notify pipe of its own. Signals are held off in the child until its
 * handlers have run; kinds 0 and 1 then unblock all asynchronous ones, the others take them as their parent.
 *
 * A child that only execs should call nothing but async-signal-safe functions until then. A child whose exec
 * fails and that calls exit() runs the on-exit handlers inherited from its parent; _exit() does not. A child
 * that is told to stop runs its parent's cleanup records: see vlthread_fork_begin_clean().
 *
 * @param kind  a VLTHREAD_FORK_ constant; 0 and 1 make a child of process type 4 (pfm.h)
 * @return as fork(2): the child's id, 0 in the child, -1 with errno (EAGAIN, ENOMEM), after the parent
 *         handlers have run.
 * Threads: any. The caller holds no lock of the library but the critical section. Raises: no, once started.
 */
KS_API pid_t vlthread_fork(int kind);

/**
 * Called first in a child of vlthread_fork() that starts as a program of its own: drops the cleanup records
 * and the on-exit handlers that it has from its parent. A stop then ends the child at once instead of
 * undoing its parent's work.
 *
 * The functions that opened those records must not be returned into: the child ends by pfm_exit(), exit(),
 * _exit() or exec. In a process that is no child of vlthread_fork() the call ends the process
 * ("is_fork_child").
 *
 * Threads: the child's first, before it starts others. Raises: no.
 */
KS_API void vlthread_fork_begin_clean(void);

/** Traces the three lists of fork handlers while tracing is on. Any thread. Raises: no. */
KS_API void vlthread_dump_fork_handlers(void);
/**@}*/

/** @name Diagnostics of the layer */
/**@{*/

/**
 * Writes one line to descriptor 2 in one write(2), only while tracing is on (TRACE_VLTHREAD): the time, process
 * and thread, then the formatted text, 4095 bytes in all at most; what is longer is cut. errno stays.
 * Threads: any. No cancellation point. Raises: no.
 */
KS_API void vlthread_trace(const char *format, ...) KS_PRINTF(1, 2);

/**
 * The thread layer's assertion: writes "vlthread assertion fail: [%lu] %s at 'vlthread':%d\n" (thread,
 * `expr`, `line`) to descriptor 2, cut at 4094 bytes, and aborts.
 * Does not return. Threads: any. Raises: no.
 */
KS_API void vlthread_assert_fail(const char *expr, int line) KS_NORETURN;
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
