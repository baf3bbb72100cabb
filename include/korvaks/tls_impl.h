/*
 * The per-thread blocks of all modules, in one visible place. Private: not installed.
 *
 * There are two. The fault block lies below everything and is plain malloc'ed memory; the
 * library block lives in a storage area of its own and has one named struct per module. A result
 * that is valid "until the same thread calls again" is a field here.
 */
#ifndef KORVAKS_TLS_IMPL_H
#define KORVAKS_TLS_IMPL_H

#include <time.h>

#include <korvaks/base.h>
#include <korvaks/llist.h>
#include <korvaks/pfm.h>
#include <korvaks/stg.h>

/* A thread the library knows, on the state list. */
struct vlthread_state {
    vlthread_t tid;
    int32_t raise_status; /* 0: none pending; set by any thread, read by its own */
    llist_link link;
};

/* An area whose mutex a thread holds or waits for; on the thread's stack. */
struct stg_area_hold {
    struct stg_area_hold *outer;
    stg_area *area;
};

/* The fault block: what threads, locks and raises need of the calling thread. */
struct pfm_fault_block {
    struct vlthread_state *state;   /* the thread's entry on the state list, cached */
    llist_link held_ordered;        /* held mutexes that have an order class */
    struct pfm_cleanup_rec *cl_rec_root; /* innermost cleanup record */
    int32_t pfm_inh_count;          /* inhibits and counted locks held */
    int32_t pfm_inh_susp;           /* suspension inhibits */
    int32_t susp_share;             /* this thread's share of the process-wide count of inhibits */
    int32_t asserting;              /* an assertion is being reported: a second one must not print */
    int32_t stopping;               /* the thread performs a held stop */
    uint32_t inside_area;           /* 1: an area is being changed, a fork waits (vlthread_gate.h) */
    uint32_t read_holds;            /* read/write locks held for reading */
    struct stg_area_hold *area_holds; /* innermost first; read by the child of a fork */
    llist_link all_link;            /* on the list of all blocks (pfm_tls.cpp) */
};

/* Something to do with a module's section when the thread ends. */
struct ks_tls_release {
    void (*fn)(void *section); /* NULL: nothing */
};

/* strutl */
struct strutl_tls {
    char *tokenize_next; /* where strutl_tokenize() goes on */
    char *u32_digits;    /* strutl_u32tostr(): 33 bytes */
    char *flags_text;    /* strutl_flags_to_str(): 1024 bytes */
};

/* imsg */
struct imsg_tls {
    struct ks_tls_release release;
    char *catalog_text;       /* last text fetched from a catalogue; heap */
    size_t catalog_text_size;
    char *app_name;           /* copy of the program name; heap */
    size_t app_name_size;
    char error_text[256];     /* imsg_strerror() */
};

/* clp */
struct clp_tls {
    const char *commands[10]; /* the stack of commands, oldest first; not copies */
    uint32_t command_count;
    uint32_t generation;      /* of the stack */
    uint32_t text_generation; /* of the stack that stack_text shows */
    int64_t depth;            /* all pushes less all pops */
    char stack_text[251];
    char command_text[257]; /* clp_get_command() */
    char token[8192];       /* the word that clp_parse_string() is reading */
};

/* date: one text of 128 bytes for each routine that returns one */
enum date_text {
    date_text_long,
    date_text_short,
    date_text_short_date,
    date_text_short_time,
    date_text_ls,
    date_text_numeric,
    date_text_count
};

#define date_seasons 32

/* date: the zone in force, a quarter of an hour in it, and its offsets through the year */
struct date_zone_cache {
    int zone_state;    /* whether `zone` holds the value of TZ */
    int block_state;   /* what is known of the block */
    const char *entry; /* of TZ in the environment; read only while it is still there */
    char zone[48];
    time_t block;              /* its number, counted from 1970 */
    struct tm start;           /* local time at its beginning */
    int offsets[date_seasons]; /* seconds east of UTC that were met last in each part of a year */
};

struct date_tls {
    struct ks_tls_release release;
    char *texts[date_text_count];
    char *usage; /* date_usage_date_time(): 1024 bytes */
    char *token; /* the last date token; heap */
    struct date_zone_cache zone;
};

/* rpc: creation error, error text and the client of ks_rpc_call() */
struct rpc_tls {
    struct ks_tls_release release;
    struct rpc_thread *thread; /* clnt_impl.h; in the block's area, NULL before the first use */
};

/* The library block. Its first word is the area that holds it. */
struct ks_tls {
    stg_area *area;
    struct strutl_tls strutl;
    struct imsg_tls imsg;
    struct date_tls date;
    struct clp_tls clp;
    struct rpc_tls rpc;
};

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The calling thread's library block, made zeroed on first use and freed at the thread's end
 * (each section's release function first). Exhaustion ends the process.
 * Any thread. Raises: no.
 */
KS_API struct ks_tls *ks_tls_get(void);

#ifdef __cplusplus
}
#endif
#endif
