/**
 * @file evutl.h
 * Environments: private copies, and the process's own under a lock.
 *
 * A private environment holds strings NAME=value in a storage area. A server builds the environment
 * of a child in it without touching its own. Life cycle: evutl_alloc() or evutl_copy_environ(), any
 * number of changes, evutl_env2environ() for execve(2), at last evutl_free(). With STG_AREA_HEAP the
 * strings that a change replaces are freed and evutl_free() frees the rest; in any other area all
 * memory stays until the area is cleared or deleted. Each has a lock of its own, which every
 * operation takes, so threads may share one.
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
 * @param area     area of the record and its strings, or STG_AREA_HEAP
 * @param out_env  receives the environment, ended with evutl_free()
 */
KS_API int evutl_alloc(stg_area *area, evutl_env **out_env);

/**
 * Makes an environment of copies of the strings of `envp` (ended by NULL; NULL itself is empty).
 * Order and repeated names are kept; of a repeated name the first entry counts.
 */
KS_API int evutl_copy_environ(stg_area *area, char *const *envp, evutl_env **out_env);

/**
 * The value of `name`: the text behind its '=', or NULL.
 * It belongs to the environment, until the name is set or unset again or the environment is freed.
 */
KS_API const char *evutl_getenv(evutl_env *env, const char *name);

/** Sets `name` to `value` in place of its first entry, or behind the last one. Both are copied. */
KS_API int evutl_setenv(evutl_env *env, const char *name, const char *value);

/** evutl_setenv() from one string "NAME=value"; EINVAL without '=' or with nothing before it. */
KS_API int evutl_setenv2(evutl_env *env, const char *entry);

/** Removes every entry of `name`; 0 also when there is none. The others keep their order. */
KS_API int evutl_unsetenv(evutl_env *env, const char *name);

/**
 * The entries as an array ended by NULL, as execve(2) takes it, and marks the environment exported.
 * The array belongs to the environment, until its next change or its end.
 */
KS_API char **evutl_env2environ(evutl_env *env);

/** Ends an environment. NULL is ignored. */
KS_API void evutl_free(evutl_env *env);
/**@}*/

/** @name The process's own environment */
/**@{*/

/** Takes and leaves the lock of the process's environment; the calls nest. */
KS_API void evutl_lock_environ(void);
KS_API void evutl_unlock_environ(void);

/** Flags of getenv_safe(). */
enum {
    EVUTL_GETENV_NONEMPTY = 1, /**< an empty value counts as unset */
    EVUTL_GETENV_WHOLE = 2,    /**< a value that does not fit gives NULL and errno ERANGE; it is not cut */
    EVUTL_GETENV_SECURE = 4    /**< unset in a set-user-ID or set-group-ID process, as secure_getenv(3);
                                    for every variable that names a path or a program */
};

/**
 * Copies the value of a variable, read under the lock.
 *
 * @param buffer  receives the value and its NUL. A value of `size` bytes or more is cut to size - 1,
 *                unless EVUTL_GETENV_WHOLE is given.
 * @param size    bytes of `buffer`; 0 gives NULL and errno ERANGE
 * @param flags   EVUTL_GETENV_ flags, or 0
 * @return `buffer`; NULL when the variable is unset, and then buffer and errno are unchanged.
 */
KS_API char *getenv_safe(const char *name, char *buffer, size_t size, unsigned flags);

/**
 * putenv(3) under the lock: `string` itself, "NAME=value", becomes part of the environment and must
 * outlive its place there. 0, or not 0 with errno.
 */
KS_API int putenv_safe(char *string);

/** evutl_copy_environ() of the process's environment as it is now. Not to be called with its lock held. */
KS_API int evutl_copy_default_environ(stg_area *area, evutl_env **out_env);

/**
 * Puts a copy of `env` in the place of the process's environment and saves the present one; `env` is
 * not needed any more. Overrides nest. Not to be called with the environment's lock held.
 */
KS_API int evutl_override_default_environ(evutl_env *env);

/**
 * Takes the newest override back: the process's environment is what it was before it, whatever was
 * set or unset since. Values that getenv(3) returned in between become invalid. 1 (EINVAL) when there is
 * no override. Not to be called with the lock held.
 */
KS_API int evutl_restore_default_environ(void);

/** unsetenv(3) under the lock. */
KS_API int evutl_unsetenv_default_environ(const char *name);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
