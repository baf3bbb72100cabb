/**
 * @file ks_product.h
 * The start of the library, and what the product knows about its place: where it is installed, where
 * the host's data lie, which behaviour switches are set.
 *
 * Every answer is found once and kept for the life of the process; later changes of the environment
 * do not move it. Environment variables read:
 *
 *     VELLUMHOME, KORVAHOME      product directory; the first that is set, even to nothing
 *     VELM_HOSTDATA_DIR          host-data directory where neither built-in one exists
 *     VELM_x, KORVA_x            a switch; KORVA_x where VELM_x is unset or empty
 *
 * A set-user-ID or set-group-ID process ignores the three that name directories.
 *
 * A switch is off when it is unset, empty, or a number that is 0 ("0", "00", "0x"); else it is on.
 *
 * Paths are written to the caller's buffer of KS_PATH_SIZE bytes. One that does not fit is not cut, as it would
 * name another file: the buffer then holds "", and errno is ENAMETOOLONG.
 */
#ifndef KORVAKS_KS_PRODUCT_H
#define KORVAKS_KS_PRODUCT_H

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Bytes of the path buffers below, with the NUL. */
#define KS_PATH_SIZE 1024

/** @name Start */
/**@{*/

/**
 * Starts the library: threads, umask record, fault manager (pfm_init()), the user's locale if
 * the program has not chosen one, descriptor limit. The caller becomes the attached thread, also
 * when the library was started before. A tool calls it first of all; messages, strings and areas work
 * without it.
 *
 * @return 1 from the call that started the library, 0 from all others.
 * What is missing for a start (a thread, a descriptor) ends the process.
 *
 * Threads: any, any number of times, several at once. Called within the critical section it leaves the
 * section as it was. Raises: no.
 */
KS_API uint32_t ks_system_init(void);

/**
 * Tells whether the library has begun to be used: not 0 once any thread's per-thread block was made, which calls
 * with results "of the calling thread" do on their way. Threads: any. Raises: no.
 */
KS_API uint32_t ks_initialized(void);
/**@}*/

/** @name Directories */
/**@{*/

/**
 * The product directory, followed by "/" and `sub`.
 *
 * It is the first of VELLUMHOME and KORVAHOME that is set, of which at most 1023 bytes are taken, else
 * /opt/vellum. The first call of the process decides; whether the directory exists is not looked at.
 *
 * @param dst  KS_PATH_SIZE bytes
 * @param sub  NULL: nothing follows; "" leaves a "/" at the end
 * @return `dst`; it holds "", with errno ENAMETOOLONG, where the path does not fit.
 *
 * Threads: any. Raises: only in the first call, when memory is exhausted (which prints a warning, and the
 * answer is kept all the same); `dst` is then not written.
 */
KS_API char *ks_product_dir(char *dst, const char *sub);

/**
 * The product's directory of programs, "bin" in the product directory, followed by "/" and `tool`.
 *
 * @param dst   KS_PATH_SIZE bytes
 * @param tool  NULL: nothing follows
 * @return as ks_product_dir().
 *
 * Threads: any. Raises: as ks_product_dir().
 */
KS_API char *ks_product_tool_dir(char *dst, const char *tool);

/**
 * ks_product_tool_dir() between double quotes, for a command line. A double quote in the path is not escaped.
 *
 * @return `dst`; it holds "", with errno ENAMETOOLONG, where the path and its quotes do not fit.
 *
 * Threads: any. Raises: as ks_product_dir().
 */
KS_API char *ks_product_tool_dir_quoted(char *dst, const char *tool);

/**
 * The host-data directory, followed by "/" and `sub1` and by "/" and `sub2`.
 *
 * It is the first of /var/adm/vellum, /var/adm/korva and the value of VELM_HOSTDATA_DIR that exists when it is
 * first asked for. If none does, the process cannot go on: errors 8 and 9 of the table "ks" are printed, the user
 * of a front end (imsg_in_gui()) gets message 27 in a proceed prompt (imsg_prompt.h), and pfm_exit(2) ends the
 * process. Where that call returns (pfm.h), `dst` holds "".
 *
 * @param dst         KS_PATH_SIZE bytes
 * @param sub1, sub2  each NULL: nothing follows for it
 * @return `dst`; it holds "", with errno ENAMETOOLONG, where the path does not fit.
 *
 * Threads: any. Raises: yes, in the calls that print; `dst` is then not written.
 */
KS_API char *ks_hostdata_dir(char *dst, const char *sub1, const char *sub2);

/**
 * Tells whether there is a host-data directory, for callers that can do without. Where there is, it is the
 * answer of the process from then on, so that a call of ks_hostdata_dir() that follows does not look again.
 *
 * @return 1 or 0; 0 is not kept, and the next call looks again.
 * Threads: any. Raises: no.
 */
KS_API int ks_has_hostdata_dir(void);

/** ks_hostdata_dir(dst, "config", sub): where the host is configured. Threads and raises: as there. */
KS_API char *ks_host_config_dir(char *dst, const char *sub);
/**@}*/

/**
 * @name Switches: 1 on, 0 off
 * Each answer is found by the first call and kept. errno is kept. Threads: any. Raises: no.
 */
/**@{*/

/** VELM_FORCE_GUI, KORVA_FORCE_GUI: questions go to the prompting tool. */
KS_API int ks_force_gui(void);
/** VELM_WEB_GUI, KORVA_WEB_GUI: the front end is a web page. */
KS_API int ks_web_gui(void);
/** VELM_CTE_DYNAMIC, KORVA_CTE_DYNAMIC: a switch of the product's programs, which the library itself never asks. */
KS_API int ks_cte_dynamic(void);
/** VELM_WEB_VELPROMPT, KORVA_WEB_VELPROMPT: the prompting tool is its web form. */
KS_API int ks_web_velprompt(void);
/** VELM_NO_BOLD, KORVA_NO_BOLD: no styles on a terminal. Here alone an empty second variable means on. */
KS_API int ks_no_bold(void);

/**
 * Sets both variables of ks_force_gui() in the process's environment, for children: an answer that this process
 * already has stays as it is. The two change together, under the environment's lock (evutl.h).
 *
 * @param on  not 0: both become "1"; 0: both become empty
 * @return 0; 1 with errno when putenv_safe() fails (memory exhausted), and then one of the two may have
 *         changed.
 *
 * Threads: any. Raises: no.
 */
KS_API int ks_set_force_gui(int on);
/** ks_set_force_gui() for the variables of ks_web_gui(). */
KS_API int ks_set_web_gui(int on);
/** ks_set_force_gui() for the variables of ks_cte_dynamic(). */
KS_API int ks_set_cte_dynamic(int on);
/** ks_set_force_gui() for the variables of ks_web_velprompt(). */
KS_API int ks_set_web_velprompt(int on);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
