/* The program that every server here serves: its numbers. */
#ifndef PROBE_H
#define PROBE_H

#define PROBE_PROGRAM 0x20000099u
#define PROBE_LOWEST 1u /* versions: these two, so that the one between them is a mismatch */
#define PROBE_HIGHEST 3u

enum probe_procedure {
    PROBE_NULL = 0,
    PROBE_ECHO = 1,  /* opaque<> ECHO(opaque<>) */
    PROBE_SLEEP = 2, /* void SLEEP(unsigned milliseconds) */
    PROBE_BURN = 3,  /* unsigned BURN(unsigned microseconds) keeps a core busy and returns its argument */
    PROBE_WHO = 4,  /* what the credential says: unsigned flavour, uid, gid; string machine<255>; unsigned groups<16> */
    PROBE_BUMP = 5, /* BUMP(unsigned n) adds n to a counter and has no reply */
    PROBE_COUNT = 6, /* unsigned COUNT(void): that counter */
    PROBE_NEXT = 7   /* unsigned NEXT(void): adds 1 to it, and is so not idempotent */
};

#endif
