/**
 * @file evutl.h
 * Environments: private copies, and the process's own under a lock.
 *
 * A private environment holds strings NAME=value in a storage area. A server builds the environment
 * of a child in it without touching its own. Life cycle: evutl_alloc() or evutl_copy_environ(), any
 * number of changes, evutl_env2environ() for execve(2), at last evutl_free(). With STG_AREA_HEAP the
 * strings that a change replaces are freed and evutl_free() frees the rest; in any other area all
 * memory stays until the area is cleared or deleted. Each has a lock of its own, which every
 * operation takes, so threads may share one. A child that is forked while another thread is inside such an
 * operation must leave that environment alone: the lock has no owner there.
 *
 * The process's own environment is read with getenv_safe() and changed with putenv_safe() and the
 * _default_environ calls, all under one recursive lock. What getenv(3) returned is safe to use only
 * while that lock is held. While holding it take no other lock of the library, print nothing and
 * allocate nothing from it.
 *
 * A name is any text that is not empty and has no '='. A wrong one is refused with errno EINVAL.
 * Changes and copies return 0, or 1 with errno (EINVAL, ENOMEM) and nothing changed. NULL for an
 * environment, a name or a value is misuse wherever a comment does not give it a meaning.
 *
 * Any thread may call anything here. Nothing here raises.
 */
#ifndef KORVAKS_EVUTL_H
#define KORVAKS_EVUTL_H

#include <korvaks/base.h>
#include <korvaks/stg.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A private environment; its insides are private. */
typedef struct evutl_env evutl_env;

/** @name Private environments */
/**@{*/

/**
 * Makes an empty environment.
 *
 * @param area     area of the record, the array and the strings, which must live as long as the environment;
 *                 STG_AREA_HEAP makes heap blocks of them. STG_AREA_NULL ends the process.
 * @param out_env  receives the environment, ended with evutl_free(); unchanged on failure
 * @return 0; 1 on exhaustion (errno ENOMEM, the storage module has said so), nothing kept on the heap.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int evutl_alloc(stg_area *area, evutl_env **out_env);

/**
 * Makes an environment of copies of strings. Order and repeated names are kept; of a repeated name the first
 * entry counts. Strings without '=' are kept too: no name finds them, and evutl_env2environ() hands them on.
 *
 * @param area     area of the record, the array and the strings, or STG_AREA_HEAP, as for evutl_alloc()
 * @param envp     array of strings ended by NULL, such as the third argument of main; NULL itself is empty.
 *                 Not `environ` while other threads may change it: that is evutl_copy_default_environ().
 * @param out_env  receives the environment, ended with evutl_free(); unchanged on failure
 * @return 0; 1 on exhaustion (errno ENOMEM, the storage module has said so), nothing kept on the heap.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int evutl_copy_environ(stg_area *area, char *const *envp, evutl_env **out_env);

/**
 * Looks a variable up. Names are compared byte by byte, up to the '=' of the entry.
 *
 * @param env   the environment; NULL ends the process (assertion "env != NULL")
 * @param name  name of the variable; NULL ends the process (assertion "name != NULL")
 * @return the text behind the '=' of its first entry, "" for an empty value; NULL when there is none, and for a
 *         name that is empty or has an '='. The text belongs to the environment. On the heap it is valid until
 *         the name is set or unset again or the environment is freed, so threads that share one agree on when.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API const char *evutl_getenv(evutl_env *env, const char *name);

/**
 * Sets a variable: in the place of its first entry, or behind the last one when there is none. Later entries
 * of the name stay, and still do not count.
 *
 * @param env    the environment; NULL ends the process (assertion "env != NULL")
 * @param name   name of the variable, copied; not NULL (assertion "name != NULL")
 * @param value  its value, copied, of any text; not NULL (assertion "value != NULL"). It may come from this
 *               environment.
 * @return 0; 1 with nothing changed and errno: EINVAL for a name that is empty or has an '=', ENOMEM on
 *         exhaustion. On the heap the entry that was replaced is freed; in an area it stays.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int evutl_setenv(evutl_env *env, const char *name, const char *value);

/**
 * Sets a variable from one string, as evutl_setenv() does. It is putenv(3) for a private environment, but the
 * string is copied.
 *
 * @param env    the environment; NULL ends the process (assertion "env != NULL")
 * @param entry  "NAME=value"; the name ends at the first '='. NULL ends the process (assertion
 *               "entry != NULL").
 * @return 0; 1 with nothing changed and errno: EINVAL for a string without '=' or with nothing before it,
 *         ENOMEM on exhaustion.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int evutl_setenv2(evutl_env *env, const char *entry);

/**
 * Removes every entry of a variable. The others keep their order and their addresses.
 *
 * @param env   the environment; NULL ends the process (assertion "env != NULL")
 * @param name  name of the variable; NULL ends the process (assertion "name != NULL")
 * @return 0, also when there was none; 1 with errno EINVAL for a name that is empty or has an '='. On the heap
 *         the entries are freed.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API int evutl_unsetenv(evutl_env *env, const char *name);

/**
 * Gives the entries as an array ended by NULL, as execve(2) takes it, and marks the environment exported,
 * which changes nothing else.
 *
 * @param env  the environment; NULL ends the process (assertion "env != NULL")
 * @return the array itself, never NULL. Array and strings belong to the environment and are valid until its
 *         next change or its end; who forks to execute a program takes the array before the fork.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API char **evutl_env2environ(evutl_env *env);

/**
 * Ends an environment. On the heap its record, array and strings are freed; in an area the memory stays until
 * the area is cleared or deleted, and only the lock ends here, so the call is needed there too.
 *
 * @param env  the environment, which nobody else uses any more; NULL is ignored
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API void evutl_free(evutl_env *env);
/**@}*/

/** @name The process's own environment */
/**@{*/

/**
 * Takes the lock of the process's environment, for programs that read it with getenv(3), walk `environ`, or
 * want several calls below to see the same. The calls nest; each needs its evutl_unlock_environ().
 *
 * While the lock is held no raise is delivered, other threads' getenv_safe() waits (the library's too), and a
 * fork waits. So hold it for a moment only, take no other lock of the library in it, print nothing and
 * allocate nothing from the library.
 *
 * Threads: any. Code that changes the environment without this lock (setenv(3) in other libraries) is not
 * held off.
 * Raises:  no.
 */
KS_API void evutl_lock_environ(void);

/**
 * Leaves the lock that evutl_lock_environ() took; the last of nested calls releases it.
 *
 * A thread that does not hold the lock ends the process with the assertion "environ lock is held by the
 * caller".
 *
 * Threads: the one that took it.
 * Raises:  no; a raise that waited is delivered at the next raise point.
 */
KS_API void evutl_unlock_environ(void);

/** Flags of getenv_safe(). */
enum {
    EVUTL_GETENV_NONEMPTY = 1, /**< an empty value counts as unset */
    EVUTL_GETENV_WHOLE = 2,    /**< a value that does not fit gives NULL and errno ERANGE; it is not cut */
    EVUTL_GETENV_SECURE = 4    /**< unset in a set-user-ID or set-group-ID process, as secure_getenv(3);
                                    for every variable that names a path or a program */
};

/**
 * Copies the value of a variable of the process's environment, read under its lock; so it stays valid whatever
 * other threads do with the environment.
 *
 * @param name    name of the variable; NULL ends the process (assertion "name != NULL")
 * @param buffer  receives the value and its NUL. A value of `size` bytes or more is cut to size - 1 bytes,
 *                unless EVUTL_GETENV_WHOLE is given.
 * @param size    bytes of `buffer`; 0 gives NULL and errno ERANGE for a variable that is set
 * @param flags   EVUTL_GETENV_ flags or 0; other bits are ignored
 * @return `buffer`; NULL when the variable is unset or counts as unset (errno is unchanged), or does not fit
 *         (ERANGE). With NULL the buffer is unchanged.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API char *getenv_safe(const char *name, char *buffer, size_t size, unsigned flags);

/**
 * Puts a string into the process's environment: putenv(3) under the lock.
 *
 * @param string  "NAME=value", which itself becomes part of the environment: it must stay valid, and changing
 *                it changes the environment, until the name is set again or unset. "NAME" alone unsets the
 *                variable. NULL ends the process (assertion "string != NULL").
 * @return 0; not 0 with errno ENOMEM, nothing changed.
 *
 * Threads: any. What getenv(3) returned for the name before is not valid any more.
 * Raises:  no.
 */
KS_API int putenv_safe(char *string);

/**
 * Makes a private environment of the process's own as it is now: evutl_copy_environ() of `environ`, read under
 * the lock.
 *
 * @param area     area of the environment, or STG_AREA_HEAP, as for evutl_alloc()
 * @param out_env  receives the environment, ended with evutl_free(); unchanged on failure
 * @return 0; 1 on exhaustion (errno ENOMEM, the storage module has said so), nothing kept on the heap.
 *
 * Threads: any; not with the environment's lock held, because it allocates.
 * Raises:  no.
 */
KS_API int evutl_copy_default_environ(stg_area *area, evutl_env **out_env);

/**
 * Puts a copy of a private environment in the place of the process's own, which is saved. Everybody in the
 * process then sees the copy, getenv(3) too, until evutl_restore_default_environ(). Overrides nest.
 *
 * @param env  the environment; it is copied whole, so it may be changed or freed at once. NULL ends the
 *             process (assertion "env != NULL").
 * @return 0; 1 on exhaustion (errno ENOMEM, the storage module has said so), nothing changed.
 *
 * Values that getenv(3) returned before stay valid; they come back with the environment they belong to.
 *
 * Threads: any; not with the environment's lock held, because it allocates.
 * Raises:  no.
 */
KS_API int evutl_override_default_environ(evutl_env *env);

/**
 * Takes the newest override back: the process's environment holds the strings that it held before the
 * override, whatever was set or unset since.
 *
 * @return 0; 1 with errno EINVAL when there is no override. Values that getenv(3) returned since the override
 *         are not valid any more.
 *
 * Overrides are one stack for the process: threads that use them agree on who takes which back.
 *
 * Threads: any; not with the environment's lock held, because it frees memory.
 * Raises:  no.
 */
KS_API int evutl_restore_default_environ(void);

/**
 * Removes a variable from the process's environment: unsetenv(3) under the lock.
 *
 * @param name  name of the variable; NULL ends the process (assertion "name != NULL")
 * @return 0, also when it was not set; 1 with errno EINVAL for a name that is empty or has an '='.
 *
 * Threads: any. What getenv(3) returned for the name before is not valid any more.
 * Raises:  no.
 */
KS_API int evutl_unsetenv_default_environ(const char *name);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
