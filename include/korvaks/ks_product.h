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
 * Paths are written to the caller's buffer of KS_PATH_SIZE bytes; a longer one is cut there and
 * ends with a NUL. Any thread may call anything here.
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
 * when the library was started before. May be called any number of times from any thread.
 *
 * @return 1 from the call that started the library, 0 from all others.
 * Raises: no.
 */
KS_API uint32_t ks_system_init(void);

/** Not 0 once the first per-thread block of the library was made. */
KS_API uint32_t ks_initialized(void);
/**@}*/

/** @name Directories */
/**@{*/

/**
 * The product directory, followed by "/" and `sub` unless that is NULL.
 * @param dst  KS_PATH_SIZE bytes
 * @return `dst`.
 * Raises: only in the first call, when memory is exhausted (which prints); `dst` is then not written.
 */
KS_API char *ks_product_dir(char *dst, const char *sub);

/** The product's directory of programs, "bin" in the product directory, and "/" and `tool` unless NULL. */
KS_API char *ks_product_tool_dir(char *dst, const char *tool);

/** ks_product_tool_dir() between double quotes, for a command line. */
KS_API char *ks_product_tool_dir_quoted(char *dst, const char *tool);

/**
 * The host-data directory, then "/" and `sub1` and "/" and `sub2`, each unless it is NULL.
 *
 * It is the first of /var/adm/vellum, /var/adm/korva and the value of VELM_HOSTDATA_DIR that exists.
 * If none does, the process cannot go on: errors 8 and 9 are printed and pfm_exit(2) ends it. Where
 * that call returns (see pfm.h) `dst` is empty.
 *
 * @param dst  KS_PATH_SIZE bytes
 * @return `dst`.
 * Raises: yes, in the calls that print.
 */
KS_API char *ks_hostdata_dir(char *dst, const char *sub1, const char *sub2);

/** Whether there is a host-data directory, 1 or 0, for callers that can do without. Raises: no. */
KS_API int ks_has_hostdata_dir(void);

/** ks_hostdata_dir(dst, "config", sub). */
KS_API char *ks_host_config_dir(char *dst, const char *sub);
/**@}*/

/** @name Switches: 1 on, 0 off */
/**@{*/

/** VELM_FORCE_GUI, KORVA_FORCE_GUI: questions go to the prompting tool. */
KS_API int ks_force_gui(void);
/** VELM_WEB_GUI, KORVA_WEB_GUI: the front end is a web page. */
KS_API int ks_web_gui(void);
/** VELM_CTE_DYNAMIC, KORVA_CTE_DYNAMIC. */
KS_API int ks_cte_dynamic(void);
/** VELM_WEB_VELPROMPT, KORVA_WEB_VELPROMPT: the prompting tool is its web form. */
KS_API int ks_web_velprompt(void);
/** VELM_NO_BOLD, KORVA_NO_BOLD: no bold output. Here alone an empty second variable means on. */
KS_API int ks_no_bold(void);

/**
 * Sets both variables of a switch in the process's environment: to 1 for a non-zero `on`, to nothing
 * for 0. It is for children: an answer this process already has stays. 0, or 1 with errno when
 * putenv_safe() fails.
 */
KS_API int ks_set_force_gui(int on);
KS_API int ks_set_web_gui(int on);
KS_API int ks_set_cte_dynamic(int on);
KS_API int ks_set_web_velprompt(int on);
/**@}*/

#ifdef __cplusplus
}
#endif
#endif
